// A light that motion switches on, and that goes off when there was none for a while.
//
//     vnjs run examples/motion_light.js
//
// Each motion starts the waiting time anew, so nobody is left in the dark for having come in early. By daylight
// the light stays off; once it is on, its own brightness must not switch it off.
//
// The list of events at the end stands for the sensors, and the hall waits for a fraction of a second where a
// real one would wait for minutes.
'use strict';

const HOLD_MS = 800;  // the light stays on for this long after the last motion
const DARK_LUX = 40;  // motion switches the light on only when it is darker than this

class MotionLight {
  constructor(name) {
    this.name = name;
    this.on = false;
    this.timeout = 0;
  }

  motion(lux) {
    if (!this.on && lux >= DARK_LUX) {
      debugPrint(this.name + ': motion at', lux, 'lux, bright enough');
      return;
    }
    if (this.on) {
      debugPrint(this.name + ': motion again, waiting anew');
    } else {
      this.on = true;
      debugPrint(this.name + ': motion at', lux, 'lux, light on');
    }
    this.restart();
  }

  // There is one timeout at most. Clearing one that has fired already, or the 0 of the beginning, is harmless.
  restart() {
    clearTimeout(this.timeout);
    this.timeout = setTimeout(() => {
      this.on = false;
      debugPrint(this.name + ': no more motion, light off');
    }, HOLD_MS);
  }
}

const hall = new MotionLight('hall');

// When somebody moves, in milliseconds from the start, and what the light sensor reads then.
const EVENTS = [
  {at: 50, lux: 120},
  {at: 200, lux: 12},
  {at: 650, lux: 85},   // the light itself makes it bright
  {at: 1100, lux: 85},  // past the first timeout: only because of the restart is it still on
  {at: 2300, lux: 10},  // after it went off
];

for (const event of EVENTS) setTimeout(() => hall.motion(event.lux), event.at);
