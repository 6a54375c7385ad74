// Timers: refused arguments, throwing callbacks, jumps of the clock, and what is left of them. In which order they come
// due, and whether, is for the fuzzer's corpus.
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class TimersTest : public ScriptTest {
 protected:
  ~TimersTest() override { clockOffsetMs = 0; }
};

TEST_F(TimersTest, ArgumentsAndDelaysOfZero) {
  RunTable(R"js(
    var f = function () {};
    [setTimeout(), setTimeout(f), setTimeout('code', 1), setTimeout({}, 1), setTimeout(f, -1), setInterval(f, 0),
     setInterval(f, 'x'), clearTimeout(), clearTimeout('x'), clearTimeout(12345), clearInterval({}),
     setTimeout(f, Symbol()), setInterval(f, 5n), clearTimeout(Symbol()), setTimeout(f, {valueOf() { throw 'mine'; }})]
      .filter(result => result !== undefined)      ==> []
    var got = []; function note() { 'use strict'; got.push(arguments.length, arguments[0], this === note); }
    // Queued at once, it cannot be cleared. Refused calls have used no id, and each environment counts its own.
    var id = setTimeout(note, 0); [id, clearTimeout(id), setTimeout(note, 'no number')] ==> [1,null,2]
  )js");
  EXPECT_TRUE(automation->HasPendingWork());
  EXPECT_THAT(automation->PendingWork(), ElementsAre("callbacks queued: 2"));
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("got"), "[1,1,true,1,2,true]");
  EXPECT_TRUE(environment()->GetThread("vorn/timers").is_empty());
  EXPECT_FALSE(automation->HasPendingWork());
  MakeAgain();
  EXPECT_EQ(Run("var late; setTimeout(() => { late = 1; }, '30')"), "1");
  PumpUntil("late");
  EXPECT_FALSE(automation->HasPendingWork());
}

TEST_F(TimersTest, ClearingChecksTheFamilyAndAThrowingIntervalGoesOn) {
  RunTable(R"js(
    var n = 0, i = setInterval(id => { if (++n == 3) clearInterval(id); throw new Error('tick'); }, 10);
    clearTimeout(i)                                ==> Uncaught Error: clearTimeout()/clearInterval() mismatch
  )js");
  PumpUntil("n >= 3");
  EXPECT_FALSE(automation->HasPendingWork());
  EXPECT_THAT(LogLines(3), Contains(HasSubstr("Callback execution error: Error: tick\n    at ")).Times(3));
}

TEST_F(TimersTest, JumpsOfTheClockAreChargedToNobody) {
  Run("var fired = false, first, other, third; setTimeout(() => { first = 1; }, 1)");
  PumpUntil("first");
  Run("setTimeout(() => { fired = true; }, 400); setTimeout(() => { other = 1; }, 50)");
  clockOffsetMs = 3600 * 1000;
  PumpUntil("other");
  clockOffsetMs = -3600 * 1000;
  Run("setTimeout(() => { third = 1; }, 50)");
  PumpUntil("third");
  EXPECT_EQ(Run("fired"), "false");
  PumpUntil("fired");
}

TEST_F(TimersTest, TheClockGoesOnWhereItsLow32BitsChangeTheirSignOrWrap) {
  for (const int64_t place : {int64_t{1} << 31, int64_t{1} << 32}) {
    clockOffsetMs = 0;
    clockOffsetMs = place - 100 - static_cast<int64_t>(get_local_time_ms());
    MakeAgain();
    Run("var ticks = 0; setInterval(() => ++ticks, 30)");
    PumpUntil("ticks > 5");
    EXPECT_GE(static_cast<int64_t>(get_local_time_ms()), place);
  }
}

TEST_F(TimersTest, AnEnvironmentEndsInTheMiddleOfItsTimers) {
  for (int i = 0; i < 4; ++i) {
    Automation busy(dir().c_str());
    if (i % 2) busy.StartThread();
    busy.Run("for (var k = 1; k <= 100; k++) setInterval(function () { k++; }, k % 30 + 1)", "");
    usleep(30000);
    if (i > 1) busy.Run("exit()", "");
  }
}

TEST_F(TimersTest, ClearedAndFiredTimersLetGoOfTheirFunctions) {
  Run("var alive = 0; var registry = new FinalizationRegistry(() => alive--);"
      "function make() { var f = function () {}; alive++; registry.register(f, 0); return f; }"
      "setTimeout(make(), 20); clearTimeout(setTimeout(make(), 1e6)); setTimeout(make(), 0);");
  EXPECT_TRUE(WaitUntil([&] {
    automation->ProcessPendingCallbacks();
    CollectGarbage(environment());
    return Run("alive") == "0";
  }));
}

}  // namespace
}  // namespace vnjs::testing
