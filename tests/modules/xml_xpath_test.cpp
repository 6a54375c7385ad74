// XPath: each kind of result, prefixes, what is refused, and expressions that would run away.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <sys/resource.h>

#include <thread>

#include "modules/xml/xpath.h"
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

void CountMessage(void* count, const char*, ...) { ++*static_cast<int*>(count); }

/// What libxml2 has to say goes to a handler of the test, as a host may have one.
class XmlXPathTest : public ScriptTest {
 protected:
  XmlXPathTest() {
    xmlSetGenericErrorFunc(&messages, CountMessage);
    Run("function fail(f) { try { f(); } catch (e) { return e.message; } return 'no exception'; }");
    Run("var d = new VXmlDocument('<r><a x=\"1\">hi</a><a x=\"2\"/><!--c--><?p q?></r>'), n = d.root;");
  }
  ~XmlXPathTest() override { xmlSetGenericErrorFunc(nullptr, nullptr); }

  int messages = 0;
};

TEST_F(XmlXPathTest, EachKindOfResult) {
  RunTable(R"js(
    [d.findOne('//a').attributes.x, d.findAll('//a').length, d.findOne('//b'), d.findAll('//b')] ==> ["1",2,null,[]]
    [d.findOne('//a/@x'), d.findAll('//a/@x')]     ==> ["1",["1","2"]]
    ['count(//a)', 'boolean(//a)', '1 div 0', '1.50', 'string(//b)'].map(x => d.findOne(x))
        ==> ["2","true","Infinity","1.5",""]
    [d.findAll('count(//a)'), d.findAll('"s"')]    ==> [["2"],["s"]]
    d.findAll('/ | //text() | //comment() | //processing-instruction() | //@x') ==> ["hi","1","hi","2","c","q"]
    d.findAll('//namespace::*').length             ==> 3
    // Relative paths start at the document, or at the node.
    [d.findOne('r').name, d.findOne('a'), n.findOne('a').name, n.findOne('/r').name, n.findOne('.') === n]
        ==> ["r",null,"a","r",false]
    n.children[1].findAll('preceding-sibling::*|..').map(m => m.name) ==> ["r","a"]
    var e = new VXmlDocument(); [e.findAll('//a'), e.findOne('1 + 1'), e.findOne('//a')] ==> [[],"2",null]
    d.findOne(new String('//a'), 'ignored', 3).name ==> "a"
  )js");
}

TEST_F(XmlXPathTest, PrefixesComeFromTheMap) {
  RunTable(R"js(
    var s = new VXmlDocument('<r xmlns="urn:x"><a/></r>'), x = '//s:a', own = {s: new String('urn:x'), 1: 'u', '': 'u'};
    [s.findOne(x, {s: 'urn:x'}).name, s.findOne(x, Object.create(own)).name] ==> ["a","a"]
    [s.findOne(x) === undefined, s.findAll(x), s.findOne(x, {s: 5}), s.findOne(x, {s: 'urn:y'})] ==> [true,[],null,null]
    s.findOne(x, {get s() { throw 'mine'; }})      ==> Uncaught mine
    s.findOne(x, new Proxy({}, {ownKeys() { throw 'mine'; }})) ==> Uncaught mine
  )js");
}

TEST_F(XmlXPathTest, RefusesWrongArguments) {
  RunTable(R"js(
    [[], [5], [null], [{toString() { return '//a'; }}], [['//a']]].filter(a =>
      [() => d.findOne(...a), () => n.findAll(...a)].some(f => fail(f) !== 'Invalid argument')) ==> []
    ['((', '//', '', 'nope()', '$v', '\ud800'].filter(x => d.findOne(x) !== undefined || d.findAll(x).length) ==> []
    // The receiver comes first.
    VXmlDocument.prototype.findOne.call({})        ==> undefined
  )js");
}

TEST_F(XmlXPathTest, NoExpressionRunsAway) {
  RunTable(R"js(
    var big = new VXmlDocument('<r>' + '<a id="1"/>'.repeat(20000) + '</r>'), many = 1e5; ==> undefined
    big.findAll('//a[count(//a) > 1]').length      ==> 0
    big.findAll(Array(20000).fill('//b').join('|')).length ==> 0
    ['(1', '-1', 'a[1', '1+1', 'a/a'].map(x => x.slice(0, -1).repeat(many) + x.slice(-1)).filter(x => {
      d.findOne(x); return d.findAll(x).length > 1; }) ==> []
    // And those that are only long do not suffer.
    d.findOne('(('.repeat(10) + '1' + '))'.repeat(10)) + d.findOne('1' + '+1'.repeat(300)) ==> "1301"
    big.findAll('//a[@id]').length + big.findAll('//a[@id = 1 and position() mod 2 = 0]').length ==> 30000
  )js");
}

TEST_F(XmlXPathTest, DeepExpressionsFitSmallStacks) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer takes too much of a small stack for itself";
#endif
  // Below a script that has used up its stack, on a thread of the smallest size that hosts use.
  OnStack(512 * 1024, [&] {
    Automation other(dir().c_str());
    EXPECT_EQ(other
                  .Run(R"(
        var d = new VXmlDocument('<a><a/></a>'), steps = ['a' + '/a/..'.repeat(1e4), '1' + '+1'.repeat(1e4)];
        function sink() { try { sink(); } catch (e) { steps.map(x => d.findOne(x)); d.toString(); } }
        sink(); d.root.name)",
                       "")
                  .result(),
              "\"a\"");
  });
}

TEST_F(XmlXPathTest, ErrorsGoToTheHandlerThatTheHostHas) {
  EXPECT_EQ(Run("[d.findOne('(('), d.findAll('//p:x').length]"), "[null,0]");
  EXPECT_EQ(*__xmlGenericError(), CountMessage);
  EXPECT_EQ(*__xmlGenericErrorContext(), &messages);
  EXPECT_GE(messages, 2);
  // A document that does not parse is the script's affair.
  messages = 0;
  Fail("new VXmlDocument('<')");
  EXPECT_EQ(messages, 0);
}

TEST(XmlXPathRegisterNs, KeepsItsContract) {
  xmlXPathContext* const context = xmlXPathNewContext(nullptr);
  const auto text = [](const char* s) { return reinterpret_cast<const xmlChar*>(s); };
  const auto add = [&](const char* prefix, const char* uri) {
    return vnjs::xmlXPathRegisterNs(context, text(prefix), text(uri));
  };
  const auto found = [&] {
    const xmlChar* const uri = xmlXPathNsLookup(context, text("p"));
    return std::string(uri == nullptr ? "" : reinterpret_cast<const char*>(uri));
  };
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(nullptr, text("p"), text("u")), -1);
  EXPECT_EQ(add(nullptr, "u"), -1);
  EXPECT_EQ(add("", "u"), -1);
  EXPECT_EQ(add("p", nullptr), -1);
  std::string uri = "u";
  EXPECT_EQ(add("p", uri.c_str()), 0);
  uri = "x";
  EXPECT_EQ(found(), "u") << "a copy";
  EXPECT_EQ(add("p", "v"), 0);
  EXPECT_EQ(found(), "v");
  EXPECT_EQ(add("p", nullptr), 0);
  EXPECT_EQ(found(), "");
  xmlXPathFreeContext(context);
}

}  // namespace
}  // namespace vnjs::testing
