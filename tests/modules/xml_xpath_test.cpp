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
  RunAll({
      {"[d.findOne('//a').attributes.x, d.findAll('//a').length, d.findOne('//b'), d.findAll('//b')]",
       R"(["1",2,null,[]])"},
      {"[d.findOne('//a/attribute::x'), d.findAll('//a/@x')]", R"(["1",["1","2"]])"},
      {"[d.findOne('count(//a)'), d.findAll('count(//a)'), d.findOne('boolean(//a)'), d.findOne('1 div 0'), "
       "d.findOne('0 div 0'), d.findOne('1.50'), d.findOne('string(//b)'), d.findAll('\"s\"')]",
       R"(["2",["2"],"true","Infinity","NaN","1.5","",["s"]])"},
      {"d.findAll('/ | //text() | //comment() | //processing-instruction() | "
       "//@x').concat(d.findAll('//namespace::*').length)",
       R"(["hi","1","hi","2","c","q",3])"},
      {"[d.findOne('r').name, d.findOne('a'), n.findOne('a').name, n.findOne('/r').name, n.findOne('.') === "
       "n]",
       R"(["r",null,"a","r",false])"},
      {"[d.findOne('//a[2]/preceding::text()'), n.children[1].findAll('preceding-sibling::*|..').map(m => "
       "m.name)]",
       R"(["hi",["r","a"]])"},
      {"var e = new VXmlDocument(); [e.findAll('//a'), e.findOne('1 + 1'), e.findOne('//a')]",
       R"([[],"2",null])"},
      {"d.findOne(new String('//a'), 'ignored', 3).name", R"("a")"},
  });
}

TEST_F(XmlXPathTest, PrefixesComeFromTheMap) {
  RunAll({
      {"var s = new VXmlDocument('<r xmlns=\"urn:x\"><a/></r>'); s.findOne('//s:a', {s: 'urn:x'}).name",
       R"("a")"},
      {"[s.findOne('//s:a'), s.findAll('//s:a'), s.findOne('//s:a', {s: 5}), s.findOne('//s:a', {s: "
       "'urn:y'})]",
       R"([null,[],null,null])"},
      {"s.findOne('//s:a') === undefined", "true"},
      {"s.findOne('//s:a', Object.create({s: new String('urn:x'), 1: 'urn:x', '': 'urn:x'})).name", R"("a")"},
      {"[{get s() { throw new Error('mine'); }}, new Proxy({}, {ownKeys() { throw new Error('mine'); "
       "}})].map(m => "
       "fail(() => s.findOne('//s:a', m)))",
       R"(["mine","mine"])"},
  });
}

TEST_F(XmlXPathTest, RefusesWrongArguments) {
  RunAll({
      {"[[], [5], [null], [{toString() { return '//a'; }}], [['//a']]].map(a => [fail(() => "
       "d.findOne(...a)), "
       "fail(() => n.findAll(...a))]).flat().filter(m => m != 'Invalid argument')",
       "[]"},
      {"['((', '//', '', 'nope()', '$v', 'a[', '\\x01', '\\ud800'].filter(x => d.findOne(x) !== undefined || "
       "d.findAll(x).length)",
       "[]"},
      // The receiver comes first.
      {"VXmlDocument.prototype.findOne.call({})", "undefined"},
  });
}

TEST_F(XmlXPathTest, NoExpressionRunsAway) {
  Run("var big = new VXmlDocument('<r>' + '<a id=\"1\"/>'.repeat(20000) + '</r>');");
  RunAll({
      {"big.findAll('//a[count(//a) > 1]').length", "0"},
      {"big.findAll('//a[preceding-sibling::a[preceding-sibling::a[preceding-sibling::a]]]').length > 20000",
       "false"},
      {"big.findAll(Array(20000).fill('//b').join('|')).length", "0"},
      {"['('.repeat(1e5) + '1', '-'.repeat(1e5) + '1', 'a['.repeat(1e5), '1' + '+1'.repeat(1e5), 'a' + "
       "'/a'.repeat(1e5), "
       "'string('.repeat(1e5), 'a' + '[1]'.repeat(1e5)].filter(x => { d.findOne(x); return "
       "d.findAll(x).length > 1; })",
       "[]"},
      // And those that are only long do not suffer.
      {"d.findOne('(('.repeat(10) + '1' + '))'.repeat(10)) + d.findOne('1' + '+1'.repeat(300))", R"("1301")"},
      {"big.findAll('//a[@id]').length + big.findAll('//a[@id = 1 and position() mod 2 = 0]').length",
       "30000"},
  });
}

TEST_F(XmlXPathTest, DeepExpressionsFitSmallStacks) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer takes too much of a small stack for itself";
#endif
  // Below a script that has used up its stack, on a thread of the smallest size that hosts use.
  automation.reset();
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 512 * 1024);
  pthread_t thread{};
  ASSERT_EQ(pthread_create(
                &thread, &attributes,
                [](void* folder) -> void* {
                  Automation other(static_cast<TemporaryFolder*>(folder)->path().c_str());
                  EXPECT_EQ(
                      other
                          .Run("var d = new VXmlDocument('<a><a/></a>'); function sink() { try { sink(); } "
                               "catch (e) "
                               "{ d.findOne('a' + '/a/..'.repeat(1e4)); d.findOne('a' + '[1'.repeat(1e4)); "
                               "d.findOne('1' + '+1'.repeat(1e4)); d.toString(); } } sink(); d.root.name",
                               "test.js")
                          .result(),
                      "\"a\"");
                  return nullptr;
                },
                &folder),
            0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
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
  const auto text = [](const char* s) { return reinterpret_cast<const xmlChar*>(s); };
  xmlXPathContext* const context = xmlXPathNewContext(nullptr);
  const auto found = [&](const char* prefix) {
    const xmlChar* const uri = xmlXPathNsLookup(context, text(prefix));
    return std::string(uri == nullptr ? "" : reinterpret_cast<const char*>(uri));
  };
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(nullptr, text("p"), text("u")), -1);
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, nullptr, text("u")), -1);
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, text(""), text("u")), -1);
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, text("p"), nullptr), -1);
  std::string uri = "u";
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, text("p"), text(uri.c_str())), 0);
  uri = "x";
  EXPECT_EQ(found("p"), "u");
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, text("p"), text("v")), 0);
  EXPECT_EQ(found("p"), "v");
  EXPECT_EQ(vnjs::xmlXPathRegisterNs(context, text("p"), nullptr), 0);
  EXPECT_EQ(found("p"), "");
  xmlXPathFreeContext(context);
}

}  // namespace
}  // namespace vnjs::testing
