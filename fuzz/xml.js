// Documents that scripts parse, edit and query, with garbage collected in between. An input is a text, and behind a
// zero the bytes that say what is done with it and with what comes of it. Exceptions are fine.

const {toString: serialise, findOne: findInDocument, findAll: findAllInDocument} = VXmlDocument.prototype;
const {get: readRoot, set: writeRoot} = Object.getOwnPropertyDescriptor(VXmlDocument.prototype, 'root');
const NODE = Object.getPrototypeOf(new VXmlDocument('<a/>').root);
const {insertChild, removeChild, findOne, findAll} = NODE;
const OF_NODES = [[insertChild, {name: 'a'}], [removeChild, 0], [findOne, '.'], [findAll, '//*']];
const OF_DOCUMENTS = [[serialise], [readRoot], [findInDocument, '.'], [findAllInDocument, '.']];
const KEYS = ['name', 'text', 'attributes', 'children', 'parent'];

const NAMES = 'a b id xml:id p:a p:id xmlns xmlns:p xml:lang xml:space a:b:c : toString __proto__ text é'.split(' ')
  .concat('', '日本', 'a b', 'a>', 'a\0b', '\u{1F600}', '\ud800', '\uffff', 'n'.repeat(50001));
const WORDS = ['', 'x', 'i', 'a & b', '<b/>', '&#65;&e;', ']]>', '"\'', ' ', '\n', '\r\n', ' x ', 'urn:x', 'preserve',
  'é', '\u{1F600}', '\ud800', '\udc00x', '\0', '\x01', '\ufffe', '\uffff', '-->', 'x'.repeat(20000)];
const EXPRESSIONS = `.; ..; /; //*; //a; //*[last()]; //text(); //comment(); //@*; //*[@id]; //node(); //namespace::*;
  ancestor-or-self::*; following::node(); preceding::*; id('i x')/..; id(//@*); count(//*); //*[lang('en')]; string(/);
  name(//*[2]); //p:*; //@p:id; //*[contains(., '1')]; //*|//@*|//text(); //*//*//*; -(-(1)) div 0; $v; unknown();
  //*[; //*[.=//*]; /node()`.split(/;\s+/).concat('('.repeat(5000), '/*' + '[*'.repeat(200));

// What there is to work on, up to eight of each, and what the current operation works on.
const documents = [], nodes = [], attributes = [], pools = [documents, nodes, attributes];
let source, subject, depth, collections;

function keep(...found) {
  for (const entry of found.flat().slice(0, 20)) {
    const pool = pools[['VXmlDocument', 'VXmlNode', 'VXmlAttributes'].indexOf(entry?.[Symbol.toStringTag])] || [];
    pool[pool.length < 8 ? pool.length : next() % 8] = entry;
  }
}

const forget = () => pools.forEach((pool) => { pool.length = 0; });
const piece = () => source.substr(Math.floor(next() * source.length / 256), next());
const [name, word, expression] = [NAMES, WORDS, EXPRESSIONS].map((list) => () => next() < 216 ? pick(list) : piece());
const parse = (text) => keep(new VXmlDocument(text));
// Nodes can be copied into themselves.
const mayGrow = (doc) => Number(findInDocument.call(doc, 'count(//node())')) < 2000;
// Full collections take longer than all the rest.
const collect = () => gc(++collections > 2 ? {type: 'minor'} : undefined);

// What happens in the middle of what reads an object.
const ACTS = [() => { subject.parent.text = ''; }, () => { subject.parent.text = 'x'; collect(); }, collect,
  () => { for (const key of Object.keys(subject.attributes)) delete subject.attributes[key]; },
  () => { writeRoot.call(subject.document || subject, {name: 'x'}); }, () => pick(OPERATIONS)(),
  () => removeChild.call(subject.parent, 0), () => { throw new Error('act'); }, () => { forget(); collect(); }];

function act(make) {
  const outer = subject;
  try {
    if (++depth < 4) pick(ACTS)();
  } finally {
    subject = outer;
    --depth;
  }
  return make();
}

const watched = (target) => new Proxy(target, {
  get: (target, key) => act(() => target[key]), ownKeys: (target) => act(() => Reflect.ownKeys(target)),
});

const ANY = [() => pick(documents), () => pick(nodes), () => pick(attributes), () => buildable(), next, () => null,
  () => Symbol(), () => Object(word()), () => undefined, () => new DataView(new ArrayBuffer(8)), () => new NODE.constructor(),
  () => new Proxy(pick([pick(nodes), pick(documents)]), {}), () => Object.create(pick([pick(nodes), pick(documents)]))];
const any = () => pick(ANY)();
const value = () => pick([word, word, any, () => ({toString: () => act(word)})])();
const map = () => Object.fromEntries(some(4, () => [name(), value()]));
const namespaces = () => pick([map, any, () => ({p: 'urn:x', q: word()}), () => watched({p: 'urn:x'})])();

const BUILDABLES = [
  () => pick(nodes), any, () => watched(buildable()), () => Object.create(buildable()),
  () => ({name: name(), attributes: map(), text: word(), children: some(4, buildable)}),
  () => ({
    get name() { return act(name); }, get attributes() { return act(map); }, get text() { return act(word); },
    get children() { return act(() => watched([{name: 'b'}, pick(nodes), watched({name: 'c'})])); },
  }),
  () => {
    const children = [{name: 'a'}, {get name() { children.length = next() % 9; return act(name); }}, {name: 'c'}];
    return {name: 'a', attributes: watched(map()), children};
  },
  () => Array.from({length: next() * 2}).reduce((made) => ({name: 'a', children: [made]}), {name: 'deepest'}),
  () => ({name: any(), attributes: any(), children: Array.from({length: next()}, () => ({name: 'b'})), text: any()}),
];
const buildable = () => pick(BUILDABLES)();

// Uses what is made of a document, parsed again. Some markup is written by libxml2 so that it cannot read it:
// declarations of a document type, and the URIs of namespaces, which it does not escape.
function withCopy(doc, use) {
  const text = serialise.call(doc);
  if (text.includes('<!DOCTYPE') || /\sxmlns[^=\s]*=("[^"]*[&<\s]|'[^']*[&<\s])/.test(text)) return;
  const [how, copy] = outcome(() => new VXmlDocument(text));
  check(how === 'gave', `does not parse again: ${copy} ${text.substr(0, 2000)}`);
  use(copy, text);
}

// White space between elements is dropped by a parse and added by a serialisation, and an attribute that a script has
// made becomes a declaration: such documents look the same only from the second time on.
function checkDocument(doc) {
  if (readRoot.call(doc) === undefined) return;
  const unsteady = "boolean(//text()[normalize-space(.) = ''] | //@*[starts-with(name(), 'xmlns')])";
  const isSteady = findInDocument.call(doc, unsteady) === 'false';
  withCopy(doc, (copy, first) => withCopy(copy, (again, second) => {
    is(serialise.call(again), second, 'the document, parsed for the second time');
    if (isSteady) is(second, first, 'the document, parsed again');
  }));
  // What is shown can be built. Of some attributes, such as `toString`, nothing is shown.
  const show = () => JSON.stringify(readRoot.call(doc)).replaceAll(',"attributes":{}', '');
  const shown = show();
  writeRoot.call(doc, JSON.parse(shown));
  is(show(), shown, 'what was built');
}

// Gives an element a text or an attribute, and looks for it, also in the document, parsed again.
function checkWritten(node) {
  const map = node.attributes, key = pick('abcdefgh'), given = word(), doc = node.document;
  const isText = next() % 2 === 0 || map === undefined;
  // An attribute of that name with a prefix, if it stands first, would be read instead.
  const hides = `boolean(@*[local-name() = '${key}' and name() != local-name()])`;
  if (!mayGrow(doc) || !isText && findOne.call(node, hides) !== 'false') return;
  const index = Number(findOne.call(node, 'count(//*) - count(descendant-or-self::* | following::*)'));
  const read = (doc) => {
    const element = findAllInDocument.call(doc, '//*')[index];
    return isText ? element?.text : element?.attributes?.[key];
  };
  const expected = given.split('\0', 1)[0].replace(HALVES, '\ufffd');
  const [how] = outcome(() => { isText ? node.text = given : map[key] = given; });
  // Characters that no document can have.
  if (how === 'threw') return check(/[\x01-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff]/.test(expected), 'refused: ' + expected);
  is(read(doc), expected, 'what was written');
  withCopy(doc, (copy) => is(read(copy), expected, 'what was written, parsed again'));
}

// What is something else, or was removed, answers nothing.
function checkNothing(methods, ...receivers) {
  for (const receiver of receivers)
    for (const [method, argument] of methods) is(method.call(receiver, argument), undefined, method.name);
}

function checkRemoval(node) {
  const child = node.children?.[0], below = child ? [child, ...(child.children || []).slice(0, 3)] : [];
  const maps = below.map((dead) => dead.attributes || {});
  is(removeChild.call(node, next()), child !== undefined, 'the answer to a removal');
  for (const dead of below) dead.text = 'x';
  const left = below.flatMap((dead) => KEYS.filter((key) => dead[key] !== undefined));
  is(left.concat(maps.flatMap(Object.keys)), [], 'what a removed element has');
  checkNothing(OF_NODES, ...below, node.document, node.attributes);
  checkNothing(OF_DOCUMENTS, ...below, node, node.attributes);
}

// Nothing to do while there is none.
const on = (pool, operate) => () => pool.length > 0 && operate(subject = pick(pool));
// The same element, if there still is one, as an object that nobody has tampered with.
const onFresh = (operate) => on(nodes, (node) => operate(findOne.call(node, '.')));

const OPERATIONS = [
  () => parse(source), () => parse(`<r xmlns:p="urn:x">${piece()}</r>`), () => parse(source.replace(piece(), word())),
  () => keep(new VXmlDocument()), forget, collect, () => pick(pools).pop(), onFresh(checkRemoval),
  onFresh(checkWritten), onFresh(checkWritten), on(documents, checkDocument), on(documents, checkDocument),
  on(documents, (doc) => { if (mayGrow(doc)) doc.root = buildable(); }), on(documents, (doc) => keep(doc.root)),
  on(documents, (doc) => keep(pick([findInDocument, findAllInDocument]).call(doc, expression(), namespaces()))),
  on(nodes, (node) => keep(pick([findOne, findAll]).call(node, pick([expression, value])(), namespaces()))),
  on(nodes, (node) => keep(pick([node.parent, node.children, node.attributes, node.document]))),
  on(nodes, (node) => { node.text = value(); }), on(nodes, (node) => { node.attributes[name()] = value(); }),
  on(nodes, (node) => { if (mayGrow(node.document)) node.insertChild(buildable(), ...some(2, () => next() % 4)); }),
  on(attributes, (map) => { pick([map, Object.create(map)])[name()] = value(); }),
  on(attributes, (map) => JSON.stringify([delete map[name()], map, name() in map, map[name()]])),
  on(attributes, (map) => Object.defineProperty(map, name(), {get: () => act(word), configurable: true})),
  () => pick([...OF_NODES, ...OF_DOCUMENTS, [writeRoot]])[0].call(any(), value(), value()),
  on(nodes, (node) => Reflect.set(node, pick(KEYS), value(), pick([node, any()]))),
  on(nodes, (node) => Reflect.get(node, pick(KEYS), any())), () => VXmlDocument.call(any(), value()),
  () => Reflect.construct(VXmlDocument, [value()], pick([Array, NODE.constructor, class extends VXmlDocument {}])),
  () => { if (next() === 0xee && next() === 0xdd) exit(); },
];

function fuzz() {
  const raw = bytes.split('\0', 1)[0], [how, decoded] = outcome(() => decodeURIComponent(escape(raw)));
  // What is no UTF-8 stands for itself.
  [source, place, depth, collections] = [how === 'gave' ? decoded : raw, raw.length + 1, 0, 0];
  forget();
  // So that every operation finds something to work on.
  if (outcome(() => parse(source))[0] === 'threw') parse('<r xmlns:p="urn:x"><a id="i"><b/></a><p:c p:id="1"/></r>');
  for (const node of findAllInDocument.call(documents[0], '//*').slice(0, 8)) keep(node, node.attributes);
  const end = Date.now() + 500;
  for (let count = 0; more() && count < 150 && Date.now() < end; ++count) outcome(pick(OPERATIONS));
  forget();
}
