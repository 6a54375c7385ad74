// Values that an input describes, as results of scripts and as natives read them, next to what should come of them.

// Whether the value is the same each time that it is read, on whatever stack.
let v, steady;
const deep = (levels) => Array.from({length: levels}).reduce((made) => [made], []);
const DEEPEST = deep(100000);
const CONSTANTS = [undefined, null, true, new Boolean(false), NaN, -0, 1.5, 1e21, 4294967295, 256, 10n ** 40n, /x/g,
  Object(1n), Symbol('s'), Object(Symbol()), new Date(NaN), 'x\u0100'.repeat(5000), [1,,3], Object.create(null), eval, deep(300),
  class A { static a = 1; }, new Array(3000), (function () { return arguments; })(1, 2)];
const KEYS = ['a', 'length', 'toString', 'valueOf', 'toJSON', Symbol.toPrimitive, 'constructor', '0', '__proto__'];
const TRAPS = ['get', 'has', 'getPrototypeOf', 'getOwnPropertyDescriptor', 'ownKeys', 'apply'];
const proxies = new WeakSet();
const content = () => Array.from(chunk(), (character) => character.charCodeAt());
const value = () => pick(VALUES)();

function view() {
  const type = pick([Uint8Array, Int16Array, BigInt64Array, Float64Array, DataView]), how = next(), bytes = content();
  const buffer = new (how & 1 ? SharedArrayBuffer : ArrayBuffer)(bytes.length);
  new Uint8Array(buffer).set(bytes);
  const size = type.BYTES_PER_ELEMENT || 1, start = Math.min(next(), Math.floor(bytes.length / size));
  const made = new type(buffer, start * size, Math.floor(bytes.length / size) - start);
  if ((how & 3) === 2) %ArrayBufferDetach(buffer);
  return how & 4 ? buffer : made;
}

// Getters, methods and traps give or throw the same value each time.
function caller() {
  const inner = value();
  return next() % 2 ? () => inner : () => { throw inner; };
}

function define(made) {
  for (const key of some(4, () => pick(KEYS))) {
    const kinds = [() => ({value: value()}), () => ({get: caller()}), () => ({value: caller()})];
    Object.defineProperty(made, key, {enumerable: true, configurable: true, ...pick(kinds)()});
  }
  return made;
}

function proxy() {
  const made = new Proxy(Object(value()), Object.fromEntries(some(3, () => [pick(TRAPS), caller()])));
  proxies.add(made);
  return made;
}

// Becomes another one while it is read.
function moving() {
  const list = [0, value()], change = pick([() => { list.length = 0; }, () => { list.length = 50000; },
    () => { list[1] = v; }, () => { list.push(v); }, () => { list[1] = DEEPEST; }, () => { v = list; throw 1; }]);
  steady = false;
  return Object.defineProperty(list, 0, {get() { change(); return 7; }, enumerable: true, configurable: true});
}

const VALUES = [
  text, () => pick(CONSTANTS), () => number() | 0, content, view, () => Object(text()), () => [value()], moving, proxy,
  () => [value(), value()], () => define({}), () => define(function () {}), () => Object(number()),
  () => Object.setPrototypeOf(define({}), Object(value())),
  () => { const made = {inner: value()}; made.self = [made]; return made; },
];

const orNothing = (call) => attempt(call, () => '');
const isA = (type, x) => orNothing(() => (type.prototype.valueOf.call(x), true));
const {get: sizeOfBuffer} = Object.getOwnPropertyDescriptor(ArrayBuffer.prototype, 'byteLength');

function bytesOf(x) {
  if (Array.isArray(x) && !proxies.has(x)) {
    for (let i = 0; i < x.length; ++i) {
      const n = orNothing(() => x[i]);
      if (typeof n !== 'number' || Object.is(n, -0) || n !== n >> 0 && n !== n >>> 0) return 'Element is not a number';
      if (n < 0 || n > 255) return 'Element value out of range';
    }
    return String.fromCharCode(...x);
  }
  if (isA(String, x)) {
    const string = String.prototype.valueOf.call(x);
    return /[^\0-\xff]/.test(string) ? 'String encoding is not one-byte' : string;
  }
  const bytes = ArrayBuffer.isView(x) ? () => new Uint8Array(x.buffer, x.byteOffset, x.byteLength) :
    () => new Uint8Array(x, 0, sizeOfBuffer.call(x));
  return String.fromCharCode(...orNothing(bytes));
}

function truthOf(x, otherwise) {
  if (isA(Boolean, x)) return typeof x === 'object' || x;
  return isA(Number, x) ? attempt(() => +x !== 0, () => otherwise) : otherwise;
}

function realOf(x, key) {
  if (proxies.has(x)) return undefined;
  const inherited = Object.getPrototypeOf(x)?.[key];
  return inherited === undefined && Object.prototype.hasOwnProperty.call(x, key) ? x[key] : inherited;
}

function fuzz() {
  steady = true;
  return v = orNothing(value);
}

function goOn() {
  if (!steady) return [readText, readBytes, debugPrint].forEach((read) => read(v));
  const isNothing = v === undefined || v === null, text = orNothing(() => `${v}`), json = orNothing(() => stringify(v));
  const expected = isNothing || typeof v === 'function' ? text : orNothing(() => JSON.stringify(v)) || '';
  is(result(), utf8(expected), 'the result');
  is(readText(v), isNothing ? '' : utf8(text), 'the text');
  is(readBytes(v), bytesOf(v), 'the bytes');
  for (const otherwise of [false, true]) is(readTruth(v, otherwise), truthOf(v, otherwise), 'the truth');
  for (const key of Object(v) === v ? ['a', 'length', 'constructor', 'toJSON'] : []) {
    const [real, expected] = [readReal, realOf].map((read) => orNothing(() => read(v, key)));
    check(Object.is(real, expected), 'the real ' + key);
  }
  if (!isNothing && typeof v !== 'function') is(json || '', expected, 'the JSON');
  if (json) is(stringify(parse(json)), json, 'JSON, parsed');
}
