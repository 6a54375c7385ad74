// Lamps that make an empty house look lived in.
//
//     vnjs run examples/presence.js
//
// Somebody seems to go from room to room: at other times every evening, but as people do, to the kitchen early and to
// bed late. The evening follows from the number of the day alone. So a restart in the middle of it goes on with the same
// evening, and when something went wrong it can be had again.
//
// Ten minutes last 25 ms here. At home, `say` would switch the lamps, and DAY would be Math.floor(Date.now() / 864e5).
'use strict';

const DAY = 20778;
const STEP = 10;  // minutes

// Where somebody may be from when to when, and how often in comparison with the other rooms.
const ROOMS = [
  {name: 'kitchen', from: 17 * 60, until: 20 * 60, weight: 3},
  {name: 'living room', from: 18 * 60, until: 23 * 60, weight: 4},
  {name: 'bathroom', from: 17 * 60, until: 24 * 60, weight: 1},
  {name: 'bedroom', from: 21 * 60 + 30, until: 24 * 60, weight: 2},
];

// Numbers from 0 to 1 that look random and are the same for the same seed: each is the one before times 48271, modulo a
// prime. Math.random() cannot be told where to begin.
function generator(seed) {
  let state = seed % 2147483646 + 1;
  const random = () => (state = state * 48271 % 2147483647) / 2147483647;
  // From seeds that are near to each other, the first numbers are so too.
  for (let i = 0; i < 5; i++) random();
  return random;
}

// The evening as a list: from when on the lamp of which room is on.
function plan(day) {
  const random = generator(day);
  const between = (low, high) => low + Math.floor(random() * (high - low) / STEP) * STEP;
  const stays = [];
  const end = between(22 * 60 + 30, 23 * 60 + 40);
  for (let minute = between(17 * 60, 17 * 60 + 40); minute < end; minute += between(STEP, 90)) {
    const open = ROOMS.filter((room) => room.from <= minute && minute < room.until);
    let point = random() * open.reduce((sum, room) => sum + room.weight, 0);
    const room = open.find(({weight}) => (point -= weight) < 0) || open[0];
    stays.push({from: minute, room: room.name});
  }
  return [...stays, {from: end, room: 'none'}];
}

function say(minute, text) {
  debugPrint(Math.floor(minute / 60) + ':' + String(minute % 60).padStart(2, '0'), text);
}

const stays = plan(DAY);
let lit = 'none';

function pass(minute) {
  const begun = stays.filter((stay) => stay.from <= minute);
  const room = begun.length > 0 ? begun[begun.length - 1].room : 'none';
  if (room !== lit) say(minute, 'light: ' + (lit = room));
  if (minute + STEP < 24 * 60) setTimeout(() => pass(minute + STEP), 25);
}

pass(16 * 60);
