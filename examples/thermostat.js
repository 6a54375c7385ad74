// A thermostat with hysteresis and a schedule.
//
//     vnjs run examples/thermostat.js
//
// The heating goes on when the room is a little colder than wanted, and off when it is a little warmer. In between it
// stays as it is: without that gap the relay would click at every tenth of a degree.
//
// The room is a small model, and a day passes in less than three seconds. At home, `room.temperature` would be read from
// a sensor and `room.heating` would switch a relay.
'use strict';

// What is wanted from which minute of the day on. The last entry also holds over midnight.
const SCHEDULE = [
  {from: 6 * 60, wanted: 21, name: 'morning'},
  {from: 8 * 60 + 30, wanted: 17, name: 'nobody home'},
  {from: 16 * 60, wanted: 21.5, name: 'evening'},
  {from: 22 * 60 + 30, wanted: 16, name: 'night'},
];

const GAP = 0.5;      // degrees above and below the wanted temperature
const STEP = 15;      // minutes
const STEP_MS = 25;   // real time of one step

const room = {temperature: 17, heating: false};
let period;
let switched = 0;

function say(minute, ...words) {
  const twoDigits = (n) => String(n).padStart(2, '0');
  debugPrint(twoDigits(Math.floor(minute / 60)) + ':' + twoDigits(minute % 60), ...words);
}

// Says something only when something changes.
function control(minute) {
  const begun = SCHEDULE.filter(({from}) => from <= minute);
  const now = begun[begun.length - 1] || SCHEDULE[SCHEDULE.length - 1];
  if (now !== period) {
    period = now;
    say(minute, period.name + ': wanted', period.wanted.toFixed(1));
  }
  const warm = room.temperature > period.wanted + (room.heating ? GAP : -GAP);
  if (room.heating === warm) {
    room.heating = !room.heating;
    switched++;
    say(minute, 'heating', room.heating ? 'on' : 'off', 'at', room.temperature.toFixed(1));
  }
}

// The room loses warmth to the winter outside and wins some from the radiator.
function pass(minute) {
  control(minute);
  const perHour = (room.heating ? 2.6 : 0) - 0.06 * (room.temperature - 2);
  room.temperature += perHour * STEP / 60;

  // An interval would call again and again even when nothing is left to do.
  if (minute + STEP < 24 * 60) {
    setTimeout(() => pass(minute + STEP), STEP_MS);
  } else {
    debugPrint('The day is over; the heating was switched', switched, 'times.');
  }
}

pass(0);
