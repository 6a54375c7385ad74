// Results and failures of runs: texts to the letter, scripts run again, recursion on small stacks, terminated isolates,
// promises.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class ExecuteTest : public ScriptTest {};

TEST_F(ExecuteTest, ResultTexts) {
  RunTable(R"js(
    ({a: 1, b: [true, null, 'ä']})                 ==> {"a":1,"b":[true,null,"ä"]}
                                                   ==> undefined
    null                                           ==> null
    (function (a) { return a; })                   ==> function (a) { return a; }
    // What JSON cannot say.
    Symbol('s')                                    ==>
    'undefined'                                    ==> "undefined"
    new Proxy({}, {ownKeys() { throw 1; }})        ==>
    // Buffers begin as zeros, whatever was in their memory.
    Array(50).fill().some(() => new Uint8Array(4096).some(byte => byte) || !new Uint8Array(4096).fill(255)) ==> false
    // The script's own JSON does it, whatever that is.
    var real = JSON; JSON = {stringify(v) { return this === JSON && real.stringify(v) + '!'; }}; 1 ==> 1!
    JSON = {stringify() { return {toString() { throw 1; }}; }}; 1 ==>
    JSON = {stringify: 1}; 1                       ==>
    JSON = null; 1                                 ==>
  )js");
  EXPECT_EQ(automation->Run(nullptr, "x").result(), "");
  EXPECT_EQ(automation->RunFile(nullptr).result(), "");
  EXPECT_EQ(automation->RunFile(dir().c_str()).result(), "undefined");
  EXPECT_THROW(automation->RunFile((dir() + "none.js").c_str()), VornException);
}

TEST_F(ExecuteTest, TheSameTextRunsAnewEachTime) {
  for (int i = 1; i <= 3; ++i)
    EXPECT_EQ(Run("var n = (typeof n === 'number' ? n : 0) + 1; [n]"), "[" + std::to_string(i) + "]");
  const char* const place =
      "(function () { try { null.x } catch (e) { return e.stack.split('\\n')[1].trim() } })()";
  for (const std::string source : {"one.js", "two.js", "two.js", "one.js", "two.js"})
    EXPECT_EQ(Run(place, source.c_str()), "\"at " + source + ":1:27\"");
  Run("let once = 1");
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(Fail("let once = 1"), HasSubstr("'once' has already been declared"));
  // More texts than are kept compiled, twice round.
  for (int i = 0; i < 200; ++i) EXPECT_EQ(Run("(" + std::to_string(i % 100) + ")"), std::to_string(i % 100));
}

TEST_F(ExecuteTest, ExceptionsAreTextsWithTheirPlaceAndLogLines) {
  const auto fail = [this](const char* code, const char* source = "a.js") {
    const RunResult result = automation->Run(code, source);
    EXPECT_TRUE(result.isException());
    const ScriptPosition& at = result.position();
    return result.result() + " " + at.source + ":" + std::to_string(at.line) + ":" +
           std::to_string(at.column);
  };
  EXPECT_EQ(fail("\n  throw new Error('x')"), "Uncaught Error: x a.js:2:3");
  EXPECT_EQ(fail("throw {toString() { throw 1; }}"), "Uncaught [object Object] a.js:1:1");
  EXPECT_EQ(fail("throw new Proxy({}, {get() { throw 1; }})"), "Uncaught #<Object> a.js:1:1");
  EXPECT_EQ(fail("e = Error('y'); e.stack = Symbol(); throw e", nullptr), "Uncaught Error: y :1:37");
  EXPECT_EQ(fail("var #;"),
            "JavaScript compilation error: Uncaught SyntaxError: Invalid or unexpected token a.js:1:5");
  EXPECT_THAT(
      LogLines(3),
      ElementsAre("result: Error: Error: x\n    at a.js:2:9", "result: Error: Uncaught [object Object]",
                  "result: Error: Uncaught #<Object>", "result: Error: Uncaught Error: y",
                  StartsWith("JavaScript compilation error at a.js:1: SyntaxError: Invalid")));
  EXPECT_EQ(LogLines(4).size(), 1u);
}

TEST_F(ExecuteTest, EndlessRecursionIsAnExceptionOnEveryThread) {
  const auto recurse = [this] {
    for (const char* code : {
             "function g() { executeJS('g()'); } g()",
             "var p = new Proxy({}, {get(t, k, r) { return r[k]; }}); p.x",
             "function d() { debugPrint({toString: d}); } d()",
             "JSON.parse('['.repeat(200000))",
             "eval('('.repeat(200000))",
         })
      automation->Run(code, "");
    EXPECT_EQ(Fail("(function f() { f(); })()"), "Uncaught RangeError: Maximum call stack size exceeded");
    EXPECT_EQ(Run("1+1"), "2");
  };
  for (const size_t kilobytes : {256, 512, 1024, 8192}) OnStack(kilobytes * 1024, recurse);
  // Deep in the host's own frames less is left of the stack than the engine assumes.
  OnStack(2048 * 1024, [&] {
    *static_cast<volatile char*>(alloca(95 * 16 * 1024)) = 0;
    recurse();
  });
  automation->StartThread();
  recurse();
}

TEST_F(ExecuteTest, ATerminatedIsolateGivesAnExceptionAndGoesOn) {
  environment()->GetIsolate()->TerminateExecution();
  EXPECT_EQ(Run("1+1"), "2") << "a termination asked for while nothing ran hits nothing";
  Run("function stop() { processPendingCallbacks(); for (;;) {} }");
  const auto terminate = [this] {
    const Inside inside(environment());
    inside.isolate->TerminateExecution();
    v8::Local<v8::Value> ignored;
    const auto code = v8::String::NewFromUtf8Literal(inside.isolate, "for (;;) {}");
    const auto script = v8::Script::Compile(inside.context, code).ToLocalChecked();
    EXPECT_FALSE(script->Run(inside.context).ToLocal(&ignored));
  };
  for (const char* code : {
           "try { executeJS('stop()'); } catch (e) {} for (;;) {}",
           "debugPrint({toString: stop}); vornVersion = $vornVersion(); for (;;) {}",
           "Promise.resolve().then(stop); 5",
           "({toJSON: stop})",
           "processPendingCallbacks(); debugPrint('went on'); 9",
           "(function f() { f.toString = stop; return f; })()",
           "var json = JSON, n = 0; Object.defineProperty(this, 'JSON', {get: () => n++ ? json : stop()}); 5",
       }) {
    Push(terminate);
    EXPECT_EQ(Fail(code), "Script execution was interrupted") << code;
    EXPECT_EQ(Run("1+1"), "2");
  }
  Push(terminate);
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_THAT(LogLines(), Contains("Callback execution error: Script execution was interrupted"));
  EXPECT_THAT(LogLines(), Not(Contains("went on")));
}

TEST_F(ExecuteTest, PromisesSettleWhenTheRunEndsAndRejectionsAreReported) {
  Run("var log = []; (async function () { log.push('a'); await null; log.push('c'); })(); log.push('b')");
  EXPECT_EQ(Run("log"), R"(["a","b","c"])");
  Run("({toJSON() { Promise.resolve().then(() => debugPrint('later')); return 1; }})");
  // Handled before the run ends, so nobody needs to hear of it.
  Run("for (let i = 0; i < 500; i++) Promise.reject(i).catch(() => {}); 0");
  Run("executeJS('var q = Promise.reject(1); 0'); q.catch(() => {}); 0");
  Run("Promise.reject(new Error('lost')); 0", "lost.js");
  Run("var e = Error('forged'); Object.defineProperty(e, 'stack', {get() { throw 1; }}); Promise.reject(e)");
  Run("setTimeout(() => { Promise.reject('first'); }, 0); setTimeout(() => { debugPrint('second'); }, 0)");
  automation->ProcessPendingCallbacks();
  EXPECT_THAT(LogLines(),
              ElementsAre("later", "Unhandled promise rejection: Error: lost\n    at lost.js:1:16",
                          "Unhandled promise rejection: Error: forged", "Unhandled promise rejection: first",
                          "second"));
  Run("for (let i = 0; i < 1000; i++) Promise.reject(i); 0");
  EXPECT_EQ(LogLines(3).size(), 3 + 21u);
  EXPECT_EQ(LogLines(3).back(), "980 more unhandled promise rejections");
}

}  // namespace
}  // namespace vnjs::testing
