// Counts energy over restarts: what the meters have counted is kept in an object of its own, the configuration is a
// JSON file beside this script.
//
//     vnjs run examples/energy_counter.js      (and once more: the counters go on where they were)
//
// The watts in the configuration stand for a meter's readings, one for each quarter of an hour; here a quarter of an
// hour lasts a tenth of a second. `saveObject` has the object on the disk when it returns, so a power failure costs
// what was counted since the last call, never what was saved before.
'use strict';

const HOURS_PER_READING = 0.25;
const READING_MS = 100;

const config = fs.loadJSON('energy_counter.json');
const state = loadObject('energy counter') || {starts: 0, wattHours: {}};

state.starts++;
debugPrint('start number', state.starts);

function count(reading) {
  for (const meter of config.meters) {
    const before = state.wattHours[meter.name] || 0;
    state.wattHours[meter.name] = before + meter.watts[reading] * HOURS_PER_READING;
  }
}

function report() {
  for (const meter of config.meters) {
    const kWh = state.wattHours[meter.name] / 1000;
    debugPrint(meter.name + ':', kWh.toFixed(3), 'kWh,', (kWh * config.pricePerKWh).toFixed(2), 'EUR');
  }
}

function next(reading) {
  count(reading);
  if (reading + 1 < config.meters[0].watts.length) {
    setTimeout(() => next(reading + 1), READING_MS);
  } else {
    saveObject('energy counter', state);
    report();
  }
}

next(0);
