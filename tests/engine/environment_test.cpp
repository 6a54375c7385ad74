// Life and end of environments: the worker, callers that wait while it ends, callbacks and script values that
// outlive their environment, loggers, and many environments at once.
#include <atomic>
#include <thread>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class EnvironmentTest : public ScriptTest {
 protected:
  /// A script value, taken under the isolate's lock and held by whoever takes the pointer.
  VRefCountedPointer<SafeValue> Value(const char* code) {
    const Inside inside(environment());
    return SafeValue::New(inside.isolate, inside.Eval(code));
  }

  void Push(const char* code);
};

/// Calls its function, and counts how many of its kind are alive.
class CountedCallback : public CallbackBase {
 public:
  CountedCallback(Environment* env, VRefCountedPointer<SafeValue> function) : CallbackBase(env, function) {
    ++alive;
  }
  ~CountedCallback() override { --alive; }
  void Call() override {
    const v8::Local<v8::Value> function = m_callback->GetValue();
    const v8::Local<v8::Context> context = m_environment->GetContext();
    v8::Local<v8::Value> ignored;
    if (!function.As<v8::Function>()->Call(context, context->Global(), 0, nullptr).ToLocal(&ignored)) return;
  }
  static std::atomic<int> alive;
};
std::atomic<int> CountedCallback::alive{0};

void EnvironmentTest::Push(const char* code) {
  environment()->PushCallback(new CountedCallback(environment(), Value(code)));
}

TEST_F(EnvironmentTest, StorageDirEndsInOneSlash) {
  EXPECT_EQ(automation->StorageDir(), dir());
  EXPECT_EQ(Automation(dir().substr(0, dir().size() - 1).c_str()).StorageDir(), dir());
  EXPECT_EQ(Automation("").StorageDir(), "/");
}

TEST_F(EnvironmentTest, OwnsItsLogger) {
  const int before = OpenLoggers();
  automation->SetLogger(automation->GetLogger());
  EXPECT_EQ(OpenLoggers(), before);
  automation->SetLogger(NewLogger("second"));
  EXPECT_EQ(OpenLoggers(), before);
  automation->SetLogger(nullptr);
  EXPECT_EQ(OpenLoggers(), before - 1);
  environment()->Log(2, "made on first use", "m");
  EXPECT_THAT(LinesOf("default").back().text, "made on first use");
  EXPECT_EQ(LinesOf("default").back().module, "m");
  automation.reset();
  EXPECT_EQ(OpenLoggers(), before - 1);
}

TEST_F(EnvironmentTest, CallbacksRunInOrderAndLaterOnesWait) {
  Run("var order = ''");
  Push(
      "(function () { order += 'a'; setTimeout(function () { order += 'd'; }, 0); throw new Error('cb'); })");
  Push("(function () { order += 'b'; throw 'text'; })");
  Push("(function () { order += 'c'; })");
  EXPECT_TRUE(automation->HasPendingWork());
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("order"), "\"abc\"");
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("order"), "\"abcd\"");
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(CountedCallback::alive, 0);
  EXPECT_THAT(LogLines(3), ElementsAre(HasSubstr("Callback execution error: Error: cb\n    at"),
                                       "Callback execution error: Uncaught text"));
}

TEST_F(EnvironmentTest, CallbacksRunInsideTheScriptThatAsksForThem) {
  folder.Write(
      "inner.js",
      "setTimeout(function () { order += 'i'; processPendingCallbacks(); }, 0); processPendingCallbacks();");
  Run("var order = ''; setTimeout(function () { order += 'o'; executeFile('inner.js'); order += 'p'; }, 0);"
      "processPendingCallbacks(); order += 'e';");
  EXPECT_EQ(Run("order"), "\"oipe\"");
}

TEST_F(EnvironmentTest, ScriptsOfOtherThreadsRunWhileAScriptPumps) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&] {
      while (!stop) automation->Run("counter++; (function f(n) { return n && f(n - 1); })(50)", "");
    });
  }
  Run("var counter = 0; var pumped = 0");
  Run("setInterval(function () { pumped++; executeJS('processPendingCallbacks()'); }, 1);"
      "while (counter < 20 || pumped < 5) { processPendingCallbacks(); }");
  stop = true;
  for (std::thread& other : others) other.join();
}

TEST_F(EnvironmentTest, PendingCallbacksAreDroppedAtTheEnd) {
  Push("(function () {})");
  Run("exit()");
  Push("(function () {})");
  EXPECT_EQ(CountedCallback::alive, 1) << "refused and dropped";
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  automation.reset();
  EXPECT_EQ(CountedCallback::alive, 0);
}

TEST_F(EnvironmentTest, ScriptValuesDropOnAnyThreadAndAfterTheEnd) {
  EXPECT_TRUE(Value("null").is_empty());
  EXPECT_TRUE(Value("undefined").is_empty());
  Run("var alive = 0; var registry = new FinalizationRegistry(function () { alive--; });"
      "function make() { var o = {}; alive++; registry.register(o, 0); return o; }");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    std::vector<VRefCountedPointer<SafeValue>> values;
    for (int k = 0; k < 50; ++k) values.push_back(Value("make()"));
    threads.emplace_back([values = std::move(values)]() mutable {
      for (auto& value : values) value = nullptr;
    });
  }
  for (int i = 0; i < 100; ++i) Run("for (var t = [], k = 0; k < 1000; k++) t.push({})");
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(WaitUntil([&] {
    automation->ProcessPendingCallbacks();
    CollectGarbage(environment());
    return Run("alive") == "0";
  }));

  VRefCountedPointer<SafeValue> late = Value("({})");
  automation.reset();
  EXPECT_TRUE(late->GetValue().IsEmpty());
  std::thread([&] { late = nullptr; }).join();
}

TEST_F(EnvironmentTest, TheWorkerRunsCodeAndCallbacks) {
  automation->StartThread();
  automation->StartThread();
  EXPECT_TRUE(automation->IsThreaded());
  EXPECT_EQ(Run("var n = 0; setInterval(function () { n++; }, 5); executeJS('1+1')"), "\"2\"");
  EXPECT_TRUE(WaitUntil([&] { return Run("n > 3") == "true"; }));
  EXPECT_EQ(Fail("throw new Error('x')"), "Uncaught Error: x");
  std::atomic<int> sum{0};
  AtOnce(8, [&](int i) { sum += std::stoi(automation->Run(std::to_string(i).c_str(), "").result()); });
  EXPECT_EQ(sum, 28);
  automation->StopThread();
  EXPECT_FALSE(automation->IsThreaded());
  EXPECT_TRUE(automation->IsTerminating());
  EXPECT_EQ(Run("n > 3"), "true") << "runs on the caller's thread again";
  automation->StartThread();
  EXPECT_FALSE(automation->IsTerminating());
  EXPECT_EQ(Run("1"), "1");
}

TEST_F(EnvironmentTest, ACallerGivesUpAfterTenSeconds) {
  automation->StartThread();
  EXPECT_EQ(Fail("var end = Date.now() + 13000; while (Date.now() < end); var done = 1;"),
            "Code took too long to return result");
  EXPECT_TRUE(WaitUntil([&] { return Run("done") == "1"; })) << "the code itself ran to its end";
}

TEST_F(EnvironmentTest, EndsWhileTheWorkerRunsAndCallersWait) {
  automation->StartThread();
  std::vector<std::thread> callers;
  std::atomic<int> returned{0};
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      automation->Run("var end = Date.now() + 300; while (Date.now() < end);", "");
      ++returned;
    });
  }
  usleep(50000);
  Push("(function () {})");
  const auto begin = std::chrono::steady_clock::now();
  automation.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(returned, 4);
}

TEST_F(EnvironmentTest, EndsWhileNamedThreadsRunScriptsAgainAndAgain) {
  const auto spin = [](VRefCountedPointer<Thread> self) {
    while (!self->IsTerminating())
      self->GetEnvironment()->Run("var end = Date.now() + 20; while (Date.now() < end);", "");
    return 0;
  };
  environment()->CreateThread("first", spin, nullptr);
  environment()->CreateThread("second", spin, nullptr);
  usleep(50000);
  const auto begin = std::chrono::steady_clock::now();
  automation.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(EnvironmentTest, AScriptMayStopAndStartItsOwnWorker) {
  struct Restart : CallbackBase {
    explicit Restart(Automation* automation)
        : CallbackBase(automation->GetEnvironment(), {}), automation(automation) {}
    void Call() override {
      automation->StopThread();
      automation->StartThread();
    }
    Automation* const automation;
  };
  automation->StartThread();
  environment()->PushCallback(new Restart(automation.get()));
  EXPECT_EQ(Run("1+1"), "2");
  EXPECT_TRUE(automation->IsThreaded());
}

TEST_F(EnvironmentTest, ManyOneAfterTheOtherAndTwentyTogether) {
  for (int i = 0; i < 300; ++i) {
    Automation one(dir().c_str());
    if (i % 3 == 0) continue;
    one.SetLogger(NewLogger("many"));
    if (i % 50 == 1) one.StartThread();
    ASSERT_EQ(one.Run("1+1", "").result(), "2");
  }
  AtOnce(20, [&](int i) {
    Automation one(dir().c_str());
    one.SetLogger(NewLogger("many" + std::to_string(i)));
    if (i % 2) one.StartThread();
    const char* const code =
        "setTimeout(function () {}, 1); for (var a = []; a.length < 1e5;) a.push({}); a.length";
    EXPECT_EQ(one.Run(code, "").result(), "100000");
  });
}

TEST_F(EnvironmentTest, BuffersAreZeroAndTooLargeOnesAreRangeErrors) {
  EXPECT_EQ(Run("var zero = true; for (var i = 0; i < 50; i++) { var b = new Uint8Array(4096);"
                "if (b.some(function (x) { return x; })) zero = false; b.fill(255); } zero"),
            "true");
  EXPECT_THAT(Fail("new ArrayBuffer(1e15)"),
              HasSubstr("Uncaught RangeError: Array buffer allocation failed"));
}

}  // namespace
}  // namespace vnjs::testing
