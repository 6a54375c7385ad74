// Core functions: exact texts, nested code, the version record, and scripts that go on after exit().
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::Contains;
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
  RunTable(R"js(
    [executeJS(), executeJS(''), executeJS(null)]  ==> [null,null,null]
    executeJS('\'a\'')                             ==> "\"a\""
    executeJS('undefined')                         ==> "undefined"
    executeJS('var inner = 7'); inner              ==> 7
    executeJS({toString() { return '2+3'; }})      ==> "5"
    executeJS('throw new TypeError(1)', 'mine.js') ==> Uncaught Error: Uncaught TypeError: 1
    executeJS('var #')
        ==> Uncaught Error: JavaScript compilation error: Uncaught SyntaxError: Invalid or unexpected token
    executeJS('executeJS(\'throw 1\')')            ==> Uncaught Error: Uncaught Error: Uncaught 1
  )js");
  EXPECT_THAT(LogLines(3), Contains(HasSubstr("TypeError: 1\n    at mine.js:1:7")));
}

TEST_F(CoreTest, ExecuteFile) {
  folder.Write("inner.js", "var fromFile = 3; [fromFile]");
  folder.Write("bad.js", "\n throw new Error('bad')");
  RunTable(R"js(
    [executeFile(), executeFile('')]               ==> [null,null]
    executeFile('inner.js') + fromFile             ==> "[3]3"
    executeFile('storage')                         ==> "undefined"
    executeFile('bad.js')                          ==> Uncaught Error: Uncaught Error: bad
  )js");
  EXPECT_EQ(Fail("executeFile('none.js')"),
            "Uncaught Error: Failed to open file: " + dir() + "none.js No such file or directory");
  EXPECT_THAT(LogLines(3), Contains(HasSubstr("at " + dir() + "bad.js:2:8")));
}

TEST_F(CoreTest, VersionRecord) {
  EXPECT_EQ(Run("[Object.keys(vornVersion), $vornVersion() !== $vornVersion()]"),
            R"([["release","date","commit"],true])");
  EXPECT_THAT(Run("vornVersion.release"), MatchesRegex(R"re("v[0-9]+\.[0-9]+\.[0-9]+")re"));
  EXPECT_THAT(Run("vornVersion.date"), MatchesRegex(R"re("[0-9-]{10} [0-9:]{8} [+-][0-9]{4}")re"));
  EXPECT_THAT(Run("vornVersion.commit"), MatchesRegex(R"re("[0-9a-f]{40}")re"));
}

TEST_F(CoreTest, EvalPath) {
  RunTable(R"js(
    var a = {b: {c: 5, zero: 0}};                  ==> undefined
    evalPath('') === this                          ==> true
    evalPath('Math.PI') === Math.PI                ==> true
    ['a.b.c', '.a..b.c.', 'a.b.zero.x', 'none.x', 'a.b.c.x'].map(evalPath) ==> [5,5,0,null,null]
  )js");
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
