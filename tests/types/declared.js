// What an editor makes of a host's own functions, and of those of a runner.
'use strict';

on('motion', async (room, lux) => {
  lamp.set(room, lux);
  lamp(true);
  const {low} = await forecast('Oslo');
  publish('low', {low, meter: (readMeter(1) ?? 0) + 1});
  const [again] = await once('motion');
  wait(null, again === room);
  lamp.group.all()[0].x.toFixed();
});
onStop(() => publish('state', serial(BigInt(5))));
// @ts-expect-error
lamp.set('hall', 'bright');
// @ts-expect-error
lamp.set('hall');
// @ts-expect-error
readMeter(1).toFixed();
// @ts-expect-error
forecast('Oslo').low;
// @ts-expect-error
on('motion');
// @ts-expect-error
wait(1);
