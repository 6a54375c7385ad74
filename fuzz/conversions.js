// Values that an input describes: plain ones, which have to come back as they are, and ones that do something when read.

const LEAVES = [undefined, null, true, false, NaN, -0, Infinity, 1.5, 5e-324, 1e21, 2 ** 53 + 2, -(2 ** 31), 2 ** 30,
  10n ** 40n, -1n, 0n, '', '\ud800', '\udc00\ud800', '\0', '\xff', 'x\u0100'];
const KEYS = ['a', 'b', '0', '17', '', '__proto__', 'length', 'toJSON', 'changed', '\ud800'];
const leaf = () => pick([() => pick(LEAVES), text, number, () => number() / 8])();
const bytes8 = () => Uint8Array.from(chunk(), (character) => character.charCodeAt());

function plain(level) {
  const inner = () => plain(level + 1);
  const object = () => {
    const made = {};
    for (const key of some(40, () => pick([() => pick(KEYS), text])()))
      Object.defineProperty(made, key, {value: inner(), enumerable: true, configurable: true, writable: true});
    return made;
  };
  return level > 5 ? leaf() : pick([leaf, leaf, bytes8, object, () => some(20, inner), () => [, inner(), ,]])();
}

function same(one, other) {
  if (typeof one !== 'object' || one === null) return Object.is(one, other);
  if (one instanceof Uint8Array) return other instanceof Uint8Array && `${one}` === `${other}`;
  if (Array.isArray(one)) {
    return Array.isArray(other) && one.length === other.length &&
      Array.from(one, (_, i) => same(one[i], other[i])).every(Boolean);
  }
  const keys = Object.keys(one);
  return `${keys}` === `${Object.keys(other)}` && keys.every((key) => same(one[key], other[key]));
}

// Reads of these end, throw, or change what is read.
function hostile() {
  const made = pick([() => ({}), () => [1, 2, 3], () => new Map(), () => Object(text()), () => new Date(number())])();
  const act = pick([() => { throw 1; }, () => { made.length = 0; }, () => { delete made.z; }, () => made, plain.bind(null, 4),
    () => copy(made), () => Symbol()]);
  Object.defineProperty(made, pick(KEYS.filter((key) => key !== 'length')), {get: act, enumerable: true, configurable: true});
  made.z = plain(4);
  return next() % 3 ? made : new Proxy(made, {[pick(['get', 'ownKeys', 'getOwnPropertyDescriptor'])]: act});
}

const isExact = (value) => typeof value !== 'bigint' &&
  (typeof value !== 'object' || value === null || (!(value instanceof Uint8Array) && Object.values(value).every(isExact)));

function fuzz() {
  while (more()) {
    const made = plain(0);
    check(same(made, copy(made)), 'a copy is another value');
    outcome(() => copy(hostile()));
    outcome(() => change(made));
    if (!isExact(made) || KEYS.includes('toJSON') && JSON.stringify(made) === undefined) continue;
    const written = JSON.stringify(made);
    is(JSON.parse(json(made)), JSON.parse(written), 'the JSON');
    const at = number() % (written.length + 1), changed = written.slice(0, at) + text() + written.slice(at + next() % 3);
    const [theirs, ours] = [outcome(() => JSON.parse(changed)), outcome(() => parse(changed))];
    if (theirs[0] === 'threw') is(ours[0], 'threw', `what was made of ${changed}`);
    else if (ours[0] === 'threw') check(/too large|too deeply/.test(ours[1]), `${ours[1]}: ${changed}`);
    else if (isExact(ours[1])) is(ours[1], theirs[1], `what was made of ${changed}`);
  }
}
