// Results and failures of runs: texts to the letter, hostile scripts, recursion on small stacks, terminated
// isolates.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ExecuteTest : public ScriptTest {};

TEST_F(ExecuteTest, ResultTexts) {
  RunTable(R"js(
    ({a: 1, b: [true, null, 'ä']})                 ==> {"a":1,"b":[true,null,"ä"]}
                                                   ==> undefined
    null                                           ==> null
    -7                                             ==> -7
    NaN                                            ==> null
    (function (a) { return a; })                   ==> function (a) { return a; }
    new Proxy(function () {}, {})                  ==> function () { [native code] }
    // What JSON cannot say.
    Symbol('s')                                    ==>
    'undefined'                                    ==> "undefined"
    var c = {}; c.c = c; c                         ==>
    ({toJSON() { throw new Error('x'); }})         ==>
    new Proxy({}, {ownKeys() { throw 1; }})        ==>
    // The script's own JSON does it, whatever that is.
    Number.prototype.toJSON = function () { return 'n' + this; }; new Number(1) ==> "n1"
    var real = JSON; JSON = {stringify(v) { return this === JSON && real.stringify(v) + '!'; }}; 1 ==> 1!
    JSON = {stringify() { return {toString() { throw 1; }}; }}; 1 ==>
    JSON = {stringify() { throw 1; }}; 1           ==>
    JSON = {stringify: 1}; 1                       ==>
    JSON = null; 1                                 ==>
    Object.defineProperty(this, 'JSON', {get() { throw 1; }}); 1 ==>
  )js");
  EXPECT_EQ(automation->Run(nullptr, "x").result(), "");
  EXPECT_FALSE(automation->Run(nullptr, "x").isException());
  EXPECT_EQ(automation->Run("throw 1", nullptr).position().source, "");
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
  const struct {
    const char* code;
    const char* result;
    int line;
    int column;
  } cases[] = {
      {"\n  throw new Error('x')", "Uncaught Error: x", 2, 3},
      {"throw 'plain'", "Uncaught plain", 1, 1},
      {"throw {}", "Uncaught #<Object>", 1, 1},
      {"var a;\nvar #;", "JavaScript compilation error: Uncaught SyntaxError: Invalid or unexpected token", 2,
       5},
  };
  for (const auto& test : cases) {
    const RunResult result = automation->Run(test.code, "dir/a.js");
    EXPECT_TRUE(result.isException());
    EXPECT_EQ(result.result(), test.result);
    EXPECT_EQ(result.position().source, "dir/a.js");
    EXPECT_EQ(result.position().line, test.line);
    EXPECT_EQ(result.position().column, test.column);
  }
  EXPECT_THAT(LogLines(3),
              ElementsAre("result: Error: Error: x\n    at dir/a.js:2:9", "result: Error: Uncaught plain",
                          "result: Error: Uncaught #<Object>",
                          StartsWith("JavaScript compilation error at dir/a.js:2: SyntaxError: Invalid")));
  EXPECT_EQ(LogLines(4).size(), 1u);
}

TEST_F(ExecuteTest, LogsTheFirstLineOfWhatItRuns) {
  Run("1;\n2;");
  Run("3");
  std::vector<std::string> texts;
  for (const LogLine& line : LinesOf("test"))
    texts.push_back(line.module + std::to_string(line.level) + line.text);
  EXPECT_THAT(texts, ElementsAre("core1Executing script: 1; ...", "core1Executing script: 3"));
}

TEST_F(ExecuteTest, FilesRunUnderTheirPath) {
  folder.Write("f.js", "throw new Error('in file')");
  const RunResult result = automation->RunFile((dir() + "f.js").c_str());
  EXPECT_EQ(result.result(), "Uncaught Error: in file");
  EXPECT_EQ(result.position().source, dir() + "f.js");
  EXPECT_EQ(automation->RunFile(nullptr).result(), "");
  EXPECT_EQ(automation->RunFile(dir().c_str()).result(), "undefined");
  EXPECT_THROW(automation->RunFile((dir() + "none.js").c_str()), VornException);
}

TEST_F(ExecuteTest, ForgedErrors) {
  RunTable(R"js(
    var e = new Error('x'); Object.defineProperty(e, 'stack', {get() { throw 1; }}); throw e ==> Uncaught Error: x
    var e = new Error('x'); e.stack = {toString() { throw 1; }}; throw e ==> Uncaught Error: x
    throw {toString() { throw 1; }}                ==> Uncaught [object Object]
    throw Symbol('s')                              ==> Uncaught Symbol(s)
    throw null                                     ==> Uncaught null
    throw new Proxy({}, {get() { throw 1; }, getPrototypeOf() { throw 2; }}) ==> Uncaught #<Object>
    Object.prototype.toString = Error.prototype.toString = function () { throw 1; };
    null.x                                         ==> Uncaught TypeError: Cannot read properties of null (reading 'x')
  )js");
}

const char* const kRecursions[] = {
    "function f() { f(); } f()",
    "function g() { executeJS('g()'); } g()",
    "var o = {get a() { return this.a; }}; o.a",
    "var p = new Proxy({}, {get(t, k, r) { return r[k]; }}); p.x",
    "var s = {toString() { return '' + this; }}; '' + s",
    "function h() { [1].map(h); } h()",
    "function d() { debugPrint({toString: d}); } d()",
    "var text = '['.repeat(200000); JSON.parse(text)",
    "eval('('.repeat(200000))",
};

// ThreadSanitizer takes so much of a thread's stack for itself that small ones have no room for a script.
#ifdef __SANITIZE_THREAD__
constexpr bool kStacksAreTheirs = false;
#else
constexpr bool kStacksAreTheirs = true;
#endif

TEST_F(ExecuteTest, EndlessRecursionIsAnExceptionOnEveryThread) {
  if (!kStacksAreTheirs) GTEST_SKIP() << "stack sizes mean nothing under ThreadSanitizer";
  for (const size_t kilobytes : {256, 512, 1024, 8192}) {
    OnStack(kilobytes * 1024, [&] {
      for (const char* code : kRecursions) automation->Run(code, "test.js");
      EXPECT_EQ(automation->Run("(function f() { f(); })()", "").result(),
                "Uncaught RangeError: Maximum call stack size exceeded")
          << kilobytes;
    });
  }
  EXPECT_EQ(Run("1+1"), "2");
}

TEST_F(ExecuteTest, EndlessRecursionOnTheWorker) {
  automation->StartThread();
  for (const char* code : kRecursions) automation->Run(code, "test.js");
  EXPECT_EQ(Run("1+1"), "2");
}

/// Deep in the host's own frames less is left of the stack than the engine assumes.
int RunDeep(Automation& automation, int depth) {
  volatile char frame[16 * 1024];
  frame[0] = static_cast<char>(depth);
  if (depth == 0) {
    EXPECT_EQ(automation.Run("(function f() { f(); })()", "").result(),
              "Uncaught RangeError: Maximum call stack size exceeded");
    EXPECT_EQ(automation.Run("1+1", "").result(), "2");
  } else {
    RunDeep(automation, depth - 1);
  }
  return frame[0];
}

TEST_F(ExecuteTest, RecursionBelowDeepHostFrames) {
  if (!kStacksAreTheirs) GTEST_SKIP() << "stack sizes mean nothing under ThreadSanitizer";
  OnStack(2048 * 1024, [&] {
    Run("0");
    RunDeep(*automation, 95);
  });
}

/// A callback that tells the engine to terminate what runs.
class Terminator : public CallbackBase {
 public:
  explicit Terminator(Environment* env) : CallbackBase(env, {}) {}
  void Call() override {
    m_environment->GetIsolate()->TerminateExecution();
    v8::Local<v8::Value> ignored;
    const v8::Local<v8::Context> context = m_environment->GetContext();
    const auto code = v8::String::NewFromUtf8Literal(m_environment->GetIsolate(), "for (;;) {}");
    EXPECT_FALSE(v8::Script::Compile(context, code).ToLocalChecked()->Run(context).ToLocal(&ignored));
  }
};

TEST_F(ExecuteTest, ATerminatedIsolateGivesAnExceptionAndGoesOn) {
  environment()->GetIsolate()->TerminateExecution();
  EXPECT_EQ(Run("1+1"), "2") << "a termination asked for while nothing ran hits nothing";
  Run("function stop() { processPendingCallbacks(); for (;;) {} }");
  for (const char* code : {
           "stop()",
           "try { stop(); } catch (e) {} finally { 1 }",
           "executeJS('stop()'); 5",
           "try { executeJS('stop()'); } catch (e) {} for (;;) {}",
           "debugPrint({toString: stop}); vornVersion = $vornVersion(); for (;;) {}",
           "Promise.resolve().then(stop); 5",
           "({toJSON: stop})",
           "processPendingCallbacks(); debugPrint('went on'); 9",
           "(function f() { f.toString = stop; return f; })()",
           "var json = JSON, n = 0; Object.defineProperty(this, 'JSON', {get: () => n++ ? json : stop()}); 5",
       }) {
    environment()->PushCallback(new Terminator(environment()));
    EXPECT_EQ(Fail(code), "Script execution was interrupted") << code;
    EXPECT_EQ(Run("1+1"), "2");
  }
  environment()->PushCallback(new Terminator(environment()));
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("1+1"), "2");
  EXPECT_THAT(LogLines(), Contains("Callback execution error: Script execution was interrupted"));
  EXPECT_THAT(LogLines(), Not(Contains("went on")));
}

TEST_F(ExecuteTest, PromisesSettleWhenTheRunEnds) {
  Run("var log = []; (async function () { log.push('a'); await null; log.push('c'); })(); log.push('b')");
  EXPECT_EQ(Run("log"), R"(["a","b","c"])");
  Run("({toJSON() { Promise.resolve().then(() => debugPrint('later')); return 1; }})");
  // Handled before the run ends, so nobody needs to hear of it.
  Run("for (let i = 0; i < 500; i++) Promise.reject(i).catch(() => {}); Promise.reject(1).then(2).then(3, () "
      "=> {}); 0");
  EXPECT_THAT(LogLines(), ElementsAre("later"));
  Run("Promise.reject(new Error('lost')); 0", "lost.js");
  Run("(async () => { throw 'text'; })(); 0");
  Run("var e = new Error('forged'); Object.defineProperty(e, 'stack', {get() { throw 1; }}); "
      "Promise.reject(e); 0");
  Run("executeJS('var q = Promise.reject(1); 0'); q.catch(() => {}); 0");
  Run("1");
  EXPECT_THAT(LogLines(3),
              ElementsAre("Unhandled promise rejection: Error: lost\n    at lost.js:1:16",
                          "Unhandled promise rejection: text", "Unhandled promise rejection: Error: forged"));
}

TEST_F(ExecuteTest, RejectionsAreReportedAfterEachCallbackAndAFloodIsCut) {
  Run("setTimeout(() => { Promise.reject('first'); }, 0); setTimeout(() => { debugPrint('second'); }, 0)");
  automation->ProcessPendingCallbacks();
  EXPECT_THAT(LogLines(), ElementsAre("Unhandled promise rejection: first", "second"));
  Run("for (let i = 0; i < 1000; i++) Promise.reject(i); 0");
  EXPECT_EQ(LogLines(3).size(), 1 + 21u);
  EXPECT_EQ(LogLines(3).back(), "980 more unhandled promise rejections");
}

}  // namespace
}  // namespace vnjs::testing
