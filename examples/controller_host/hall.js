/// <reference path="../../types/vnjs.d.ts" />
/// <reference path="../../types/runner.d.ts" />
// The lamp goes on with a motion in the dark, and off a while after the last one.
let off;

subscribe('hall/motion');
on('hall/motion', ({lux}) => {
  if (lux < 50) lamp.set('hall', 80);
  clearTimeout(off);
  off = setTimeout(() => lamp.set('hall', 0), 200);
});
onStop(() => publish('hall/state', 'stopped'));
