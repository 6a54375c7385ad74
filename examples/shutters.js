// Shutters that follow a weather forecast.
//
//     vnjs run examples/shutters.js
//
// A shutter goes down while sun is expected on its window on a warm day. Before a storm all of them go up, since the
// wind tears off what is down, and they stay up until it has been calm for a while. They also go up when there is no
// forecast to rely on: a room that gets warm is the smaller damage.
//
// The forecast is the file forecast.xml beside this script. A day passes in less than two seconds here. At home the
// file would be replaced every few hours, hours would have a date, and `relay` would be the relays of a motor.
'use strict';

const WARM = 23;             // degrees from which on the sun is kept out
const SUNNY = 50;            // percent of an hour with sunshine, from which on the hour is a sunny one
const STORM = 17;            // gusts in m/s that a lowered shutter must not meet
const CALM_HOURS = 2;        // without such gusts before shutters go down again
const UPDATE_HOURS = 4;      // from one reading of the forecast to the next
const RELIABLE_HOURS = 18;   // from when a forecast was made until it is too old

const HOUR_MS = 100;         // real time of one hour
const TRAVEL_MS = 40;        // real time that a shutter takes from end to end

// The prefix is this script's own choice. What has to agree with the file is the name of the namespace.
const NAMESPACES = {f: 'urn:example:forecast'};

function say(hour, ...words) {
  debugPrint(String(hour).padStart(2, '0') + ':00', ...words);
}

// What XPath calculates comes back as text, "NaN" for example. A missing number must not pass for a calm day.
function number(node, path) {
  const value = Number(node.findOne('number(' + path + ')', NAMESPACES));
  if (Number.isNaN(value)) throw new Error('no number for ' + path);
  return value;
}

// Throws for a text that is not XML, and for XML that is not a forecast, such as the error page of a web server.
function parseForecast(text) {
  const doc = new VXmlDocument(text);
  const hours = new Map();
  for (const element of doc.findAll('/f:forecast/f:hour', NAMESPACES)) {
    hours.set(number(element, 'substring-before(@from, ":")'), {
      degrees: number(element, 'f:temperature'),
      sunshine: number(element, 'f:sunshine'),
      gusts: number(element, 'f:gusts'),
    });
  }
  return {issued: number(doc, 'substring-before(/f:forecast/@issued, ":")'), hours: hours};
}

// Stands for the download, which at two o'clock broke off in the middle.
function download(hour) {
  const text = fs.loadText('forecast.xml');
  return hour === 14 ? text.slice(0, 800) : text;
}

class Forecast {
  constructor() {
    this.last = undefined;  // what could be read last
  }

  // A file that is missing or broken costs us the update, not the forecast that we have.
  update(now) {
    try {
      this.last = parseForecast(download(now));
      say(now, 'forecast for', this.last.hours.size, 'hours');
    } catch (error) {
      say(now, 'forecast not usable:', error.message.trim());
    }
  }

  // Undefined when nothing reliable is known about the hour. The age counts from when the forecast was made: the file
  // may have been lying there for long.
  at(hour) {
    if (this.last === undefined || hour - this.last.issued > RELIABLE_HOURS) return undefined;
    return this.last.hours.get(hour);
  }
}

class Shutter {
  constructor(name, facing) {
    this.name = name;
    this.facing = facing;  // degrees; 90 is a window to the east, 180 one to the south
    this.down = false;
    this.relay = 'off';
    this.arrival = 0;
    this.moves = 0;
  }

  // The sun goes 15 degrees in an hour and is in the south at noon: near enough to tell which windows it meets.
  inSun(hour) {
    return Math.abs(hour * 15 - this.facing) < 70;
  }

  move(down, now, reason) {
    if (down === this.down) return;
    this.down = down;
    this.moves++;
    say(now, this.name, down ? 'down:' : 'up:', reason);

    // The motor stops when the shutter has arrived. If one turns round on its way, the old timeout must not stop it.
    this.relay = down ? 'down' : 'up';
    clearTimeout(this.arrival);
    this.arrival = setTimeout(() => { this.relay = 'off'; }, TRAVEL_MS);
  }
}

const forecast = new Forecast();
const shutters = [new Shutter('kitchen', 90), new Shutter('living room', 180), new Shutter('study', 270)];
let calmFrom = 0;  // the hour from which on shutters may be down

function control(now) {
  const weather = forecast.at(now);
  if (weather === undefined) {
    for (const shutter of shutters) shutter.move(false, now, 'no forecast to rely on');
    return;
  }

  // A storm counts from the hour before it, so that the shutters are up when it comes.
  const next = forecast.at(now + 1) || weather;
  const gusts = Math.max(weather.gusts, next.gusts);
  if (gusts >= STORM) calmFrom = now + 1 + CALM_HOURS;

  const bright = weather.degrees >= WARM && weather.sunshine >= SUNNY;
  for (const shutter of shutters) {
    if (now < calmFrom) {
      shutter.move(false, now, 'gusts of ' + gusts + ' m/s');
    } else if (bright && shutter.inSun(now)) {
      shutter.move(true, now, weather.degrees + ' degrees and sun');
    } else {
      shutter.move(false, now, bright ? 'the sun has left' : 'no longer warm and sunny');
    }
  }
}

function pass(hour) {
  if ((hour - 6) % UPDATE_HOURS === 0) forecast.update(hour);
  control(hour);
  if (hour < 21) {
    setTimeout(() => pass(hour + 1), HOUR_MS);
  } else {
    const moves = shutters.reduce((sum, shutter) => sum + shutter.moves, 0);
    debugPrint('The day is over; the shutters moved', moves, 'times.');
  }
}

pass(6);
