/// <reference path="../../types/vnjs.d.ts" />
/// <reference path="../../types/runner.d.ts" />
// An automation with a mistake: its limit keeps it from taking the others' time.
subscribe('guard/alarm');
on('guard/alarm', (level) => {
  while (level > 0) level += 1;
  publish('guard/siren', level);
});
