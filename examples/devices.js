// Reads what people have written about their devices, and is as patient as a program can be: names of settings have no
// letter case, what is not set has a default, and a mistake costs one device and not the evening.
//
//     vnjs run examples/devices.js
//
// The file is devices.txt beside this script. A dictionary finds its entries whatever the letter case, so neither the
// parser nor those who ask have to agree on how a name is written.
'use strict';

const DEFAULTS = {address: '', onTime: '300', dimmed: 'no', brightness: '100'};

// Only the first dictionary of an environment takes entries in its constructor; this way works for all of them.
function dictionary(entries) {
  return Object.assign(new NameValueDictionary(), entries);
}

// "ON-TIME", "on time" and "onTime" are the same setting.
function settingName(text) {
  return text.replace(/[-_ ]/g, '');
}

function parse(text) {
  const devices = dictionary({});
  let device;
  text.split('\n').forEach((line, index) => {
    line = line.trim();
    if (line === '' || line.startsWith(';')) return;
    const [, section, name, value] = line.match(/^(?:\[(.+)\]|([^=]+?) *= *(.*))$/) || [];
    if (section) {
      device = devices[section] = dictionary(DEFAULTS);
    } else if (!device || !name || !(settingName(name) in device)) {
      console.warn('devices.txt:' + (index + 1) + ': not understood: ' + line);
    } else {
      device[settingName(name)] = value;
    }
  });
  return devices;
}

function check(device) {
  if (!(Number(device.address) > 0)) throw new Error('it has no address');
  if (!(Number(device.ontime) > 0)) throw new Error('the time is no number: ' + device.ontime);
}

const devices = parse(fs.loadText('/devices.txt'));
for (const name of Object.keys(devices)) {
  try {
    const device = devices[name];
    check(device);
    debugPrint(name + ': address', device.Address + ', on for', device.OnTime, 's,',
               device.Dimmed === 'yes' ? 'dimmed' : 'bright');
  } catch (error) {
    console.error(name + ' is not used:', error.message);
  }
}
debugPrint('the lamp in the hall:', devices['Hall Lamp'] ? 'known' : 'unknown');
