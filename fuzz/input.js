// What all targets' scripts have in common: how they read the input, and tell what is wrong.

let bytes, place;
const begin = () => { [bytes, place] = [input(), 0]; };
// Called after begin() and fuzz(), until it is false, with callbacks in between.
var goOn = () => false;

// There is nothing but zeros behind the end.
const more = () => place < bytes.length;
const next = () => more() ? bytes.charCodeAt(place++) : 0;
const pick = (list) => list[next() % list.length];
const some = (end, make) => Array.from({length: next() % end}, make);

// Any number of 32 bits, but most often a small one.
function number() {
  const first = next(), size = Math.min(first - 191, 4);
  return size < 1 ? first : Array.from({length: size}, next).reduce((made, byte) => made * 256 + byte);
}

function chunk() {
  const made = bytes.substr(place + 1, next());
  place += made.length;
  return made;
}

// Characters of one byte or of two.
function text() {
  let head = next(), made = '';
  for (; head > 1 && more(); head -= 2) made += String.fromCharCode(head % 2 ? next() << 8 | next() : next());
  return made;
}

const HALVES = /[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;
// The bytes that natives read of a text: in UTF-8, up to its first zero. Half of a pair is encoded by itself.
const utf8 = (text) => Array.from(text.split('\0', 1)[0], (character) => {
  const point = character.codePointAt(), isHalf = point >= 0xd800 && point < 0xe000;
  if (isHalf) return String.fromCharCode(0xed, 0x80 | point >> 6 & 0x3f, 0x80 | point & 0x3f);
  return unescape(encodeURIComponent(character));
}).join('');

function attempt(call, otherwise) {
  try {
    return call();
  } catch (e) {
    return otherwise(e);
  }
}

const outcome = (call) => attempt(() => ['gave', call()], (e) => ['threw', e.message]);

function check(condition, message) {
  if (!condition) broken(message + '\n' + new Error().stack);
}

function is(actual, expected, what) {
  const [shown, wanted] = [actual, expected].map((value) => JSON.stringify(value));
  check(shown === wanted, `${what} is ${shown}\nand should be ${wanted}`);
}
