// Node and attribute objects: what a script sees of them, edits in the middle of reading, elements that are gone,
// and receivers that are something else.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class XmlNodeTest : public ScriptTest {
 protected:
  XmlNodeTest() {
    Run(R"(
      function root(text) { return new VXmlDocument(text).root; }
      function body(node) { return node.document.toString().split('\n').slice(1).join('').replace(/> +</g, '><'); }
      function fail(f) { try { f(); } catch (e) { return e.message; } return 'no exception'; }
      // Everything that a node offers, in the order of its keys and methods.
      function ask(n) {
        return [n.name, n.text, n.attributes, n.children, n.parent, n.findOne('.'), n.findAll('.'),
                n.insertChild({name: 'x'}), n.removeChild(0), n.text = 'y', n.text].filter(v => v !== undefined).join();
      })");
  }
};

TEST_F(XmlNodeTest, ShowsElementsAsPlainObjects) {
  RunTable(R"js(
    var r = root('<r id="1"><c>t</c>u<d/></r>'), c = r.children[0];
    JSON.parse(JSON.stringify(r))
        ==> {"name":"r","attributes":{"id":"1"},"children":[{"name":"c","text":"t"},{"name":"d","text":""}]}
    [Object.keys(r), String(r), r === r.document.root]
        ==> [["name","text","attributes","children"],"[object VXmlNode]",false]
    [r.parent, c.parent.name, c.document === r.document, c.text, r.text] ==> [null,"r",true,"t",null]
    ['<a/>', '<a>x<b/></a>', '<a>x<!--c-->y</a>', '<a><?p q?></a>'].map(root).map(
        n => [n.text, n.children && 1, n.attributes])
        ==> [["",null,null],[null,1,null],["xy",null,null],["",null,null]]
    // Assigned in vain: there is no such setter, or the property is not to be written.
    Object.assign(r, {name: 'z', children: [], attributes: {}}); r.parent = r.document = 1; ==> 1
    body(r)                                                    ==> "<r id=\"1\"><c>t</c>u<d/></r>"
    var p = Object.getOwnPropertyDescriptor(r, 'document');
    [p.value.isXML, p.writable, p.enumerable, p.configurable]  ==> [true,false,false,false]
    r.insertChild.name + Object.keys(Object.getPrototypeOf(r)).length ==> "insertChild0"
    root('<p:r xmlns:p="u"/>').name                            ==> "r"
  )js");
}

TEST_F(XmlNodeTest, InsertsAndRemoves) {
  RunTable(R"js(
    [0, 1, 2, 99].map(p => { r = root('<a>t<b/></a>'); return r.insertChild({name: 'x'}, p) && body(r).slice(3, -4); })
        ==> ["t<x/><b/>","t<b/><x/>","t<b/><x/>","t<b/><x/>"]
    var r = root('<a/>'); for (const p of [-1, '0', 0.5, 4294967296, undefined]) r.insertChild({name: 'x' + p}, p);
    body(r)                                        ==> "<a><x-1/><x0/><x0.5/><x4294967296/><xundefined/></a>"
    var r = root('<a><b/>t<c/>u<!--v--></a>'); r.insertChild(r, 1);
    body(r)                                        ==> "<a><b/>t<a><b/><c/></a><c/>u<!--v--></a>"
    // Whatever the index, the first one goes.
    [5, 0, 4294967295, 0].map(index => r.removeChild(index)) ==> [true,true,true,false]
    [[], [{name: 'x'}, 1, 2]].map(a => fail(() => r.insertChild(...a)))
        ==> ["Invalid arguments count","Invalid arguments count"]
    [null, 'x', {}, {name: 1}, {name: 'a b'}].filter(v => fail(() => r.insertChild(v)) !== 'Invalid node object') ==> []
    [[], [-1], ['0'], [0.5], [0, 0], [4294967296]].filter(a => fail(() => r.removeChild(...a)) !== 'Invalid argument')
        ==> []
    body(r)                                        ==> "<a>tu<!--v--></a>"
  )js");
}

TEST_F(XmlNodeTest, AttributesAreAMap) {
  RunTable(R"js(
    var r = root('<r b="1" a="2" toString="x"/>'), a = r.attributes; ==> undefined
    [Object.keys(a), a.a, a.nope, 'nope' in a]     ==> [["b","a","toString"],"2",null,true]
    [typeof a.toString, String(a), a === r.attributes] ==> ["function","[object VXmlAttributes]",false]
    Object.assign(a, {toString: 'y', o: {}, u: undefined, b: true});
    body(r)
        ==> "<r b=\"true\" a=\"2\" toString=\"y\" o=\"[object Object]\" u=\"\"/>"
    [delete a.b, delete a.b]                       ==> [true,false]
    for (const k of Object.keys(a)) delete a[k]; [r.attributes, Object.keys(a), a.again = 1] ==> [null,[],1]
    // Names that look like an index, and symbols, are properties of the object alone.
    a[0] = 'x'; a[Symbol.iterator] = 1; [a[0], {...r.attributes}] ==> ["x",{"again":"1"}]
    var n = root('<r xmlns:p="u" p:a="1" xml:lang="de"/>'), m = n.attributes; ==> undefined
    [Object.keys(m), m.a, m['p:a'], m['xml:lang']] ==> [["a","lang"],"1","1","de"]
    m['p:a'] = 2; m['p:b'] = 3; m['q:c'] = 4;
    body(n)
        ==> "<r xmlns:p=\"u\" p:a=\"2\" xml:lang=\"de\" p:b=\"3\" q:c=\"4\"/>"
    [delete m['p:b'], delete m.b]                  ==> [false,true]
    var t = root('<r xmlns:p="u" xmlns:q="u" p:a="1"/>'); t.attributes['q:a'] = 2;
    body(t)                                        ==> "<r xmlns:p=\"u\" xmlns:q=\"u\" p:a=\"2\"/>"
    for (let i = 0; i < 4997; ++i) t.attributes['k' + i] = i; ==> 4996
    t.attributes.more = 1                          ==> Uncaught Error: Too many XML attributes
    // Declared with a default, an attribute has a value before it is there.
    root('<!DOCTYPE r [<!ATTLIST r d CDATA "x" i ID #IMPLIED>]><r i="k"/>').attributes.d ==> "x"
    var i = root('<!DOCTYPE r [<!ATTLIST e i ID #IMPLIED>]><r><e i="k"/></r>'); i.children[0].attributes.i = 'l';
    [i.findOne('id("l")').name, i.findOne('id("k")'), i.removeChild(0), i.findOne('id("l")')] ==> ["e",null,true,null]
  )js");
}

TEST_F(XmlNodeTest, ObjectsOfFreedElementsAnswerNothing) {
  for (const char* edit : {
           "r.document.root = r",
           "r.text = 'new'",
           "r.text = null",
           "r.removeChild(0)",
           "r.document.root = {get name() { r.removeChild(0); return 'made'; }}",
           "r.insertChild({name: 'made', get text() { r.text = ''; }})",
           "r.text = {toString() { r.removeChild(0); return ''; }}",
           "r.attributes.k = {toString() { r.document.root = {name: 'new'}; return ''; }}",
           "r.findAll('.', {get p() { r.text = ''; }})",
       }) {
    Run("var r = root('<r k=\"1\"><s k=\"2\"><t>u</t></s></r>'), s = r.children[0], t = s.children[0], a = "
        "s.attributes;");
    Run(std::string("{ ") + edit + " }");
    // Other elements may live where those were; the objects must not turn to them.
    Run("for (let i = 0; i < 20; ++i) r.document.root.insertChild({name: 'other', attributes: {k: 3}, text: "
        "'v'});");
    EXPECT_EQ(
        Run("[ask(s), ask(t), [a.k, Object.keys(a).length, delete a.k], r.document.findAll('//x').length, "
            "a.k = 'own', t.document === r.document]"),
        R"(["y","y",[null,0,false],0,"own",true])")
        << edit;
  }
}

TEST_F(XmlNodeTest, TheReceiverMayGoWhileItsArgumentIsRead) {
  for (const char* call : {
           "s.insertChild({get name() { r.text = ''; return 'x'; }})",
           "s.insertChild({name: 'x', attributes: {get a() { r.text = ''; return 1; }}})",
           "s.insertChild({name: 'x', children: [{get name() {return r.document.root = {name: 'q'}, 'y'}}]})",
           "s.findOne('.', {get p() { r.text = ''; return 'u'; }})",
           "s.findAll('.', new Proxy({p: 'u'}, {ownKeys(o) { r.text = ''; return Reflect.ownKeys(o); }}))",
           "s.findAll(Object.assign(new String('.'), {toString() { r.text = ''; return '.'; }}))",
           "void (s.text = {toString() { r.text = ''; return 'x'; }})",
           "void (s.attributes.k = {toString() { r.text = ''; return 'x'; }})",
       }) {
    Run("var r = root('<r><s k=\"1\"><t/></s></r>'), s = r.children[0]; r = s.parent;");
    EXPECT_EQ(Run(call), "undefined") << call;
    EXPECT_EQ(Run("ask(s) + r.document.findAll('//s | //x | //y').length"), R"("y0")") << call;
  }
}

TEST_F(XmlNodeTest, ForeignReceiversAreHarmless) {
  RunTable(R"js(
    var doc = new VXmlDocument('<r a="1"><s/></r>'), node = doc.root, attributes = node.attributes;
    var before = doc.toString(), Node = node.constructor, call = (f, ...a) => function () { return f.apply(this, a); };
    var receivers = [undefined, null, 1, 'x', Symbol(), {}, [], function () {}, new Proxy(node, {}), new Proxy(doc, {}),
                     new Uint8Array(64), new DataView(new ArrayBuffer(8)), new Map(), globalThis, VXmlDocument,
                     Object.create(node), Object.create(doc), Object.create(attributes), new Node(),
                     new attributes.constructor(), new (class extends Node {})(), doc, node, attributes];
    var root = Object.getOwnPropertyDescriptor(VXmlDocument.prototype, 'root'), uses = [];
    for (const f of [doc.toString, doc.findOne, doc.findAll]) uses.push([doc, call(f, '.')]);
    uses.push([doc, root.get], [doc, call(root.set, {name: 'x'})], [node, call(node.removeChild, 0)]);
    for (const f of [node.findOne, node.findAll]) uses.push([node, call(f, '.')]);
    uses.push([node, call(node.insertChild, {name: 'x'})]);
    for (const key of ['name', 'text', 'attributes', 'children', 'parent']) {
      uses.push([node, function () { return Reflect.get(node, key, this); }]);
      uses.push([node, function () { Reflect.set(node, key, 'x', Object(this)); }]);
    }
    uses.map(([own, use]) => receivers.filter(receiver => receiver !== own).map(receiver => {
      try { return use.call(receiver); } catch (e) { return e.message === 'Invalid argument' ? undefined : e; }
    })).flat().filter(result => result !== undefined).map(String) ==> []
    var heir = Object.create(attributes); heir.own = 1;
    [doc.toString() === before, heir.a, heir.own, attributes.own] ==> [true,null,1,null]
  )js");
}

TEST_F(XmlNodeTest, EditsMidwayInEnumerationsAndConversions) {
  RunTable(R"js(
    var r = root('<r a="1" b="2" c="3"/>');
    for (const k in r.attributes) { delete r.attributes.b; if (r.attributes) r.attributes.d = 4; }
    body(r)                                        ==> "<r a=\"1\" c=\"3\" d=\"4\"/>"
    var r = root('<r><a/><b/><c/></r>'); for (const n of r.children) r.removeChild(0);
    body(r)                                        ==> "<r/>"
    var r = root('<r><a><b/></a></r>'); var free = (k, v) => { if (k == 'name' && v == 'a') r.text = ''; return v; };
    JSON.stringify(r, free)                        ==> "{\"name\":\"r\",\"children\":[{\"name\":\"a\"}]}"
    var r = root('<r a="1"/>'), a = r.attributes;
    Object.setPrototypeOf(a, new Proxy({}, {get() { r.document.root = {name: 'x'}; }})); a.a ==> undefined
  )js");
}

}  // namespace
}  // namespace vnjs::testing
