/// <reference path="../../types/vnjs.d.ts" />
/// <reference path="../../types/runner.d.ts" />
// The boiler heats ahead of a cold night.
subscribe('heating/plan');
on('heating/plan', async (city) => {
  const {low} = await forecast(city);
  publish('heating/boiler', {target: low < 0 ? 55 : 40, indoors: readMeter(1), outdoors: readMeter(2) ?? null});
});
