// Objects that scripts store, load and forget, files of them that were damaged, and paths that try to leave the storage
// directory.

const NAMES = ['..', '.', 'ab', 'b', 'c.json', 'aa\\bb', '...', 'storage', 'base', '', '..\\x', 'secret.json'];

// By what natives take for its name: name and file of each object, and its text, unless that was damaged.
let stored;
const read = (object) => fs.load('storage/' + object.file);

function save(name, value) {
  // With the digest, and with what the name of the file ends in while it is written.
  const key = utf8(name), length = key.replace(/[^A-Za-z0-9]/g, '').length + 42;
  const refusal = key === '' ? 'Invalid arguments' : length > 255 ? 'File name too long' : undefined;
  is(outcome(() => saveObject(name, value)), refusal ? ['threw', refusal] : ['gave', undefined], 'the outcome');
  if (refusal) return;
  const isNew = (file) => ![...stored.values()].some((object) => object.file === file);
  const file = stored.get(key)?.file || fs.list('storage').find(isNew);
  is(file?.length, length - 4, 'the length of a new file\'s name');
  stored.set(key, {name, file, json: JSON.stringify(value)});
  is(read({file}), utf8(JSON.stringify(value)), 'the file');
}

// A damaged one is what the other reader of JSON makes of it.
function load(name) {
  const object = stored.get(utf8(name)), loaded = outcome(() => loadObject(name));
  if (!object) check(loaded[1] === null || loaded[0] === 'threw', 'an object from nowhere');
  else is(loaded, outcome(() => object.json ? JSON.parse(object.json) : read(object) === '' ? null :
    fs.loadJSON('storage/' + object.file)), 'the object');
}

function damage(name, content) {
  const object = stored.get(utf8(name));
  if (!object) return;
  writeObject(object.file, content);
  object.json = undefined;
  is(read(object), content, 'the file');
}

function remove(name, value) {
  const object = stored.get(utf8(name));
  outcome(() => saveObject(name, value));
  stored.delete(utf8(name));
  check(!fs.list('storage').includes(object?.file), 'an object is kept');
}

// Asks for a file or a folder by a path that may well lead somewhere.
function ask(reader) {
  const path = some(8, () => {
    const kind = next();
    return (kind === 255 ? text() : NAMES[(kind >> 2) % NAMES.length]) + ['/', '/', '', '\\'][kind % 4];
  }).join('');
  const [how, what] = outcome(() => fs[reader](path));
  check(how === 'threw' || !/secret|7919/.test(JSON.stringify(what)), `${reader} tells of ${path}`);
  check(what !== 'Invalid arguments' || utf8(path) === '' || /[.\\]/.test(path), `${reader} refuses ${path}`);
}

function fuzz() {
  stored = new Map();
  for (let steps = 0; more() && steps < 20; ++steps) {
    const kind = next() % 10;
    let name = kind < 5 ? text() : '';
    // So that few bytes meet the same object again, or the longest names.
    if (name.length === 1) name = 'abcd'[name.charCodeAt() % 4].repeat(name.charCodeAt() & 1);
    if (name.length === 2) name = name[0].repeat(name.charCodeAt(1) & 255);
    if (kind >= 5) ask(['list', 'stat', 'load', 'loadText', 'loadJSON'][kind - 5]);
    if (kind < 2) save(name, kind === 0 ? text() : {[text()]: [number(), null]});
    if (kind === 3) remove(name, pick([null, undefined, function () {}, 1n]));
    if (kind === 4) damage(name, chunk());
    if (kind === 2 || kind === 4) load(name);
  }
  stored.forEach(({name}) => load(name));
  stored.forEach(({name}) => remove(name, null));
  is([fs.list('storage'), fs.list('.').sort()], [[], ['...', 'aa\\bb', 'ab', 'storage']], 'what is left');
}
