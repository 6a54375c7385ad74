// Timers: refused arguments, ids, order, clearing, throwing callbacks, jumps of the clock, and what is left
// of them.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class TimersTest : public ScriptTest {
 protected:
  ~TimersTest() override { clockOffsetMs = 0; }

  bool HasTimerThread() { return !environment()->GetThread("vorn/timers").is_empty(); }
};

TEST_F(TimersTest, RefusedArgumentsGiveUndefined) {
  RunTable(R"js(
    var f = function () {};
    [setTimeout(), setTimeout(f), setTimeout('code', 1), setTimeout({}, 1), setTimeout(f, -1), setInterval(f, 0),
     setInterval(f, 'x'), clearTimeout(), clearTimeout(0), clearTimeout('x'), clearTimeout(12345), clearInterval({})]
      .filter(result => result !== undefined)      ==> []
    setTimeout(f, {valueOf() { throw 'mine'; }})   ==> Uncaught mine
  )js");
  EXPECT_FALSE(HasTimerThread());
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_EQ(Run("setTimeout(f, 10000)"), "1") << "refused calls use no id";
}

TEST_F(TimersTest, ZeroDelayIsQueuedAtOnceAndCannotBeCleared) {
  EXPECT_EQ(Run("var got = []; function note() { 'use strict'; got.push(arguments.length, arguments[0], this "
                "=== note); }"
                "var id = setTimeout(note, 0); [id, clearTimeout(id), setTimeout(note, 'no number')]"),
            "[1,null,2]");
  EXPECT_TRUE(automation->HasPendingWork());
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("got"), "[1,1,true,1,2,true]");
  EXPECT_FALSE(HasTimerThread());
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  Run("setTimeout(note, '30')");
  PumpUntil("got.length == 9");
  EXPECT_EQ(Run("got.slice(6)"), "[1,3,true]");
  EXPECT_FALSE(automation->HasPendingWork());
}

TEST_F(TimersTest, DueOrderIsThatOfIdsWithinAPassAndOfTimeBetweenPasses) {
  Run("var order = ''; setTimeout(function () { order += 'c'; }, 120);"
      "setTimeout(function () { order += 'a'; }, 1); setTimeout(function () { order += 'b'; }, 1.9);");
  PumpUntil("order.length == 3");
  EXPECT_EQ(Run("order"), "\"abc\"");
}

TEST_F(TimersTest, ClearingChecksTheFamily) {
  RunTable(R"js(
    var fired = 0; var t = setTimeout(function () { fired++; }, 30), i = setInterval(function () {}, 30);
    clearInterval(t)                               ==> Uncaught Error: clearTimeout()/clearInterval() mismatch
    clearTimeout(i)                                ==> Uncaught Error: clearTimeout()/clearInterval() mismatch
  )js");
  PumpUntil("fired == 1");
  EXPECT_EQ(Run("clearInterval(i)"), "undefined");
  EXPECT_FALSE(automation->HasPendingWork());
}

TEST_F(TimersTest, AnIntervalGoesOnAfterItsCallbackThrowsAndUntilItClearsItself) {
  Run("var n = 0; var i = setInterval(function (id) { if (++n == 3) clearInterval(id); throw new "
      "Error('tick'); }, 10)",
      "tick.js");
  PumpUntil("n >= 3");
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_THAT(
      LogLines(3),
      Contains(HasSubstr("Callback execution error: Error: tick\n    at Function.<anonymous> (tick.js:1:"))
          .Times(3));
}

TEST_F(TimersTest, JumpsOfTheClockAreChargedToNobody) {
  Run("var fired = false; setTimeout(function () { fired = true; }, 400); var other; setTimeout(function () "
      "{ other = 1; }, 50)");
  clockOffsetMs = 3600 * 1000;
  PumpUntil("other");
  clockOffsetMs = -3600 * 1000;
  Run("var third; setTimeout(function () { third = 1; }, 50)");
  PumpUntil("third");
  EXPECT_EQ(Run("fired"), "false");
  PumpUntil("fired");
}

TEST_F(TimersTest, EveryEnvironmentCountsItsOwn) {
  Automation other(dir().c_str());
  other.SetLogger(NewLogger("other"));
  EXPECT_EQ(Run("[setTimeout(function () {}, 1e6), setTimeout(function () {}, 1e6)]"), "[1,2]");
  EXPECT_EQ(other.Run("setTimeout(function () {}, 1e6)", "").result(), "1");
}

TEST_F(TimersTest, AnEnvironmentEndsInTheMiddleOfItsTimers) {
  for (int i = 0; i < 5; ++i) {
    auto busy = std::make_unique<Automation>(dir().c_str());
    busy->SetLogger(NewLogger("busy"));
    if (i % 2) busy->StartThread();
    busy->Run("for (var k = 1; k <= 100; k++) setInterval(function () { k++; }, k % 30 + 1)", "");
    usleep(30000);
    if (i > 2) busy->Run("exit()", "");
    busy.reset();
  }
}

TEST_F(TimersTest, ClearedAndFiredTimersLetGoOfTheirFunctions) {
  Run("var alive = 0; var registry = new FinalizationRegistry(function () { alive--; });"
      "function make() { var f = function () {}; alive++; registry.register(f, 0); return f; }"
      "for (var i = 0; i < 20; i++) { setTimeout(make(), 20); clearTimeout(setTimeout(make(), 1e6)); "
      "setTimeout(make(), 0); }");
  EXPECT_TRUE(WaitUntil([&] {
    automation->ProcessPendingCallbacks();
    CollectGarbage(environment());
    return Run("alive") == "0";
  }));
}

}  // namespace
}  // namespace vnjs::testing
