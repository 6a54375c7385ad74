// A thermostat with hysteresis and a schedule.
//
//     vnjs run examples/thermostat.js
//
// The heating goes on when the room is a little colder than wanted, and off when it is a little warmer. In
// between it stays as it is: without that gap the relay would click at every tenth of a degree.
//
// The room is a small model, and a day passes in less than three seconds. At home, `room.temperature` would be read
// from a sensor and `room.heating` would switch a relay; the thermostat itself would stay the same.
'use strict';

// What is wanted from which minute of the day on. The last entry also holds over midnight.
const SCHEDULE = [
  {from: 6 * 60, wanted: 21, name: 'morning'},
  {from: 8 * 60 + 30, wanted: 17, name: 'nobody home'},
  {from: 16 * 60, wanted: 21.5, name: 'evening'},
  {from: 22 * 60 + 30, wanted: 16, name: 'night'},
];

const GAP = 0.5;             // degrees above and below the wanted temperature
const MINUTES_PER_STEP = 15;
const STEP_MS = 25;          // real time of one step

function periodAt(minute) {
  const begun = SCHEDULE.filter((period) => period.from <= minute);
  return begun.length > 0 ? begun[begun.length - 1] : SCHEDULE[SCHEDULE.length - 1];
}

function clockText(minute) {
  const twoDigits = (n) => String(n).padStart(2, '0');
  return twoDigits(Math.floor(minute / 60)) + ':' + twoDigits(minute % 60);
}

// Loses warmth to the winter outside, wins some from the radiator.
class Room {
  constructor(temperature) {
    this.temperature = temperature;
    this.heating = false;
  }

  pass(minutes) {
    const outside = 2;
    const perHour = (this.heating ? 2.6 : 0) - 0.06 * (this.temperature - outside);
    this.temperature += perHour * minutes / 60;
  }
}

class Thermostat {
  constructor(room) {
    this.room = room;
    this.period = null;
    this.switched = 0;
  }

  // Called at every step of the clock. Says something only when something changes.
  control(minute) {
    const period = periodAt(minute);
    if (period !== this.period) {
      this.period = period;
      debugPrint(clockText(minute), period.name + ': wanted', period.wanted.toFixed(1));
    }

    const {temperature, heating} = this.room;
    if (!heating && temperature < period.wanted - GAP) this.switchTo(true, minute);
    if (heating && temperature > period.wanted + GAP) this.switchTo(false, minute);
  }

  switchTo(heating, minute) {
    this.room.heating = heating;
    this.switched++;
    debugPrint(clockText(minute), 'heating', heating ? 'on' : 'off', 'at', this.room.temperature.toFixed(1));
  }
}

const room = new Room(17);
const thermostat = new Thermostat(room);
let minute = 0;

const clock = setInterval(() => {
  thermostat.control(minute);
  room.pass(MINUTES_PER_STEP);
  minute += MINUTES_PER_STEP;
  if (minute < 24 * 60) return;

  // With its last timer gone the automation has nothing left to do, and ends.
  clearInterval(clock);
  debugPrint('The day is over; the heating was switched', thermostat.switched, 'times.');
}, STEP_MS);
