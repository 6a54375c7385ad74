// Documents: what is refused and with which words, what a parse keeps, text and names that do not survive
// being written, hostile documents, and memory that is not given back.
#include <libxml/parser.h>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class XmlDocumentTest : public ScriptTest {
 protected:
  XmlDocumentTest() {
    Run(R"(
      function parse(text) { return new VXmlDocument(text); }
      function body(doc) { return doc.toString().replace(/^<\?xml.*\?>\n/, '').replace(/\n$/, ''); }
      function fail(f) { try { f(); } catch (e) { return e.message; } return 'no exception'; }
      function build(value) { const doc = new VXmlDocument(); doc.root = value; return body(doc); }
      function list(count, make) { return Array.from({length: count}, (nothing, i) => make(i)); })");
  }

  /// What the engine has been told of memory outside of its heap.
  int64_t ExternalMemory() { return Inside(environment()).isolate->AdjustAmountOfExternalAllocatedMemory(0); }
};

TEST_F(XmlDocumentTest, RefusesWithTheCauseInWords) {
  RunTable(R"js(
    VXmlDocument('<a/>')                          ==> Uncaught Error: Invalid VXmlDocument usage
    [42, undefined, {toString() { return '<a/>'; }}].map(v => fail(() => new VXmlDocument(v))).join()
        ==> "Invalid args,Invalid args,Invalid args"
    fail(() => parse(''))                         ==> "XML error at line 1, col 1: Document is empty\n"
    fail(() => parse('<a>\n\n</b>')).slice(0, 27) ==> "XML error at line 3, col 5:"
    // A failed parse says nothing about a later one.
    fail(() => parse('<a')); body(parse('<b/>'))  ==> "<b/>"
    body(parse('<a/>\0<b'))                       ==> "<a/>"
    body(new VXmlDocument(new String('<a/>'), 42)) ==> "<a/>"
    var d = new VXmlDocument(); [d.toString(), d.root] ==> ["<?xml version=\"1.0\"?>\n",null]
    [d.isXML, Object.prototype.toString.call(d), d instanceof VXmlDocument] ==> [true,"[object VXmlDocument]",true]
    [d.toString, d.findOne, d.findAll].map(f => f.name)       ==> ["toString","findOne","findAll"]
    [d.toString, d.findOne, d.findAll].filter(f => f.prototype) ==> []
  )js");
}

TEST_F(XmlDocumentTest, KeepsWhatCounts) {
  RunTable(R"js(
    body(parse('<a>\n\n <b/> </a>'))                 ==> "<a>\n  <b/>\n</a>"
    body(parse('<a><![CDATA[x<]]>y<!--z--></a>'))    ==> "<a>x&lt;y<!--z--></a>"
    parse('<!DOCTYPE a [<!ENTITY e "in<b/>side">]><a>&e;</a>').root.children[0].name ==> "b"
    body(parse('<a>\u00e4&#x1F600;</a>'))            ==> "<a>&#xE4;&#x1F600;</a>"
    body(parse('<?xml version="1.0" encoding="UTF-8"?><a>ä</a>')) ==> "<a>ä</a>"
    // Declared in another encoding, a document still comes out as a text: its own, or in UTF-8.
    var latin = '<?xml version="1.0" encoding="ISO-8859-1"?>\n<a>ä</a>\n'; parse(latin).toString() === latin ==> true
    var d = parse(latin); d.root.text = 'ü€'; parse(d.toString()).root.text ==> "ü€"
    var us = parse('<?xml version="1.0" encoding="US-ASCII"?><r/>'); us.root.insertChild({name: 'ä'});
    parse(us.toString()).root.children[0].name       ==> "ä"
  )js");
}

TEST_F(XmlDocumentTest, RootIsReplacedByWhatBuildsAnElement) {
  RunTable(R"js(
    build({name: 'a', attributes: {id: 1, b: true, n: null, '1': 'x'}, text: 't',
           children: [{name: 'c', text: 'x'}, {}, 7, {name: 5}, {name: new String('d')}]})
        ==> "<a id=\"1\" b=\"true\" n=\"\"><c>x</c><d/>t</a>"
    build({name: 'a', text: 5})                     ==> "<a/>"
    build({name: 'a', text: new String('x'), attributes: 'x', children: {0: {name: 'b'}, length: 1}}) ==> "<a>x</a>"
    var d = parse('<!DOCTYPE a><!--c--><a/>'); d.root = {name: 'b'}; body(d) ==> "<!DOCTYPE a>\n<!--c-->\n<b/>"
    [undefined, null, 7, 'x', {}, {name: 5}, {name: ''}].filter(v => { d.root = v; return d.root.name !== 'b'; }) ==> []
    // Elements of any document are copied.
    var e = parse('<r k="v"><y><z/></y></r>'); d.root = e.root;
    [d, e].map(doc => JSON.stringify(doc.root) + doc.root.attributes.k).filter((text, i, all) => text !== all[0]) ==> []
    e.root = e.root; e.root = e.root.children[0]; body(e) ==> "<y>\n  <z/>\n</y>"
    build({get name() { throw 'mine'; }})           ==> Uncaught mine
    build({name: 'a', children: [{name: 'b', get text() { throw 'mine'; }}]}) ==> Uncaught mine
  )js");
}

TEST_F(XmlDocumentTest, ATextIsReadAsItWasWritten) {
  RunTable(R"js(
    var texts = ['a & b', '&amp;', '&#65;', '<b/>', ']]>', '"\'', ' x ', '\n', 'a\r\nb\tc', 'ä€\u{1F600}', '%s',
                 'x'.repeat(100000), '\u0085\u2028\ufffd\ud7ff'];
    texts.filter(text => {
      const doc = parse('<r a="1"><t/></r>');
      doc.root.children[0].text = text;
      doc.root.attributes.a = text;
      doc.root.insertChild({name: 'b', attributes: {k: text}, text});
      return [doc, parse(doc.toString())].some(d => {
        const [t, b] = d.root.children;
        return [t.text, d.root.attributes.a, b.attributes.k, b.text, d.findOne('//@a'), d.findOne('//t/text()')].some(
            read => read !== text);
      });
    })                                             ==> []
    var n = parse('<a/>').root;
    [5, false, '\ud800x', 'a\0b'].map(v => (n.text = v, n.text)) ==> ["5","false","�x","a"]
    [undefined, null, ''].map(v => (n.text = v, n.findAll('node()').length)) ==> [0,0,0]
    // What XML has no way to write is refused, and nothing is lost.
    n.text = 'kept'; var edits = ['\x01', '\x1f', 'a\ufffe', '\uffff'].map(c => () => n.text = c);
    edits.push(() => n.insertChild({name: 'b', attributes: {k: '\x02'}}));
    edits.map(fail).filter(message => message !== 'Text contains a character that XML cannot represent') ==> []
    n.text                                         ==> "kept"
  )js");
}

TEST_F(XmlDocumentTest, NamesThatCannotBeParsedAgainBuildNothing) {
  RunTable(R"js(
    ['', ' ', 'a b', '1', '-a', 'a<', 'a=', 'a&', 'é\u00d7', 'a\u2028', 'x'.repeat(50001)].filter(
      name => build({name}) !== '' || build({name: 'a', attributes: {[name]: 1}}) !== '<a/>') ==> []
    ['a', '_', 'é', 'a-b.1', 'x:y', ':a', 'a:', 'a::b', 'xmlns:a', 'xml:a', '\u{10000}', 'x'.repeat(50000)].filter(
      name => parse(build({name, attributes: {[name]: 'v'}}) || '<empty/>').root.name === 'empty') ==> []
    // Different names for the script, the same ones as texts.
    build({name: 'a', attributes: {'k\0x': 1, k: 2, '\ud800': 3}}) ==> "<a k=\"2\"/>"
    var n = parse('<r xmlns="u" xmlns:p="v" p:k="1"/>').root;
    Object.assign(n.attributes, {xmlns: 'w', 'xmlns:p': 'w', 'p:k': '2', 'a b': 3, q: 4});
    [parse(n.document.toString()).findAll('//@*'), body(n.document), n.attributes['p:k'], n.attributes.k]
        ==> [["2","4"],"<r xmlns=\"u\" xmlns:p=\"v\" p:k=\"2\" q=\"4\"/>","2","2"]
    n.insertChild({name: 'p:c', attributes: {'p:k': 1}}); n.children[0].attributes['p:k'] = 2;
    body(parse(n.document.toString())).includes('<p:c p:k="2"/>') ==> true
  )js");
}

TEST_F(XmlDocumentTest, NothingOutsideIsRead) {
  static int loads = 0;
  folder.Write("secret", "secret");
  folder.Write("secret.dtd", "<!ENTITY e 'secret'><!ATTLIST r a CDATA 'secret'>");
  Run("var folder = '" + dir() + "';");
  // The host's own loader stays in its place, and is not asked.
  const auto count = [](const char*, const char*, xmlParserCtxt*) -> xmlParserInput* {
    return ++loads, nullptr;
  };
  const xmlExternalEntityLoader loader = xmlGetExternalEntityLoader();
  for (const xmlExternalEntityLoader installed : {loader, static_cast<xmlExternalEntityLoader>(count)}) {
    xmlSetExternalEntityLoader(installed);
    RunTable(R"js(
      [folder, 'file://' + folder, 'http://localhost/'].map(url => [
        '<!DOCTYPE r [<!ENTITY e SYSTEM "URLsecret">]><r>&e;</r>',
        '<!DOCTYPE r [<!ENTITY e PUBLIC "p" "URLsecret">]><r a="x">&e;&e;</r>',
        '<!DOCTYPE r SYSTEM "URLsecret.dtd"><r>&e;</r>',
        '<!DOCTYPE r [<!ENTITY % p SYSTEM "URLsecret.dtd"> %p;]><r>&e;</r>',
        '<?oasis-xml-catalog catalog="URLsecret"?><!DOCTYPE r PUBLIC "p" "URLsecret.dtd"><r>&e;</r>',
        '<r xmlns:xi="http://www.w3.org/2001/XInclude"><xi:include href="URLsecret" parse="text"/></r>',
      ].map(text => {
        const {root} = parse(text.replaceAll('URL', url));
        return [root.findOne('string()'), root.attributes && root.attributes.a].join('');
      })).flat().filter(read => read !== '' && read !== 'x') ==> []
    )js");
    EXPECT_EQ(xmlGetExternalEntityLoader(), installed);
  }
  xmlSetExternalEntityLoader(loader);
  EXPECT_EQ(loads, 0);
}

TEST_F(XmlDocumentTest, HostileDocumentsEndInAnError) {
  RunTable(R"js(
    function outcome(text) { return fail(() => parse(text)).replace(/ at line \d+(, col \d+)?/, ''); }
    function start(text) { return outcome(text).slice(0, 10); }
    function type(entities, text = '<r/>') { return `<!DOCTYPE r [${entities}]>${text}`; }
    function attributes(count, value = '="0"') { return list(count, i => `a${i}${value}`).join(' '); }
    var equals = '= '.repeat(1e5), tags = n => '<a>'.repeat(n), ends = n => '</a>'.repeat(n);

    Object.keys(parse(`<a ${attributes(5000)}/>`).root.attributes).length ==> 5000
    outcome(`<r><!-- <a ${equals} --><a ${attributes(5001)}/></r>`) ==> "XML error: Too many attributes"
    parse(`<r><!-- <a ${equals} --><![CDATA[<a ${equals}]]></r>`).root.text.length ==> 200003
    parse(`<r a=">${equals}">${equals}</r>`).root.text.length ==> 200000
    // Declared attributes, in a document that is well formed and in one that is not.
    var declared = type(`<!ATTLIST a ${attributes(400, ' CDATA "0"')}>`, '\n');
    fail(() => parse(`${declared}<r>${'<a/>'.repeat(1e5)}</r>`))
        ==> "XML error at line 2: Document is too large"
    start(`${declared}<r b='' b=''>${'<a/>'.repeat(1e5)}</r>`) ==> "XML error:"
    outcome(type(`<!-- ' ]> --><?p ' ]> ?><!ENTITY e ']>"'><!ENTITY f '${'x'.repeat(8200)}'>`))
        ==> "XML error: Document type is too long"
    outcome(type(`<!ATTLIST r ${list(300, i => `i${i} ID #IMPLIED`).join(' ')}>`)) ==> "no exception"
    var nested = list(19, i => `<!ENTITY e${i} "${tags(40)}${i ? `&e${i - 1};` : ''}${ends(40)}">`).join('');
    outcome(type(nested, '<r>&e18;</r>'))
        ==> "XML error: Too many elements in entities"
    outcome(type(`<!ENTITY e "${tags(150)}${ends(150)}">`, tags(150) + '&e;' + ends(150)))
        ==> "XML error: Nested too deeply"
    outcome(type(`<!ENTITY e "${'<a/>'.repeat(150)}">`, `<r>${'&e;'.repeat(1e5)}</r>`))
        ==> "XML error: Too much text from entities"
    start(type(list(10, i => `<!ENTITY e${i} "${(i ? `&e${i - 1};` : 'lol').repeat(10)}">`).join(''), '<r>&e9;</r>'))
        ==> "XML error:"
    outcome(`<r ${attributes(4000, '="0"').replaceAll('a', 'xmlns:a')}>`.repeat(4)) ==> "XML error: Too many namespaces"
    start(tags(1e6))                                           ==> "XML error:"
    start(`<a><b>${'xxxxxxx&amp;'.repeat(1.3e6)}</b><c/></a>`) ==> "XML error:"
    body(parse(type('<!ENTITY % p ""> %p;', '<r>&foo;x</r>'))).includes('foo') ==> false
    parse('<r>' + '<a/>'.repeat(1e5) + '</r>').root.children.length ==> 100000
    parse('<a>' + 'x'.repeat(5e7) + '</a>').root.text.length   ==> 50000000
  )js");
}

TEST_F(XmlDocumentTest, HostileObjectsEndInAnError) {
  RunTable(R"js(
    var cyclic = {name: 'a'}; cyclic.children = [cyclic]; build(cyclic) ==> Uncaught Error: XML is nested too deeply
    function nest(n) { return n == 1 ? {name: 'a'} : {name: 'a', children: [nest(n - 1)]}; }
    var d = parse(build(nest(256))); d.findAll('//a').length           ==> 256
    d.findOne('//a[not(a)]').insertChild({name: 'b'})                  ==> Uncaught Error: XML is nested too deeply
    build({name: 'a', children: new Array(4e9)})                       ==> Uncaught Error: XML is too large
    var shared = {name: 'x'}; for (let i = 0; i < 60; ++i) shared = {name: 'x', children: [shared, shared]};
    build(shared)                                                      ==> Uncaught Error: XML is too large
    var text = 'x'.repeat(1e7), child = {name: 'b', text};
    build({name: 'a', children: list(20, () => child)})                ==> Uncaught Error: Bad allocation
    build({name: 'a', attributes: {k: text + 'x'}})       ==> Uncaught Error: Text is too long for an XML attribute
    var a = parse(`<r k=""/>`).root.attributes;
    a.k = text + `x`                                      ==> Uncaught Error: Text is too long for an XML attribute
    var many = Object.fromEntries(list(5001, i => ['k' + i, 1]));
    build({name: 'a', attributes: many})                  ==> Uncaught Error: Too many XML attributes
    build({name: 'a', attributes: new Proxy({}, {ownKeys() { throw 'mine'; }})}) ==> Uncaught mine
    build({name: 'a', children: [new Proxy({name: 'b'}, {get(t, k) { throw k; }})]}) ==> Uncaught name
    build(new Proxy({name: 'p', text: 'x'}, {}))                       ==> "<p>x</p>"
    // Neither queries nor edits reach an element that is still being built.
    var n, d = parse('<!DOCTYPE r [<!ATTLIST a id ID #IMPLIED>]><r/>');
    var spy = {name: 'a', attributes: {id: 'x'}, get children() { n = d.findOne('id("x")'); throw Error('mine'); }};
    fail(() => d.root = spy) + n                          ==> "minenull"
    // The value replaces and drops, while it is read, the document's root and itself.
    var d = parse('<r><x/></r>');
    d.root = {get name() { d.root = {name: 'inner'}; return 'outer'; }, get children() { return [d.root]; }};
    body(d)                                                            ==> "<outer>\n  <inner/>\n</outer>"
  )js");
}

TEST_F(XmlDocumentTest, MemoryIsTakenAndGivenBack) {
  CollectGarbage(environment());
  const int64_t before = ExternalMemory();
  Run("var d = parse('<r>' + '<item id=\"1\">text</item>'.repeat(10000) + '</r>')");
  const int64_t parsed = ExternalMemory() - before;
  // What libxml2 itself takes for it, as measured: four structures with their texts for each element.
  EXPECT_GT(parsed, 10000 * 400);
  EXPECT_LT(parsed, 10000 * 700);
  Run("d.root.text = 'short'");
  EXPECT_LT(ExternalMemory() - before, 20000);
  Run("d.root.text = 'x'.repeat(1e6)");
  EXPECT_GT(ExternalMemory() - before, 1000000);
  Run("d.root = {name: 'r', attributes: {k: 1}, text: 'x'.repeat(3e6)}");
  EXPECT_GT(ExternalMemory() - before, 3000000);
  Run("d.root.attributes.k = 'x'.repeat(2e6)");
  EXPECT_GT(ExternalMemory() - before, 5000000);
  // Every kind of edit, and then nothing is left over, whoever kept it last.
  Run(R"(
    var n = d.root, all = [];
    d.root.text = null;
    for (let i = 0; i < 50; ++i) {
      n.insertChild({name: 'c', attributes: {a: i, b: 'x'.repeat(i)}, children: [{name: 'd', text: 'y'}]}, i % 3);
      const {attributes} = n.children[0];
      Object.assign(attributes, {a: 'changed' + i, b: '', ['new' + i]: i});
      if (i % 2) delete attributes.b;
      all.push(n.children[0], attributes);
      if (i % 5 == 4) n.removeChild(0);
      if (i % 7 == 6) n.children[0].text = 'only text';
    }
    d.root = n; d.root = {name: 'end', text: 'x'};
    var attributes = parse('<r a="1"/>').root.attributes, node = parse('<r><s/></r>').root.children[0];
    d = n = all = undefined;)");
  CollectGarbage(environment());
  EXPECT_EQ(Run("attributes.a + node.parent.name + node.document.isXML"), R"("1rtrue")");
  Run("attributes = node = undefined");
  CollectGarbage(environment());
  EXPECT_EQ(ExternalMemory(), before);
}

TEST_F(XmlDocumentTest, DocumentsOutliveTheirEnvironmentsLastScript) {
  RunTable(R"js(
    var kept = parse('<r><a b="1"/></r>'), attributes = kept.root.children[0].attributes; ==> undefined
    // After exit() the environment keeps no new state, but the script goes on.
    exit(); kept.root.insertChild({name: 'c'}); var late = parse('<l/>');
    late.root.name + kept.root.children.length + attributes.b ==> "l21"
  )js");
  automation.reset();
}

TEST_F(XmlDocumentTest, EnvironmentsDoNotShare) {
  AtOnce(4, [this](int) {
    Automation other(dir().c_str());
    EXPECT_EQ(other
                  .Run(R"(
        let sum = 0;
        for (let i = 0; i < 200; ++i) {
          const d = new VXmlDocument('<r><a k="1"/></r>');
          d.root.insertChild(d.root);
          try { new VXmlDocument('<'); } catch (e) { sum += d.findAll('//a[@k]').length; }
        }
        sum)",
                       "")
                  .result(),
              "400");
  });
}

}  // namespace
}  // namespace vnjs::testing
