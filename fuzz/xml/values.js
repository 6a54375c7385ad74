// What the bytes of an input choose from: names, texts, expressions, the documents, nodes and attribute objects that
// there are, and objects whose getters go on with the next bytes in the middle of what reads them.

const DEEPEST_ACT = 3;       // operations inside getters that are read by operations
const MOST_COLLECTIONS = 2;  // full ones: they take longer than all the rest
const MOST_NODES = 2000;     // from which on documents do not grow: nodes can be copied into themselves
const POOL_SIZE = 8;

const {toString: serialise, findOne: findInDocument, findAll: findAllInDocument} = VXmlDocument.prototype;
const {get: readRoot, set: writeRoot} = Object.getOwnPropertyDescriptor(VXmlDocument.prototype, 'root');
const NODE_PROTOTYPE = Object.getPrototypeOf(new VXmlDocument('<a/>').root);
const {insertChild, removeChild, findOne, findAll} = NODE_PROTOTYPE;
const NODE_KEYS = ['name', 'text', 'attributes', 'children', 'parent', 'document'];

const NAMES = [
  'a', 'b', 'c', 'item', 'id', 'xml:id', 'p:a', 'q:b', 'p:id', 'xmlns', 'xmlns:p', 'xmlns:q', 'xml:lang',
  'xml:space', 'a:b:c', ':', 'toString', 'constructor', '__proto__', 'name', 'text', 'children', 'attributes',
  'é', '日本', '\u{1F600}', '', '0', '-', 'a b', 'a>', '\0', 'a\0b', '\ud800', '\uffff', 'n'.repeat(50001),
];
const WORDS = [
  '', 'x', '1', 'i', 'a & b', '<b/>', '&lt;&amp;', '&#65;&e;', ']]>', '"\'', ' ', '\n', '\t', '\r\n', ' x ',
  'urn:x', 'preserve', 'é', '\u{1F600}', '\ud800', '\udc00x', '\0', '\x01', '\ufffe', '\uffff', '-->',
  'x'.repeat(20000),
];
const EXPRESSIONS = [
  '.', '..', '*', '/', '/*', '//*', '//a', '//b[1]', '//*[last()]', '//text()', '//comment()',
  '//processing-instruction()', '//@*', '//@id', '//*[@id]', '//node()', '//namespace::*', 'namespace::p',
  'ancestor-or-self::*', 'following::node()', 'preceding::node()', 'following-sibling::*',
  'preceding-sibling::*', 'descendant::node()/..', "id('i')", "id('i x')/..", "id(//@*)", "//*[lang('en')]",
  'count(//*)', 'sum(//@id)', 'string(/)', 'name(//*[2])', 'namespace-uri(//*[2])', '//p:a', '//p:*',
  '//@p:id', '//q:b', 'normalize-space(.)', "translate(., 'abc', 'x')", "//*[contains(., '1')]",
  '//*|//@*|//text()', '(//*)[position() mod 2 = 1]', '//*[count(.//*) > 2]', '//*//*//*', '-(-(1)) div 0',
  'true()', '$v', "'text'", 'unknown()', '//*[', '::', '@', '', '('.repeat(5000), '*/'.repeat(3000) + '*',
  '/*' + '[*'.repeat(200), "concat('x', " + "'y',".repeat(500) + "'z')", '//*[.=//*]', 'string(//@*[1])',
  '/node()', '//a/@id/..', '//@*/namespace::*',
];

// The state of one input.
let text;
let bytes;
let place;
let depth;
let collections;
let subject;  // what the current operation works on
let documents;
let nodes;
let attributes;
let things;

// --- Reading the input ----------------------------------------------------------------------------------------

function next() {
  return place < bytes.length ? bytes.charCodeAt(place++) : 0;
}

function pick(list) {
  return list[next() % list.length];
}

// undefined while the pool is empty.
function take(pool) {
  return pool.length === 0 ? undefined : pick(pool);
}

function keep(pool, value) {
  if (value === undefined || value === null) return;
  if (pool.length < POOL_SIZE) pool.push(value);
  else pool[next() % POOL_SIZE] = value;
}

function piece() {
  const start = Math.floor(next() * text.length / 256);
  return text.substr(start, next());
}

function nameOrPiece() {
  const choice = next();
  return choice < 232 ? NAMES[choice % NAMES.length] : piece();
}

function word() {
  const choice = next();
  return choice < 216 ? WORDS[choice % WORDS.length] : piece();
}

function expression() {
  const choice = next();
  return choice < 208 ? EXPRESSIONS[choice % EXPRESSIONS.length] : piece();
}

function simpleName() {
  return 'abcdefgh'[next() % 8];
}

// --- Code that runs where a native reads ----------------------------------------------------------------------

function collect() {
  if (++collections <= MOST_COLLECTIONS) gc();
  else gc({type: 'minor'});
}

function forget() {
  documents = [];
  nodes = [];
  attributes = [];
  things = [];
}

function removeSubject() {
  const parent = subject.parent;
  for (let i = 0; parent && subject.name !== undefined && i < 50; ++i) removeChild.call(parent, 0);
}

const ACTS = [
  removeSubject,
  () => { writeRoot.call(subject.document || subject, {name: 'replaced'}); },
  () => { subject.text = 'replaced'; },
  () => { subject.parent.text = 'replaced'; },
  () => { removeSubject(); collect(); },
  () => { insertChild.call(subject, {name: 'inserted'}, next()); },
  () => { for (const key of Object.keys(subject.attributes)) delete subject.attributes[key]; },
  collect,
  () => { forget(); collect(); },
  () => { throw new Error('act'); },
];

function act() {
  if (depth >= DEEPEST_ACT) return;
  ++depth;
  const outer = subject;
  try {
    const choice = next();
    if (choice < 128) ACTS[choice % ACTS.length]();
    else pick(OPERATIONS)();
  } finally {
    subject = outer;
    --depth;
  }
}

function acting(value) {
  return () => {
    act();
    return value;
  };
}

// --- Values ---------------------------------------------------------------------------------------------------

const VALUES = [
  () => undefined,
  () => null,
  () => next(),
  () => true,
  () => Symbol('value'),
  () => 7n,
  () => new String(word()),
  () => ({toString: acting(word())}),
  () => ({[Symbol.toPrimitive]: acting(word())}),
  () => Object.create(null),
  () => take(documents),
  () => take(nodes),
  () => take(attributes),
  () => take(things),
  () => buildable(),
];

function value() {
  const choice = next();
  return choice < 128 ? word() : VALUES[choice % VALUES.length]();
}

function attributeMap() {
  const map = {};
  for (let count = next() % 4; count > 0; --count) map[nameOrPiece()] = value();
  return map;
}

function plainTree(level) {
  const tree = {name: nameOrPiece(), attributes: attributeMap(), children: [], text: word()};
  for (let count = level > 0 ? next() % 4 : 0; count > 0; --count) tree.children.push(plainTree(level - 1));
  return tree;
}

function chain(length) {
  let tree = {name: 'deepest', text: word()};
  while (length-- > 0) tree = {name: 'a', children: [tree]};
  return tree;
}

function watched(target) {
  return new Proxy(target, {
    get(target, key) {
      act();
      return target[key];
    },
    ownKeys(target) {
      act();
      return Reflect.ownKeys(target);
    },
    getOwnPropertyDescriptor(target, key) {
      act();
      return Reflect.getOwnPropertyDescriptor(target, key);
    },
  });
}

// An array that changes while it is read.
function unsteady() {
  const array = [{name: 'a'}, {name: 'b'}, {name: 'c'}];
  Object.defineProperty(array, next() % 3, {
    get() {
      act();
      if (next() % 2) array.length = next() % 2;
      else array.push({name: 'd'});
      return {name: 'got', text: word()};
    },
  });
  return array;
}

const BUILDABLES = [
  () => ({name: simpleName(), text: word()}),
  () => take(nodes),
  () => plainTree(3),
  () => {
    const cycle = {name: 'a', attributes: attributeMap()};
    cycle.children = [cycle, cycle];
    return cycle;
  },
  () => ({
    get name() { act(); return nameOrPiece(); },
    get attributes() { act(); return attributeMap(); },
    get children() { act(); return [plainTree(1)]; },
    get text() { act(); return word(); },
  }),
  () => ({name: 'a', attributes: {get x() { act(); return word(); }, y: {toString: acting(word())}}}),
  () => ({name: 'a', get children() { act(); return [{name: 'b'}, take(nodes)]; }}),
  () => ({name: 'a', children: [{name: 'b'}, {get name() { act(); return 'c'; }}, {name: 'd'}]}),
  () => ({name: 'a', text: 'x', children: unsteady()}),
  () => watched(plainTree(1)),
  () => watched(take(nodes) || {name: 'a'}),
  () => ({name: 'a', attributes: watched(attributeMap()), children: watched([{name: 'b'}])}),
  () => chain(next() * 2),
  () => ({name: 'a', children: Array.from({length: next()}, () => ({name: 'b'}))}),
  () => ({name: 'a', children: new Array(next() * 100)}),
  () => Object.create(plainTree(1)),
  () => ({name: 'a', attributes: take(attributes), children: [take(nodes), take(nodes)]}),
  () => ({name: 'a', attributes: take(nodes), children: take(documents), text: take(nodes)}),
  () => ({name: new String(nameOrPiece()), attributes: 'abc', children: 'abc', text: new String(word())}),
  () => take(documents),
  () => take(things),
];

function buildable() {
  return pick(BUILDABLES)();
}

const NAMESPACE_MAPS = [
  () => undefined,
  () => ({p: 'urn:x', q: word()}),
  () => ({get p() { act(); return 'urn:x'; }}),
  () => watched({p: 'urn:x', [nameOrPiece()]: word()}),
  () => Object.create({p: 'urn:x'}),
  () => ['urn:x'],
  () => attributeMap(),
  () => take(nodes),
  () => take(attributes),
];

// Nothing that outlives the input, because some operations write to it.
const FOREIGN_RECEIVERS = [
  () => take(documents),
  () => take(attributes),
  () => take(things),
  () => ({}),
  () => [],
  () => next(),
  () => 'text',
  () => null,
  () => undefined,
  () => Symbol('receiver'),
  () => () => {},
  () => new Map(),
  () => new Uint8Array(8),
  () => new DataView(new ArrayBuffer(8)),
  () => new Proxy(take(nodes) || {}, {}),
  () => new Proxy(take(documents) || {}, {}),
  () => Object.create(take(nodes) || NODE_PROTOTYPE),
  () => Object.create(take(documents) || VXmlDocument.prototype),
  () => Object.setPrototypeOf([], take(attributes) || null),
  () => new NODE_PROTOTYPE.constructor(take(nodes)),
];

function foreignReceiver() {
  return pick(FOREIGN_RECEIVERS)();
}
