// A burglar alarm as a state machine: each state is a function that waits for what may happen in it and gives the name
// of the next one. What is to be done in which order can be read from top to bottom.
//
//     vnjs run examples/alarm.js
//
// The table at the end stands for the sensors and the keypad, and a second lasts 25 ms.
'use strict';

const LEAVING = 20;   // seconds to leave the house after the code was entered
const ENTERING = 15;  // seconds to enter the code after the door was opened
const SIREN = 30;     // seconds of noise, which is all that the law allows

let second = 0;
let waiting;

function say(...words) {
  debugPrint(String(second).padStart(3) + ' s', ...words);
}

// A promise of the first of these events, or of 'time' when none of them comes in time. Whoever waits has left the last
// state, so one place to wait is enough. To resolve a promise again does nothing.
function next(events, seconds = Infinity) {
  return new Promise((resolve) => { waiting = {events, until: second + seconds, resolve}; });
}

const STATES = {
  disarmed: async () => { await next(['code']); return 'leaving'; },
  leaving: async () => await next(['code'], LEAVING) === 'code' ? 'disarmed' : 'armed',
  armed: async () => ({code: 'disarmed', door: 'entering', window: 'alarm'})[await next(['code', 'door', 'window'])],
  entering: async () => await next(['code', 'window'], ENTERING) === 'code' ? 'disarmed' : 'alarm',
  alarm: async () => {
    say('siren on');
    const event = await next(['code'], SIREN);
    say('siren off');
    return event === 'code' ? 'disarmed' : 'armed';
  },
};

async function run(state) {
  for (;;) {
    say('->', state);
    state = await STATES[state]();
  }
}

// What happens in which second. In a state that does not wait for it, nothing comes of it.
const EVENTS = {
  5: 'code', 12: 'door', 60: 'door', 68: 'code', 80: 'code', 90: 'code',
  100: 'code', 130: 'window', 170: 'door', 200: 'code', 230: 'window',
};

function pass() {
  const event = EVENTS[++second];
  if (event) say(event);
  if (waiting.events.includes(event)) waiting.resolve(event);
  if (second >= waiting.until) waiting.resolve('time');
  if (second < 240) setTimeout(pass, 25);
}

run('disarmed');
pass();
