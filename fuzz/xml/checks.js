// What has to hold whatever an input does. Exceptions are fine; what may not happen goes to fuzzBroken, which ends
// the process.

function check(condition, message) {
  if (!condition) fuzzBroken(message + '\n' + new Error().stack);
}

function checkEqual(value, expected, what) {
  check(value === expected, what + ', is ' + JSON.stringify(value) + ', not ' + JSON.stringify(expected));
}

// Characters that no document can have.
const UNWRITABLE = /[\x01-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff]/;

// What the library makes of a text: it ends at a NUL, and has no halves of characters.
function asRead(text) {
  const halves = /[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;
  return text.split('\0', 1)[0].replace(halves, '\ufffd');
}

// Some markup is written by libxml2 so that it cannot read it: declarations of a document type, and the URIs of
// namespaces, which it does not escape.
function isReadable(serialised) {
  return !serialised.includes('<!DOCTYPE') && !/\sxmlns[^=\s]*=("[^"]*[&<\s]|'[^']*[&<\s])/.test(serialised);
}

function parseAgain(serialised) {
  try {
    return new VXmlDocument(serialised);
  } catch (e) {
    fuzzBroken('does not parse again: ' + e.message + serialised.substr(0, 2000));
  }
}

// White space between elements is dropped by a parse and added by a serialisation, and an attribute that a script has
// made becomes a declaration: such documents look the same only from the second time on.
function isSteady(doc) {
  return findInDocument.call(doc, "boolean(//text()[normalize-space(.) = ''])") === 'false' &&
    findInDocument.call(doc, "boolean(//@*[starts-with(name(), 'xmlns')])") === 'false';
}

function checkDocument(doc) {
  const first = serialise.call(doc);
  if (readRoot.call(doc) === undefined) return;
  if (!isReadable(first)) {
    keep(documents, new VXmlDocument(first));
    return;
  }
  const again = parseAgain(first);
  const second = serialise.call(again);
  const third = serialise.call(parseAgain(second));
  checkEqual(third, second, 'the document, parsed for the second time');
  if (isSteady(doc)) checkEqual(second, first, 'the document, parsed again');
}

// The same element as an object that nobody has tampered with.
function fresh(node) {
  return findOne.call(node, '.') || undefined;
}

// The element of another document at the same place.
function sameElement(node, doc) {
  const route = [];
  for (let element = node; element.parent; element = element.parent) {
    route.unshift(Number(findOne.call(element, 'count(preceding-sibling::*)')));
  }
  const found = route.reduce((element, index) => element && (element.children || [])[index], readRoot.call(doc));
  check(found !== undefined, 'an element is lost');
  return found;
}

// Gives an element a text by means of `write`, and looks for it with `read`, which takes an element.
function checkWritten(node, write, read) {
  const given = word();
  const expected = asRead(given);
  try {
    write(given);
  } catch (e) {
    check(UNWRITABLE.test(expected), 'refused: ' + JSON.stringify(expected));
    return;
  }
  checkEqual(read(node), expected, 'what was written, read back');
  const serialised = serialise.call(node.document);
  if (!isReadable(serialised)) return;
  checkEqual(read(sameElement(node, parseAgain(serialised))), expected, 'what was written, parsed again');
}

function checkText(node) {
  checkWritten(node, (text) => { node.text = text; }, (node) => node.text);
}

function checkAttribute(node) {
  const name = simpleName();
  const map = node.attributes;
  // An attribute of that name with a prefix, if it stands first, would be read instead.
  const hides = "boolean(@*[local-name() = '" + name + "' and name() != local-name()])";
  if (map === undefined || findOne.call(node, hides) !== 'false') return;
  checkWritten(node, (text) => { map[name] = text; }, (node) => (node.attributes || {})[name]);
}

function checkDead(node, attributes) {
  for (const key of ['name', 'text', 'attributes', 'children', 'parent']) {
    check(node[key] === undefined, 'a removed element has a ' + key);
  }
  check(findOne.call(node, '.') === undefined, 'a removed element is found');
  check(findAll.call(node, '//*') === undefined, 'a removed element is searched');
  check(removeChild.call(node, 0) === undefined, 'a removed element loses a child');
  check(insertChild.call(node, {name: 'a'}) === undefined, 'a removed element gets a child');
  node.text = 'x';
  check(node.text === undefined, 'a removed element gets a text');
  if (attributes !== undefined) {
    check(Object.keys(attributes).length === 0, 'a removed element lists attributes');
    check(attributes.id === undefined, 'a removed element has an attribute');
  }
}

function checkRemoval(node) {
  const child = (node.children || [])[0];
  const below = child === undefined ? [] : (child.children || []).slice(0, 3).concat(child);
  const maps = below.map((dead) => dead.attributes);
  const removed = removeChild.call(node, next());
  checkEqual(removed, node.name === undefined ? undefined : child !== undefined, 'the answer to a removal');
  below.forEach((dead, i) => checkDead(dead, maps[i]));
}

// A node, a document and the attributes of a node are never taken for one another.
function checkKinds(node, doc, map) {
  const answers = [
    findOne.call(doc, '.'), findAll.call(doc, '.'), insertChild.call(doc, {name: 'a'}), removeChild.call(doc, 0),
    findOne.call(map, '.'), findAll.call(map, '.'), insertChild.call(map, {name: 'a'}), removeChild.call(map, 0),
    serialise.call(node), readRoot.call(node), findInDocument.call(node, '.'), findAllInDocument.call(node, '.'),
    serialise.call(map), readRoot.call(map), findInDocument.call(map, '.'), findAllInDocument.call(map, '.'),
  ];
  check(answers.every((answer) => answer === undefined), 'taken for something else: ' + answers.map(String));
}

// Plain objects with what a node answers, in its order.
function cleanTree(level) {
  const tree = {name: simpleName()};
  const texts = WORDS.concat(piece()).map(asRead).filter((text) => /\S/.test(text) && !UNWRITABLE.test(text));
  const children = Array.from({length: level > 0 ? next() % 4 : 0}, () => cleanTree(level - 1));
  if (children.length === 0) tree.text = next() % 2 ? pick(texts) : '';
  const map = {};
  for (let count = next() % 3; count > 0; --count) map[simpleName()] = pick(texts);
  if (Object.keys(map).length > 0) tree.attributes = map;
  if (children.length > 0) tree.children = children;
  return tree;
}

function checkBuild(doc) {
  const tree = cleanTree(3);
  const expected = JSON.stringify(tree);
  writeRoot.call(doc, tree);
  checkEqual(JSON.stringify(readRoot.call(doc)), expected, 'what was built');
  const serialised = serialise.call(doc);
  if (!isReadable(serialised)) return;
  checkEqual(JSON.stringify(parseAgain(serialised).root), expected, 'what was built, parsed again');
}
