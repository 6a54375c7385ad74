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
  RunAll({
      {"var r = root('<r id=\"1\" b=\"x\"><c>t</c>u<d><e/></d></r>'), c = r.children[0]; JSON.stringify(r)",
       R"JSON("{\"name\":\"r\",\"attributes\":{\"id\":\"1\",\"b\":\"x\"},\"children\":[{\"name\":\"c\",\"text\":\"t\"},{\"name\":\"d\",\"children\":[{\"name\":\"e\",\"text\":\"\"}]}]}")JSON"},
      {"[Object.keys(r), String(r), r.constructor.name, r === r.document.root]",
       R"([["name","text","attributes","children"],"[object VXmlNode]","VXmlNode",false])"},
      {"[r.parent, c.parent.name, c.document === r.document, c.text, r.text, r.children.length]",
       R"([null,"r",true,"t",null,2])"},
      {"['<a/>', '<a>t</a>', '<a>x<b/></a>', '<a>x<!--c-->y</a>', '<a><?p q?></a>'].map(t => [root(t).text, "
       "root(t).children, root(t).attributes].map(v => v && (v.length || 1)))",
       R"([["",null,null],[1,null,null],[null,1,null],[2,null,null],["",null,null]])"},
      // Assigned in vain: there is no such setter, or the property is not to be written.
      {"r.name = 'z'; r.children = []; r.attributes = {}; r.parent = 1; r.document = 1; body(r)",
       R"("<r id=\"1\" b=\"x\"><c>t</c>u<d><e/></d></r>")"},
      {"JSON.stringify(Object.getOwnPropertyDescriptor(r, 'document'), (k, v) => k == 'value' ? v.isXML : v)",
       R"("{\"value\":true,\"writable\":false,\"enumerable\":false,\"configurable\":false}")"},
      {"r.insertChild.name + Object.keys(Object.getPrototypeOf(r)).length", R"("insertChild0")"},
      {"root('<p:r xmlns:p=\"u\"/>').name", R"("r")"},
  });
}

TEST_F(XmlNodeTest, InsertsAndRemoves) {
  RunAll({
      {"[0, 1, 2, 99, -1, '0', 0.5, 4294967295, undefined].map(p => { const r = root('<a>t<b/></a>'); "
       "return r.insertChild({name: 'x'}, p) && body(r).slice(3, -4); })",
       R"(["t<x/><b/>","t<b/><x/>","t<b/><x/>","t<b/><x/>","t<b/><x/>","t<b/><x/>","t<b/><x/>","t<b/><x/>","t<b/><x/>"])"},
      {"var r = root('<a><b/>t<c/>u<!--v--></a>'); r.insertChild(r, 1); body(r)",
       R"("<a><b/>t<a><b/><c/></a><c/>u<!--v--></a>")"},
      // Whatever the index, the first one goes.
      {"[r.removeChild(5), r.removeChild(0), r.removeChild(4294967295), r.removeChild(0), body(r)]",
       R"([true,true,true,false,"<a>tu<!--v--></a>"])"},
      {"[() => r.insertChild(), () => r.insertChild({name: 'x'}, 1, 2)].map(fail)",
       R"(["Invalid arguments count","Invalid arguments count"])"},
      {"[null, undefined, 'x', {}, {name: 1}, {name: 'a b'}].map(v => fail(() => r.insertChild(v))).filter("
       "m => m != 'Invalid node object')",
       "[]"},
      {"[[], [-1], ['0'], [0.5], [0, 0], [4294967296]].map(a => fail(() => r.removeChild(...a))).filter(m => "
       "m != "
       "'Invalid argument')",
       "[]"},
      {"body(r)", R"("<a>tu<!--v--></a>")"},
  });
}

TEST_F(XmlNodeTest, AttributesAreAMap) {
  RunAll({
      {"var r = root('<r b=\"1\" a=\"2\" toString=\"x\"/>'), a = r.attributes; [Object.keys(a), a.a, a.nope, "
       "'nope' in a]",
       R"([["b","a","toString"],"2",null,true])"},
      {"[typeof a.toString, String(a), a.constructor.name, a === r.attributes]",
       R"(["function","[object VXmlAttributes]","VXmlAttributes",false])"},
      {"a.toString = 'y'; a.n = 5; a.o = {}; a.u = undefined; a.b = true; body(r)",
       R"("<r b=\"true\" a=\"2\" toString=\"y\" n=\"5\" o=\"[object Object]\" u=\"\"/>")"},
      {"[delete a.b, delete a.b]", "[true,false]"},
      {"for (const k of Object.keys(a)) delete a[k]; [r.attributes, Object.keys(a), a.again = 1, body(r)]",
       R"([null,[],1,"<r again=\"1\"/>"])"},
      // Names that look like an index, and symbols, are properties of the object alone.
      {"a[0] = 'x'; a[Symbol.iterator] = 1; [a[0], body(r)]", R"(["x","<r again=\"1\"/>"])"},
      {"({...r.attributes})", R"({"again":"1"})"},
      {"var n = root('<r xmlns:p=\"u\" p:a=\"1\" xml:lang=\"de\"/>'), m = n.attributes; [Object.keys(m), "
       "m.a, m['p:a'], "
       "m['xml:lang']]",
       R"([["a","lang"],"1","1","de"])"},
      {"m['p:a'] = 2; m['p:b'] = 3; m['q:c'] = 4; [body(n), delete m['p:b'], delete m.b]",
       R"(["<r xmlns:p=\"u\" p:a=\"2\" xml:lang=\"de\" p:b=\"3\" q:c=\"4\"/>",false,true])"},
      {"var t = root('<r xmlns:p=\"u\" xmlns:q=\"u\" p:a=\"1\"/>'); t.attributes['q:a'] = 2; body(t)",
       R"("<r xmlns:p=\"u\" xmlns:q=\"u\" p:a=\"2\"/>")"},
      {"for (let i = 0; i < 4997; ++i) t.attributes['k' + i] = i; [fail(() => t.attributes.more = 1), "
       "t.attributes.more]",
       R"(["Too many XML attributes",null])"},
      // Declared with a default, an attribute has a value before it is there.
      {"root('<!DOCTYPE r [<!ATTLIST r d CDATA \"x\" i ID #IMPLIED>]><r i=\"k\"/>').attributes.d", R"("x")"},
      {"var i = root('<!DOCTYPE r [<!ATTLIST e i ID #IMPLIED>]><r><e i=\"k\"/></r>'); "
       "i.children[0].attributes.i = 'l'; "
       "[i.findOne('id(\"l\")').name, i.findOne('id(\"k\")'), i.removeChild(0), i.findOne('id(\"l\")')]",
       R"(["e",null,true,null])"},
  });
}

TEST_F(XmlNodeTest, ObjectsOfFreedElementsAnswerNothing) {
  for (const char* edit : {
           "r.document.root = {name: 'new'}",
           "r.text = 'new'",
           "r.text = null",
           "r.removeChild(0)",
           "r.document.root = r",
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
           "s.insertChild({name: 'x', children: [{get name() { r.document.root = {name: 'q'}; return 'y'; "
           "}}]})",
           "s.findOne({__proto__: new String('.'), toString() {}}.constructor('.'), {get p() { r.text = ''; "
           "return 'u'; }})",
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
  EXPECT_EQ(Run(R"(
    var doc = new VXmlDocument('<r a="1"><s/></r>'), node = doc.root, attributes = node.attributes;
    var before = doc.toString();
    var receivers = [undefined, null, 1, 'x', Symbol(), {}, [], function () {}, new Proxy(node, {}), new Proxy(doc, {}),
                     new Uint8Array(64), new DataView(new ArrayBuffer(8)), new Map(), new Promise(() => {}), globalThis,
                     Object.create(node), Object.create(doc), Object.create(attributes), new node.constructor(),
                     new attributes.constructor(), VXmlDocument, new (class extends node.constructor {})(), doc, node, attributes];
    var own = {toString: doc, findOne: doc, findAll: doc};
    var wrong = [];
    function check(kind, name, f) {
      for (const receiver of receivers) {
        if (receiver === kind) continue;
        let result;
        try { result = f.call(receiver, '.'); } catch (e) { result = e; }
        if (result !== undefined && String(result.message) != 'Invalid argument') {
          wrong.push([name, receivers.indexOf(receiver), String(result)]);
        }
      }
    }
    for (const name of ['toString', 'findOne', 'findAll']) check(doc, 'doc.' + name, VXmlDocument.prototype[name]);
    const accessor = Object.getOwnPropertyDescriptor(VXmlDocument.prototype, 'root');
    check(doc, 'get root', accessor.get);
    check(doc, 'set root', function () { return accessor.set.call(this, {name: 'x'}); });
    for (const name of ['insertChild', 'removeChild', 'findOne', 'findAll']) {
      const method = Object.getPrototypeOf(node)[name];
      check(node, 'node.' + name, function () {
        return name == 'removeChild' ? method.call(this, 0) : method.call(this, name == 'insertChild' ? {name: 'x'} : '.'); });
    }
    for (const key of ['name', 'text', 'attributes', 'children', 'parent']) {
      check(node, 'node.' + key, function () { return Reflect.get(node, key, this); });
      check(node, 'set node.' + key, function () { Reflect.set(node, key, 'x', Object(this)); });
    }
    const heir = Object.create(attributes);
    heir.own = 1;
    [wrong, doc.toString() === before, heir.a, heir.own, attributes.own])"),
            R"([[],true,null,1,null])");
}

TEST_F(XmlNodeTest, EditsMidwayInEnumerationsAndConversions) {
  RunAll({
      {"var r = root('<r a=\"1\" b=\"2\" c=\"3\"/>'); for (const k in r.attributes) { delete r.attributes.b; "
       "if (r.attributes) r.attributes.d = 4; } body(r)",
       R"("<r a=\"1\" c=\"3\" d=\"4\"/>")"},
      {"var r = root('<r><a/><b/><c/></r>'); for (const n of r.children) { r.removeChild(0); } body(r)",
       R"("<r/>")"},
      {"var r = root('<r><a><b/></a></r>'); JSON.stringify(r, (k, v) => { if (k == 'name' && v == 'a') "
       "r.text = ''; "
       "return v; })",
       R"JSON("{\"name\":\"r\",\"children\":[{\"name\":\"a\"}]}")JSON"},
      {"var r = root('<r a=\"1\"/>'), a = r.attributes; Object.setPrototypeOf(a, new Proxy({}, {get(t, k) { "
       "r.document.root = {name: 'x'}; }})); a.a",
       "undefined"},
  });
}

}  // namespace
}  // namespace vnjs::testing
