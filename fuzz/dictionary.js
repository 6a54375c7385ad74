// Dictionaries that scripts fill, ask, empty and copy, next to a list of entries that is searched from front to back.

// The constructor that takes initial entries.
const Dictionary = NameValueDictionary;
let dictionary, entries, names;

// The engine keeps such names apart from the others, and asks no dictionary about them.
const isIndex = (name) => String(name >>> 0) === name && name !== '4294967295';
const folded = (name) => utf8(name.replace(/[A-Z]/g, (letter) => letter.toLowerCase()));

function find(name) {
  const isAlike = (entry) => entry.enumerable && !isIndex(name) && folded(entry.name) === folded(name);
  return entries.find((entry) => entry.name === name) || entries.find(isAlike);
}

function set(name, value) {
  const found = find(name);
  if (found?.name === name) return found.value = value;
  // The engine asks twice before it adds a property. That shows where an index has a name's text up to its zero.
  if (!isIndex(name) && remove(name)) remove(name);
  // The engine takes this for an attempt to change the prototype.
  if (name === '__proto__') return;
  // Indices come first, by number.
  const behind = isIndex(name) ? entries.findIndex((entry) => !isIndex(entry.name) || +entry.name > +name) : -1;
  entries.splice(behind < 0 ? entries.length : behind, 0, {name, value, enumerable: true});
}

// What `delete` says.
function remove(name) {
  const found = find(name);
  if (found) entries.splice(entries.indexOf(found), 1);
  return found !== undefined || isIndex(name);
}

function someName() {
  const kind = next();
  if (kind >= 192) return names[names.push(kind % 8 === 0 ? String(number()) : text()) - 1];
  const bits = next(), list = kind < 128 || entries.length === 0 ? names : entries.map(({name}) => name);
  // In other letters: bit by bit, whether the case changes. Not all of these characters have one.
  return list[kind % list.length].replace(/[@-~À-þ]/g, (c, i) => bits >> i % 8 & 1 ? String.fromCharCode(c.charCodeAt() ^ 32) : c);
}

const list = () => entries.filter((entry) => entry.enumerable).map(({name, value}) => [name, value]);

// Every dictionary is born with a function that is no entry.
function renew(initial) {
  const old = list();
  dictionary = new Dictionary(initial);
  entries = [{name: 'toString'}];
  for (const [name, value] of old) set(name, value);
}

function fuzz() {
  [names, entries] = [['Host', 'toString', 'constructor', '__proto__', '7', '7\0x', 'az`{é'], []];
  renew();
  for (let step = 1; more() && step < 200; ++step) {
    const kind = next() % 8, name = someName(), entry = find(name);
    if (kind === 7) renew(dictionary);
    else if (kind > 4) is(delete dictionary[name], remove(name), 'delete ' + name);
    else if (kind < 3) set(name, dictionary[name] = step);
    // Only in a question whether it is there, the prototypes show through.
    else is([dictionary[name], name in dictionary],
      [entry?.value, entry !== undefined || name in Object.getPrototypeOf(dictionary)], name);
    if (kind % 2 === 1) is(Object.keys(dictionary).map((name) => [name, dictionary[name]]), list(), 'the list');
  }
}
