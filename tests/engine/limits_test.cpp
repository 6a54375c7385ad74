// The end of scripts that do not end by themselves: interrupts that hit the wrong script or none, limits that stay raised
// or charge what is long gone, environments that cannot be destroyed.
#include <vnjs/error.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr char kInterrupted[] = "Script execution was interrupted";
constexpr char kOutOfMemory[] = "Script ran out of memory";
constexpr size_t kMegabyte = 1024 * 1024;

/// Interrupts again and again, from a thread of its own and from so long on, until the end of the scope.
class Interrupting {
 public:
  explicit Interrupting(Automation* automation, milliseconds wait = milliseconds(0))
      : m_thread([this, automation, wait] {
          std::this_thread::sleep_for(wait);
          for (; !m_done; std::this_thread::sleep_for(milliseconds(1))) automation->Interrupt();
        }) {}
  ~Interrupting() {
    m_done = true;
    m_thread.join();
  }

 private:
  std::atomic<bool> m_done{false};
  std::thread m_thread;
};

class LimitsTest : public ScriptTest {
 protected:
  v8::HeapStatistics Heap() {
    v8::HeapStatistics statistics;
    Inside(environment()).isolate->GetHeapStatistics(&statistics);
    return statistics;
  }
};

TEST_F(LimitsTest, InterruptsTellWhereAndHitNothingThatComesLater) {
  automation->Interrupt();
  EXPECT_EQ(Run("1+1"), "2");
  RunResult result;
  {
    const Interrupting interrupting(automation.get(), milliseconds(500));
    result = automation->Run("var n = 0;\nfunction spin() {\n  for (;;) n++;\n}\nspin();", "spin.js");
  }
  EXPECT_TRUE(result.isException());
  EXPECT_EQ(result.result(), kInterrupted);
  EXPECT_EQ(result.position().source, "spin.js");
  EXPECT_EQ(result.position().line, 3);
  EXPECT_THAT(LogLines(3),
              Contains(HasSubstr("result: Error: Script execution was interrupted at spin.js:3:")));

  // In the midst of them each script ends as it should, or as interrupted, and those that come afterwards are whole.
  {
    const Interrupting interrupting(automation.get());
    for (int i = 0; i < 2000; ++i) {
      EXPECT_THAT(automation->Run("[1, 2].map(n => n + 1).length", "x").result(), AnyOf("2", kInterrupted));
    }
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(Run("[1, 2].map(n => n + 1).length"), "2");
}

TEST_F(LimitsTest, AnInterruptTakesTheMicrotasksOfItsScriptAndNoOthers) {
  Run("var ran = []; var later; new Promise(r => { later = r; }).then(() => ran.push('kept'))");
  {
    const Interrupting interrupting(automation.get());
    Fail("Promise.resolve().then(() => ran.push('dropped')); for (;;);");
  }
  EXPECT_EQ(Run("later(); 0"), "0");
  EXPECT_EQ(Run("ran"), R"(["kept"])");
}

TEST_F(LimitsTest, AnInterruptKillsAShellCommandAndItsScript) {
  folder.Write(".syscommands", "echo\nexec\n");
  const auto start = steady_clock::now();
  {
    std::thread interrupt([&] {
      std::this_thread::sleep_for(milliseconds(200));
      automation->Interrupt();
    });
    EXPECT_EQ(Fail("system('exec sleep 60'); 'went on'"), kInterrupted);
    interrupt.join();
  }
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_EQ(Run("system('echo x')"), R"([0,"x\n"])");
}

TEST_F(LimitsTest, AHostCanAlwaysEnd) {
  for (const char* code : {"for (;;);", "setInterval(() => { for (;;); }, 1); for (;;);",
                           "(function again() { setTimeout(again, 0); for (;;); })()",
                           "(function again() { Promise.resolve().then(again); })()"}) {
    SCOPED_TRACE(code);
    auto threaded = std::make_unique<Automation>(dir().c_str());
    threaded->SetLogger(NewLogger("threaded"));
    threaded->StartThread();
    threaded->Run("0", "started");
    std::thread caller([&] { threaded->Run(code, "endless"); });
    std::this_thread::sleep_for(milliseconds(300));
    threaded->Interrupt();
    const auto start = steady_clock::now();
    threaded.reset();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
    caller.join();
  }
}

TEST_F(LimitsTest, OneInterruptEndsAllThatARunHasLeft) {
  automation->Run("Error.prepareStackTrace = () => { for (;;); };", "x");
  for (const char* code :
       {"for (let i = 0; i < 4; i++) setTimeout(() => { for (;;); }, 0); processPendingCallbacks(); 1",
        "for (let i = 0; i < 4; i++) Promise.reject({toString() { for (;;); }}); 1",
        "for (let i = 0; i < 3; i++) Promise.reject(new Error('x')); throw new Error('y');",
        "Promise.reject({toString() { for (;;); }}); Promise.resolve().then(() => { for (;;); }); for "
        "(;;);"}) {
    SCOPED_TRACE(code);
    MakeAgain(16 * kMegabyte, kMegabyte);
    std::thread interrupt([&] {
      std::this_thread::sleep_for(milliseconds(200));
      automation->Interrupt();
    });
    automation->Run(code, "left");
    interrupt.join();
  }
}

/// What has microtasks run is each call that enters script code from outside, also inside a callback of the host's.
TEST_F(LimitsTest, MicrotasksRunAfterEachCall) {
  class TwoCalls : public CallbackBase {
   public:
    TwoCalls(Environment* env, VRefCountedPointer<SafeValue> function) : CallbackBase(env, function) {}
    void Call() override {
      v8::Isolate* const isolate = m_environment->GetIsolate();
      const v8::HandleScope scope(isolate);
      const auto function = m_callback->GetValue().As<v8::Function>();
      for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(function->Call(m_environment->GetContext(), function, 0, nullptr).IsEmpty());
      }
    }
  };
  {
    const Inside inside(environment());
    const auto function =
        inside.Eval("var order = ''; (() => { order += 'c'; Promise.resolve().then(() => order += 'm'); })");
    environment()->PushCallback(new TwoCalls(environment(), SafeValue::New(inside.isolate, function)));
  }
  automation->ProcessPendingCallbacks();
  EXPECT_EQ(Run("order"), "\"cmcm\"");
}

TEST_F(LimitsTest, AFullHeapEndsTheScriptAndIsAsLargeAsBeforeAfterwards) {
  MakeAgain(16 * kMegabyte, kMegabyte);
  const size_t limit = Heap().heap_size_limit();
  const char* const hog = "{ let list = [];\nfor (;;) list.push({}); }";
  for (int i = 0; i < 5; ++i) {
    const RunResult result = automation->Run(hog, "hog.js");
    EXPECT_EQ(result.result(), kOutOfMemory);
    EXPECT_EQ(result.position().line, 2);
    EXPECT_LE(Heap().heap_size_limit(), limit + limit / 4);
    EXPECT_EQ(Run("'alive'"), "\"alive\"");
  }
  // What the script keeps, it can let go of.
  EXPECT_EQ(Fail("var kept = []; for (;;) kept.push({});"), kOutOfMemory);
  EXPECT_EQ(Run("kept = null; 0"), "0");
  EXPECT_EQ(Run("kept = new Array(100000).fill().map(() => ({})); kept.length"), "100000");
}

TEST_F(LimitsTest, AScriptThatKeepsTakingEndsWithoutMoreMemory) {
  MakeAgain(16 * kMegabyte, kMegabyte);
  Fail("var kept = []; for (;;) kept.push({});");
  for (int i = 0; i < 20; ++i) automation->Run("for (;;) kept.push({});", "hog");
  EXPECT_LT(Heap().used_heap_size(), 64 * kMegabyte);
  EXPECT_EQ(Fail("1"), kOutOfMemory);
}

TEST_F(LimitsTest, WhatIsHeldOutsideTheHeapIsCountedWhileItIsHeld) {
  EXPECT_THROW(Automation::SetLimits(kMegabyte, kMegabyte), VornException);
  // No number that a host may think of is too odd for the engine.
  MakeAgain(100000000, 1000);
  EXPECT_EQ(Run("1"), "1");
  MakeAgain(64 * kMegabyte, 4 * kMegabyte);
  folder.Write("large", std::string(17 * kMegabyte, 'x'));
  RunTable(R"js(
    var text = '<a>' + '<b/>'.repeat(10000) + '</a>';
    // Each takes nearly all of it, and gives it back.
    function attempt(f) { try { return f(), 'fine'; } catch (e) { return e.message; } }
    function fill(f) { let n = 0; try { for (;; n++) f(n); } catch (e) { return n > 0 && e.message; } }
    attempt(() => new Uint8Array(3 << 20))                       ==> "fine"
    attempt(() => new Uint8Array(5 << 20))                       ==> "Array buffer allocation failed"
    attempt(() => { for (let i = 0; i < 100; i++) new Uint8Array(1 << 20); })  ==> "fine"
    attempt(() => { for (let i = 0; i < 100; i++) new VXmlDocument(text); })   ==> "fine"
    attempt(() => fs.load('large'))                              ==> "Bad allocation"
    var ids = []; fill(() => ids.push(setTimeout(attempt, 1e9))) ==> "Bad allocation"
    attempt(() => new Uint8Array(1 << 20))                       ==> "Array buffer allocation failed"
    ids.forEach(clearTimeout); attempt(() => new Uint8Array(3 << 20))  ==> "fine"
    var docs = []; fill(() => docs.push(new VXmlDocument(text))) ==> "Bad allocation"
    docs[0].root.children.length                                 ==> 10000
    docs = null; attempt(() => new Uint8Array(3 << 20))          ==> "fine"
  )js");
}

TEST_F(LimitsTest, TicksOfABusyScriptPileUpToTheLimitAndAllComeInTheEnd) {
  EXPECT_EQ(Run("var ticks = 0; for (var i = 0; i < 1000; i++) setInterval(() => { ticks++; }, 1); i"),
            "1000");
  EXPECT_TRUE(WaitUntil([&] {
    Run("ticks = 0; for (var end = Date.now() + 500; Date.now() < end;); 0");
    automation->ProcessPendingCallbacks();
    return Run("ticks") == "10000";
  }));
  // Garbage that fills the budget does not hold them up.
  Run("try { for (;;) new Uint8Array(1 << 26); } catch (e) { } ticks = 0");
  PumpUntil("ticks > 20000");
}

}  // namespace
}  // namespace vnjs::testing
