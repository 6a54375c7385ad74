// The table of timers, next to a model that knows when each timer is due instead of how much time it has left.

// The last ids before they begin again at 1 are the first to be used.
const BEFORE = 0xfffffffc;

// Which functions were called, each with which id; and what waits, by id.
let called, expected, timers, last, now;
const time = () => number() & 0x7fffffff;

const OPERATIONS = [
  (recurring) => {
    const delay = time(), repeats = recurring && delay > 0;
    do last = (last + 1) >>> 0; while (last === 0 || timers.has(last));
    const mine = last;
    is(add((id) => called.push([mine, id >>> 0]), delay, repeats), mine, 'the id');
    if (delay === 0) expected.push([mine, mine]);
    else timers.set(mine, {due: now + delay, delay, repeats});
  },
  (recurring) => {
    const id = (BEFORE + number()) >>> 0, matches = !timers.has(id) || timers.get(id).repeats === recurring;
    is(clear(id, recurring), matches, 'what clearing says');
    if (matches) timers.delete(id);
  },
  () => {
    const elapsed = time();
    pass(elapsed);
    now += elapsed;
    for (const [id, timer] of [...timers].sort(([a], [b]) => a - b)) {
      if (timer.due > now) continue;
      expected.push([id, id]);
      timer.due = now + timer.delay;
      if (!timer.repeats) timers.delete(id);
    }
  },
];

function fuzz() {
  renew(BEFORE);
  [called, expected, timers, last, now] = [[], [], new Map(), BEFORE, 0];
}

// From one time that callbacks run to the next, which has to come before more of them wait than the table allows.
function goOn() {
  is([called, isPending()], [expected, timers.size > 0], 'what was called');
  [called, expected] = [[], []];
  const wasMore = more();
  let step = 0;
  while (more() && step < 6 && expected.length < 5000) {
    step = next() % 8;
    OPERATIONS[step >> 1]?.(step % 2 === 1);
  }
  return wasMore;
}
