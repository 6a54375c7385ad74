// Core functions: exact texts, nested code, the version record, and scripts that go on after exit().
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class CoreTest : public ScriptTest {};

TEST_F(CoreTest, GlobalsAreFunctionsWithoutPrototype) {
  for (const char* name :
       {"exit", "debugPrint", "processPendingCallbacks", "executeJS", "executeFile", "$vornVersion",
        "evalPath", "setTimeout", "clearTimeout", "setInterval", "clearInterval"}) {
    const std::string text(name);
    EXPECT_EQ(Run("[typeof " + text + ", " + text + ".name, 'prototype' in " + text + "]"),
              "[\"function\",\"" + text + "\",false]");
  }
  EXPECT_EQ(Run("[global === this, Object.keys(this).indexOf('global')]"), "[true,-1]");
}

TEST_F(CoreTest, DebugPrint) {
  Run("debugPrint(1, 'a', null); debugPrint(); debugPrint(undefined, undefined); debugPrint({}, [1, 2])");
  Run("debugPrint({toString() { throw 1; }}, 'b'); debugPrint(Symbol('s')); debugPrint('50%s %n')");
  EXPECT_THAT(LogLines(), ElementsAre("1 a ", " ", "[object Object] 1,2", " b", "", "50%s %n"));
}

TEST_F(CoreTest, ExecuteJS) {
  RunAll({
      {"executeJS()", "undefined"},
      {"executeJS('')", "undefined"},
      {"executeJS(null)", "undefined"},
      {"executeJS('1+1')", "\"2\""},
      {"executeJS('\\'a\\'')", R"("\"a\"")"},
      {"executeJS('undefined')", "\"undefined\""},
      {"executeJS('var inner = 7'); inner", "7"},
      {"try { executeJS('throw new TypeError(\\'x\\')', 't') } catch (e) { [e.constructor === Error, "
       "e.message] }",
       R"([true,"Uncaught TypeError: x"])"},
      {"try { executeJS('var #', 't') } catch (e) { e.message }",
       "\"JavaScript compilation error: Uncaught SyntaxError: Invalid or unexpected token\""},
      {"executeJS({toString() { return '2+3'; }})", "\"5\""},
      {"try { executeJS('executeJS(\\'throw 1\\')') } catch (e) { e.message }",
       "\"Uncaught Error: Uncaught 1\""},
  });
}

TEST_F(CoreTest, ExecuteFile) {
  folder.Write("inner.js", "var fromFile = 3; [fromFile]");
  folder.Write("bad.js", "\n throw new Error('bad')");
  RunAll({
      {"executeFile()", "undefined"},
      {"executeFile('')", "undefined"},
      {"executeFile('inner.js') + fromFile", "\"[3]3\""},
      {"executeFile('storage')", "\"undefined\""},
      {"try { executeFile('bad.js') } catch (e) { e.message }", "\"Uncaught Error: bad\""},
  });
  EXPECT_EQ(Run("try { executeFile('none.js') } catch (e) { e.message }"),
            "\"Failed to open file: " + dir() + "none.js No such file or directory\"");
  EXPECT_THAT(LogLines(3), ElementsAre(HasSubstr("at " + dir() + "bad.js:2:8")));
}

TEST_F(CoreTest, VersionRecord) {
  EXPECT_EQ(Run("[Object.keys(vornVersion), $vornVersion() !== $vornVersion()]"),
            R"([["release","date","commit"],true])");
  EXPECT_THAT(Run("vornVersion.release"), MatchesRegex(R"re("v[0-9]+\.[0-9]+\.[0-9]+")re"));
  EXPECT_THAT(Run("vornVersion.date"), MatchesRegex(R"re("[0-9-]{10} [0-9:]{8} [+-][0-9]{4}")re"));
  EXPECT_THAT(Run("vornVersion.commit"), MatchesRegex(R"re("[0-9a-f]{40}")re"));
}

TEST_F(CoreTest, EvalPath) {
  Run("var a = {b: {c: 5, zero: 0}}");
  RunAll({
      {"evalPath('') === this", "true"},
      {"evalPath('Math.PI') === Math.PI", "true"},
      {"evalPath('a.b.c')", "5"},
      {"evalPath('.a..b.c.')", "5"},
      {"evalPath('a.b.zero.x')", "0"},
      {"evalPath('none.x')", "undefined"},
      {"evalPath('a.b.c.x')", "undefined"},
  });
}

TEST_F(CoreTest, AScriptGoesOnAfterExit) {
  EXPECT_EQ(Run("var ran = false; var before = exit(1, 2);"
                "var ids = [setTimeout(function () { ran = true; }, 0), setTimeout(function () {}, 1),"
                "           setInterval(function () {}, 1)];"
                "clearTimeout(ids[1]); clearInterval(ids[2]); clearTimeout(99); processPendingCallbacks();"
                "[before, ids, executeJS('1'), ran]"),
            R"([null,[1,1,1],"1",false])");
  EXPECT_TRUE(automation->IsTerminating());
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_EQ(Run("ran"), "false");
  EXPECT_THAT(LogLines(3), IsEmpty());
}

}  // namespace
}  // namespace vnjs::testing
