// The end of scripts that do not end by themselves: interrupts that hit the wrong script or none, limits that stay raised,
// environments that cannot be destroyed. What single scripts do, tests/limits/hostile_scripts.txt shows.
#include <vnjs/error.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::this_thread::sleep_for;

constexpr char kInterrupted[] = "Script execution was interrupted";
constexpr char kOutOfMemory[] = "Script ran out of memory";
constexpr size_t kMegabyte = 1024 * 1024;

class LimitsTest : public ScriptTest {
 protected:
  /// Runs a script while another thread interrupts again and again, from so long on.
  RunResult RunInterrupted(const char* code, milliseconds wait, int times = 1) {
    std::atomic<bool> done{false};
    std::thread interrupting([&] {
      for (sleep_for(wait); !done; sleep_for(milliseconds(1))) automation->Interrupt();
    });
    RunResult result;
    for (int i = 0; i < times; ++i) {
      result = automation->Run(code, "interrupted.js");
      EXPECT_THAT(result.result(), ::testing::AnyOf("2", kInterrupted));
    }
    done = true;
    interrupting.join();
    return result;
  }

  v8::HeapStatistics Heap() {
    v8::HeapStatistics statistics;
    Inside(environment()).isolate->GetHeapStatistics(&statistics);
    return statistics;
  }
};

TEST_F(LimitsTest, InterruptsTellWhereAndHitNothingThatComesLater) {
  automation->Interrupt();
  EXPECT_EQ(Run("1+1"), "2");
  const RunResult result =
      RunInterrupted("var n = 0;\nfunction spin() {\n  for (;;) n++;\n}\nspin();", milliseconds(500));
  EXPECT_EQ(result.position().source, "interrupted.js");
  EXPECT_EQ(result.position().line, 3);
  EXPECT_EQ(LogLines(3).at(0).find("result: Error: Script execution was interrupted at interrupted.js:3:"),
            0u);

  // In the midst of them each script ends as it should, or as interrupted, and those that come afterwards are whole.
  const char* const code = "[1, 2].map(n => n + 1).length";
  RunInterrupted(code, milliseconds(0), 2000);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(Run(code), "2");
}

TEST_F(LimitsTest, AnInterruptTakesTheMicrotasksOfItsScriptAndNoOthers) {
  Run("var ran = []; var later; new Promise(r => { later = r; }).then(() => ran.push('kept'))");
  RunInterrupted("Promise.resolve().then(() => ran.push('dropped')); for (;;);", milliseconds(10));
  EXPECT_EQ(Run("later(); 0"), "0");
  EXPECT_EQ(Run("ran"), R"(["kept"])");
}

TEST_F(LimitsTest, AHostCanAlwaysEnd) {
  for (const char* code : {"for (;;);", "setInterval(() => { for (;;); }, 1); for (;;);",
                           "(function again() { setTimeout(again, 0); for (;;); })()",
                           "(function again() { Promise.resolve().then(again); })()"}) {
    SCOPED_TRACE(code);
    auto threaded = std::make_unique<Automation>(dir().c_str());
    threaded->StartThread();
    threaded->Run("0", "started");
    std::thread caller([&] { threaded->Run(code, "endless"); });
    sleep_for(milliseconds(300));
    threaded->Interrupt();
    const auto start = steady_clock::now();
    threaded.reset();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
    caller.join();
  }
}

TEST_F(LimitsTest, AFullHeapEndsTheScriptAndIsAsLargeAsBeforeAfterwards) {
  MakeAgain(16 * kMegabyte, kMegabyte);
  const size_t limit = Heap().heap_size_limit();
  for (int i = 0; i < 5; ++i) {
    const RunResult result = automation->Run("{ let list = [];\nfor (;;) list.push({}); }", "hog.js");
    EXPECT_EQ(result.result(), kOutOfMemory);
    EXPECT_EQ(result.position().line, 2);
    EXPECT_LE(Heap().heap_size_limit(), limit + limit / 4);
    EXPECT_EQ(Run("'alive'"), "\"alive\"");
  }
  // What the script keeps, it can let go of.
  EXPECT_EQ(Fail("var kept = []; for (;;) kept.push({});"), kOutOfMemory);
  EXPECT_EQ(Run("kept = null; 0"), "0");
  EXPECT_LE(Heap().heap_size_limit(), limit + limit / 4);
  // Also when it has filled the heap again and again.
  Run("var lists = []");
  for (int i = 0; i < 10 && !automation->IsMemoryFull(); ++i) {
    EXPECT_EQ(Fail("{ let list = []; lists.push(list); for (;;) list.push({}); }"), kOutOfMemory);
  }
  EXPECT_TRUE(automation->IsMemoryFull());
  EXPECT_EQ(Fail("for (;;) lists.push({})"), kOutOfMemory) << "more than a little";
  EXPECT_EQ(Run("lists = null; 0"), "0");
  EXPECT_FALSE(automation->IsMemoryFull());
  EXPECT_EQ(Run("kept = new Array(100000).fill().map(() => ({})); kept.length"), "100000");
  // One that keeps taking ends without more memory.
  for (int i = 0; i < 20; ++i) automation->Run("for (;;) kept.push({});", "hog");
  EXPECT_LT(Heap().used_heap_size(), 64 * kMegabyte);
  EXPECT_EQ(Fail("1"), kOutOfMemory);
}

TEST_F(LimitsTest, LimitsAreThoseOfEnvironmentsMadeLater) {
  EXPECT_THROW(Automation::SetLimits(kMegabyte, kMegabyte), VornException);
  // No number that a host may think of is too odd for the engine.
  MakeAgain(100000000, 1000);
  EXPECT_EQ(Run("1"), "1");
  MakeAgain(64 * kMegabyte, 4 * kMegabyte);
  EXPECT_EQ(Fail("new Uint8Array(3 << 20); new Uint8Array(5 << 20)"),
            "Uncaught RangeError: Array buffer allocation failed");
  {
    // A host's own bytes are counted, and not refused.
    Run("var kept = []; try { for (;;) kept.push(new Uint8Array(1 << 16)); } catch (e) { }");
    const Inside inside(environment());
    EXPECT_TRUE(ByteArray(100000).toJS(inside.isolate)->IsArrayBuffer());
  }
  EXPECT_EQ(Run("kept = 0; new Uint8Array(3 << 20).length"), "3145728");
  folder.Write(".syscommands", "echo\n");
  Run("var doc = new VXmlDocument('<a/>')");
  folder.Write("large", std::string(17 * kMegabyte, 'x'));
  folder.Write("storage/state-9ed39e2ea931586b6a985a6942ef573e.json", std::string(17 * kMegabyte, '1'));
  for (const char* code : {"fs.load('large')", "executeFile('large')", "loadObject('state')",
                           "executeJS('x'.repeat(5e6))", "console.log({x: 'x'.repeat(5e6)})"})
    EXPECT_EQ(Fail(code), "Uncaught Error: Bad allocation") << code;
  for (const char* code : {"'x'.repeat(5e6)", "'\u20ac'.repeat(15e5)"})
    EXPECT_EQ(Fail(code), "Bad allocation") << code;
  EXPECT_EQ(LogLines().back(), "result: Error: Bad allocation");
  EXPECT_EQ(Fail("throw 'x'.repeat(5e6)"), "Uncaught " + std::string(991, 'x') + "…");
  for (const std::string print : {"console.log", "debugPrint"}) {
    EXPECT_EQ(Fail(print + "('x'.repeat(5e6))"), "Uncaught Error: Bad allocation");
    EXPECT_EQ(Fail(print + "(...Array(60).fill('x'.repeat(1e5)))"), "Uncaught Error: Bad allocation");
    // What tells of it needs some itself.
    Run("var kept = []; try { for (;;) kept.push(new Uint8Array(1000)); } catch (e) { " + print +
        "('full'.repeat(1000)); }");
    EXPECT_THAT(LogLines().back(), StartsWith("fullfull"));
    EXPECT_EQ(Run("doc.findOne('p:b', {p: 'u'.repeat(5000)})"), "null");
    EXPECT_EQ(Run("system('echo', 'x'.repeat(5000))[1].length"), "5001");
    Run("kept = null");
  }
}

TEST_F(LimitsTest, AResultDoesNotCountWhenTheHeapIsMeasured) {
  MakeAgain(64 * kMegabyte, 64 * kMegabyte);
  EXPECT_EQ(Run("'x'.repeat(33e6)").size(), 33000002u);
  EXPECT_EQ(Fail("'x'.repeat(100e6)"), "Bad allocation");
  EXPECT_EQ(Run("1"), "1");
}

TEST_F(LimitsTest, TimersAreSetThoughTheBuffersAreFull) {
  MakeAgain(64 * kMegabyte, kMegabyte);
  EXPECT_EQ(Run("var kept = []; try { for (;;) kept.push(new Uint8Array(1000)); } catch (e) { } "
                "setTimeout(() => 0, 9)"),
            "1");
  EXPECT_EQ(Fail("for (;;) setTimeout(() => 0, 1e9)"), "Uncaught Error: Bad allocation");
}

TEST_F(LimitsTest, TicksOfABusyScriptPileUpToTheLimitAndAllComeInTheEnd) {
  Run("var ticks = 0; for (var i = 0; i < 1000; i++) setInterval(() => { ticks++; }, 1); 0");
  EXPECT_TRUE(WaitUntil([&] {
    Run("ticks = 0; for (var end = Date.now() + 500; Date.now() < end;); 0");
    automation->ProcessPendingCallbacks();
    return Run("ticks") == "10000";
  }));
}

}  // namespace
}  // namespace vnjs::testing
