// What an input means: a text, and bytes that say what is done with it and with what comes of it. Each operation
// takes as many of the following bytes as it has choices to make.

function parse(text) {
  const doc = new VXmlDocument(text);
  keep(documents, doc);
  keep(nodes, doc.root);
}

function changed(text) {
  const start = Math.floor(next() * text.length / 256);
  return text.slice(0, start) + word() + text.slice(start + next() % 8);
}

function mayGrow(doc) {
  return Number(findInDocument.call(doc, 'count(//node())')) < MOST_NODES;
}

// An operation on an entry of a pool, with nothing to do while there is none.
function on(pool, operate) {
  return () => {
    const entry = take(pool());
    if (entry === undefined) return;
    subject = entry;
    operate(entry);
  };
}

const onDocument = (operate) => on(() => documents, operate);
const onNode = (operate) => on(() => nodes, operate);
const onFresh = (operate) => onNode((node) => {
  const same = fresh(node);
  if (same !== undefined) operate(same);
});
const onAttributes = (operate) => on(() => attributes, operate);

function keepAny(found) {
  for (const entry of Array.isArray(found) ? found.slice(0, 20) : [found]) {
    keep(typeof entry === 'object' ? nodes : things, entry);
  }
}

function walk(node, budget) {
  for (const child of node.children || []) {
    if (--budget < 0) return budget;
    JSON.stringify([child.name, child.text, child.attributes, child.parent.name, child.document === node.document]);
    budget = walk(child, budget);
  }
  return budget;
}

function tamper(node) {
  const key = pick(NODE_KEYS);
  pick([
    () => Object.freeze(node),
    () => Object.defineProperty(node, key, {value: word(), writable: true}),
    () => Object.defineProperty(node, key, {get: acting(word()), configurable: true}),
    () => delete node[key],
    () => Object.setPrototypeOf(node, take(nodes) || null),
    () => { node[key] = value(); },
    () => { node.expando = value(); },
  ])();
  keep(things, node);
  JSON.stringify(node);
  if (mayGrow(node.document)) insertChild.call(take(nodes) || node, node);
}

const METHODS = [
  serialise, findInDocument, findAllInDocument, readRoot, writeRoot, insertChild, removeChild, findOne, findAll,
];

const MOST_OPERATIONS = 150;
const MOST_MILLISECONDS = 500;

const OPERATIONS = [
  () => parse(text),
  () => parse(changed(text)),
  () => parse('<r xmlns:p="urn:x">' + piece() + '</r>'),
  () => keep(documents, new VXmlDocument()),
  () => new VXmlDocument(value()),
  onDocument((doc) => parse(serialise.call(doc))),
  onDocument((doc) => keep(nodes, doc.root)),
  onDocument((doc) => walk(doc.root, 200)),
  onDocument((doc) => { if (mayGrow(doc)) doc.root = buildable(); }),
  onDocument((doc) => keepAny(doc.findOne(expression(), pick(NAMESPACE_MAPS)()))),
  onDocument((doc) => keepAny(doc.findAll(expression(), pick(NAMESPACE_MAPS)()))),
  onDocument(checkDocument),
  onDocument(checkBuild),
  onNode((node) => keep(nodes, node.parent)),
  onNode((node) => keepAny(node.children)),
  onNode((node) => keep(attributes, node.attributes)),
  onNode((node) => keep(documents, node.document)),
  onNode((node) => keep(things, [node.name, node.text])),
  onNode((node) => keep(things, JSON.stringify(node))),
  onNode((node) => { node.text = value(); }),
  onNode((node) => { if (mayGrow(node.document)) node.insertChild(buildable(), next() % 4); }),
  onNode((node) => { if (mayGrow(node.document)) node.insertChild(buildable(), value()); }),
  onNode((node) => { if (mayGrow(node.document)) keep(things, node.insertChild(buildable())); }),
  onNode(checkRemoval),
  onNode((node) => { node.attributes[nameOrPiece()] = value(); }),
  onNode((node) => delete node.attributes[nameOrPiece()]),
  onNode((node) => keepAny(node.findOne(expression(), pick(NAMESPACE_MAPS)()))),
  onNode((node) => keepAny(node.findAll(expression(), pick(NAMESPACE_MAPS)()))),
  onNode((node) => keepAny(node.findAll(value(), value()))),
  onFresh(checkText),
  onFresh(checkAttribute),
  onFresh(tamper),
  onNode((node) => checkKinds(node, node.document, node.attributes)),
  onAttributes((map) => { map[nameOrPiece()] = value(); }),
  onAttributes((map) => delete map[nameOrPiece()]),
  onAttributes((map) => keep(things, [map[nameOrPiece()], nameOrPiece() in map, Object.keys(map), {...map}])),
  onAttributes((map) => keep(things, JSON.stringify([map, Object.entries(map), map.toString(), map[0]]))),
  onAttributes((map) => {
    const name = nameOrPiece();
    pick([
      () => Object.defineProperty(map, name, {value: word(), configurable: true, writable: true}),
      () => Object.defineProperty(map, name, {get: acting(1), configurable: true}),
      () => Object.getOwnPropertyDescriptor(map, name),
      () => Reflect.set(map, name, value(), foreignReceiver()),
      () => Reflect.get(map, name, foreignReceiver()),
      () => Object.assign(map, attributeMap()),
      () => { Object.create(map)[name] = value(); },
      () => { map[0] = map[Symbol.iterator] = value(); },
    ])();
  }),
  () => pick(METHODS).call(foreignReceiver(), value(), value()),
  onNode((node) => Reflect.get(node, pick(NODE_KEYS), foreignReceiver())),
  onNode((node) => Reflect.set(node, pick(NODE_KEYS), value(), foreignReceiver())),
  onNode((node) => { Object.create(node).text = value(); }),
  onNode((node) => JSON.stringify([Object.create(node), new NODE_PROTOTYPE.constructor(), new Proxy(node, {})])),
  () => keep(documents, new class extends VXmlDocument {}(text)),
  () => keep(things, Reflect.construct(VXmlDocument, [text], pick([Array, NODE_PROTOTYPE.constructor]))),
  () => VXmlDocument.call(foreignReceiver(), text),
  () => take([documents, nodes, attributes, things])?.pop(),
  forget,
  collect,
  () => { if (next() === 0xee && next() === 0xdd) exit(); },
];

// So that every operation finds something to work on.
function begin() {
  try {
    parse(text);
  } catch (e) {
    parse('<r xmlns:p="urn:x"><a id="i"><b>text</b><p:c p:id="1"/></a>mixed<b id="x"/></r>');
  }
  for (const node of findAllInDocument.call(documents[0], '//*').slice(1, POOL_SIZE)) {
    keep(nodes, node);
    keep(attributes, node.attributes);
  }
}

function fuzz() {
  [text, bytes] = fuzzInput();
  place = depth = collections = 0;
  forget();
  begin();
  const end = Date.now() + MOST_MILLISECONDS;
  for (let count = 0; place < bytes.length && count < MOST_OPERATIONS && Date.now() < end; ++count) {
    try {
      pick(OPERATIONS)();
    } catch (e) {
      // Scripts may fail, and here they do so often.
    }
  }
  forget();
}
