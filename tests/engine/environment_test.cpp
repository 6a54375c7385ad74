// Life and end of environments: the worker, callers that wait while it ends, callbacks and script values that
// outlive their environment, loggers, named threads, and many environments at once.
#include <malloc.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

/// Keeps whatever runs it busy.
constexpr char kBusy[] = "var end = Date.now() + 300; while (Date.now() < end);";

class EnvironmentTest : public ScriptTest {
 protected:
  /// A script value, taken under the isolate's lock and held by whoever takes the pointer.
  VRefCountedPointer<SafeValue> Value(const char* code) {
    const Inside inside(environment());
    return SafeValue::New(inside.isolate, inside.Eval(code));
  }

  void ExpectQuickEnd() {
    usleep(50000);
    const auto begin = std::chrono::steady_clock::now();
    automation.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  }
};

TEST_F(EnvironmentTest, StorageDirEndsInOneSlash) {
  EXPECT_EQ(automation->StorageDir(), dir());
  EXPECT_EQ(Automation(dir().substr(0, dir().size() - 1).c_str()).StorageDir(), dir());
  EXPECT_EQ(Automation("").StorageDir(), "/");
}

TEST_F(EnvironmentTest, OwnsItsLogger) {
  const int before = OpenLoggers();
  automation->SetLogger(automation->GetLogger());
  EXPECT_EQ(OpenLoggers(), before);
  automation->SetLogger(nullptr);
  EXPECT_EQ(OpenLoggers(), before - 1);
  environment()->Log(2, "made on first use", "m");
  EXPECT_EQ(LinesOf("default").back().module, "m");
  automation.reset();
  EXPECT_EQ(OpenLoggers(), before - 1);
}

TEST_F(EnvironmentTest, CallbacksRunInOrderAndLaterOnesWait) {
  RunTable(R"js(
    var order = '';
    setTimeout(() => { order += 'a'; setTimeout(() => { order += 'd'; }, 0); throw new Error('cb'); }, 0);
    setTimeout(() => { order += 'b'; throw 'text'; }, 0); setTimeout(() => { order += 'c'; }, 0) ==> 3
  )js");
  EXPECT_TRUE(automation->HasPendingWork());
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("order"), "\"abc\"");
  EXPECT_TRUE(automation->ProcessPendingCallbacks());
  EXPECT_EQ(Run("order"), "\"abcd\"");
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  // Inside a script that asks for them.
  RunTable(R"js(
    var inner = "setTimeout(() => { order += 'i'; }, 0); processPendingCallbacks();";
    order = ''; setTimeout(() => { order += 'o'; executeJS(inner); order += 'p'; }, 0);
    processPendingCallbacks(); order + 'e'         ==> "oipe"
  )js");
  EXPECT_THAT(LogLines(3), ElementsAre(HasSubstr("Callback execution error: Error: cb\n    at"),
                                       "Callback execution error: Uncaught text"));
}

TEST_F(EnvironmentTest, WhatNobodyCatchesIsLoggedAndNotPrinted) {
  ::testing::internal::CaptureStdout();
  Run("var registry = new FinalizationRegistry(() => { throw new Error('lost'); }); registry.register({}, 0);"
      "(function f() { 'use asm'; function g(x) { x = x | 0; return x.y; } return g; })");
  CollectGarbage(environment());
  EXPECT_TRUE(WaitUntil([&] { return automation->ProcessPendingCallbacks(), !LogLines(3).empty(); }));
  EXPECT_THAT(LogLines(3),
              ElementsAre(StartsWith("Callback execution error: Error: lost\n    at test.js:1:")));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(EnvironmentTest, ScriptsOfOtherThreadsRunWhileAScriptPumps) {
  Run("var counter = 0; var pumped = 0");
  std::thread other([&] {
    while (Run("++counter") != "20") continue;
  });
  Run("setInterval(function () { pumped++; executeJS('processPendingCallbacks()'); }, 1);"
      "while (counter < 20 || pumped < 5) { processPendingCallbacks(); }");
  other.join();
}

TEST_F(EnvironmentTest, PendingCallbacksAreDroppedAtTheEnd) {
  const auto alive = std::make_shared<int>();
  Push([alive] {});
  Run("exit()");
  Push([alive] {});
  environment()->PushCallback(nullptr);
  EXPECT_EQ(alive.use_count(), 2) << "refused and dropped";
  EXPECT_FALSE(automation->ProcessPendingCallbacks());
  automation.reset();
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(EnvironmentTest, StoppingDropsWhatIsQueuedButForTheCallbackThatRuns) {
  Run("var n = 0");
  std::atomic<int> begun{0};
  for (int i = 0; i < 1000; ++i)
    Push([&] {
      if (++begun == 3) usleep(200000);
    });
  automation->StartThread();
  EXPECT_TRUE(WaitUntil([&] { return begun == 3; }));
  automation->StopThread();
  EXPECT_EQ(begun, 3);
  EXPECT_EQ(LogLines().back(), "Callbacks dropped at the end: 997");
  EXPECT_EQ(LogLines().size(), 1u);
}

TEST_F(EnvironmentTest, APortQueuesUntilTheEnvironmentEndsAndMayBeUsedLater) {
  struct Count : CallbackBase {
    Count(Environment* environment, std::atomic<int>* count)
        : CallbackBase(environment, {}), m_count(count) {}
    void Call() override { ++*m_count; }
    std::atomic<int>* const m_count;
  };
  std::atomic<int> calls{0};
  Environment* const raw = environment();
  const CallbackPort port(raw);
  EXPECT_TRUE(port.Push(new Count(raw, &calls)));
  automation->ProcessPendingCallbacks();
  EXPECT_EQ(calls, 1);
  automation->StartThread();
  std::atomic<bool> done{false};
  std::thread pushing([&] {
    while (port.Push(new Count(raw, &calls))) usleep(100);
    done = true;
  });
  EXPECT_TRUE(WaitUntil([&] { return calls > 10; }));
  automation.reset();
  EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
  pushing.join();
  EXPECT_FALSE(port.Push(new Count(raw, &calls)));
  EXPECT_FALSE(CallbackPort(nullptr).Push(nullptr));
}

TEST_F(EnvironmentTest, ScriptValuesDropOnAnyThreadAndAfterTheEnd) {
  EXPECT_TRUE(Value("null").is_empty());
  VRefCountedPointer<SafeValue> dropped = Value("o = {}");
  Run("var reference = new WeakRef(o); o = null");
  std::thread([&] { dropped = nullptr; }).join();
  Run("0");
  CollectGarbage(environment());
  EXPECT_EQ(Run("reference.deref()"), "undefined");

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
  AtOnce(8, [&](int i) { EXPECT_EQ(Run(std::to_string(i)), std::to_string(i)); });
  automation->StopThread();
  EXPECT_FALSE(automation->IsThreaded());
  EXPECT_TRUE(automation->IsTerminating());
  EXPECT_EQ(Run("n > 3"), "true") << "runs on the caller's thread again";
  automation->StartThread();
  EXPECT_FALSE(automation->IsTerminating());
  // Its own script may stop and start it.
  Push([this] {
    automation->StopThread();
    automation->StartThread();
  });
  EXPECT_EQ(Run("1"), "1");
  EXPECT_TRUE(automation->IsThreaded());
}

TEST_F(EnvironmentTest, ACallerGivesUpAfterTenSeconds) {
  automation->StartThread();
  EXPECT_EQ(Fail("var end = Date.now() + 13000; while (Date.now() < end); var done = 1;"),
            "Code took too long to return result");
  EXPECT_TRUE(WaitUntil([&] { return Run("done") == "1"; })) << "the code itself ran to its end";
}

TEST_F(EnvironmentTest, EndsWhileTheWorkerRunsAndCallersWait) {
  automation->StartThread();
  Push([] {});
  std::atomic<int> calls{0};
  std::thread callers([&calls, ending = automation.get()] {
    AtOnce(3, [&](int i) {
      usleep(static_cast<useconds_t>(20000 * i));
      ++calls;
      ending->Run(kBusy, "");
    });
  });
  EXPECT_TRUE(WaitUntil([&] { return calls == 3; }));
  ExpectQuickEnd();
  callers.join();
}

TEST_F(EnvironmentTest, EndsWhileNamedThreadsRunScriptsAgainAndAgain) {
  const auto spin = [](VRefCountedPointer<Thread> self) {
    while (!self->IsTerminating()) self->GetEnvironment()->Run(kBusy, "");
    return 0;
  };
  environment()->CreateThread("first", spin, nullptr);
  environment()->CreateThread("second", spin, nullptr);
  ExpectQuickEnd();
}

TEST_F(EnvironmentTest, ThreadsThatRanAScriptAreForgotten) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' malloc tells nothing";
#endif
  const auto taken = [&](int threads) {
    for (int i = 0; i < threads; ++i) std::thread([&] { Run("1"); }).join();
    return mallinfo2().uordblks;
  };
  const size_t before = taken(500);
  EXPECT_LT(taken(2000), before + 50000);
}

TEST_F(EnvironmentTest, TwentyTogether) {
  AtOnce(20, [&](int i) {
    Automation one(dir().c_str());
    if (i % 2) one.StartThread();
    const char* const code = R"(
      setTimeout(() => {}, 1);
      for (var n = 0; n < 400; n++) { try { new VXmlDocument('<'); } catch (e) { var d = new VXmlDocument('<a/>'); } }
      d.findAll('//a').length)";
    EXPECT_EQ(one.Run(code, "").result(), "1");
  });
}

class ThreadTest : public ScriptTest {
 protected:
  using Pointer = VRefCountedPointer<Thread>;
  static int ReturnAtOnce(Pointer) { return 3; }
  static int Throw(Pointer) { throw VornException("thrown"); }
  static int PollUntilTold(Pointer self) {
    ++*static_cast<std::atomic<int>*>(self->GetData());
    while (!self->IsTerminating()) usleep(500);
    --*static_cast<std::atomic<int>*>(self->GetData());
    return 0;
  }
  std::atomic<int> m_running{0};
};

TEST_F(ThreadTest, ShortFunctionsDoNotOvertakeTheirCreator) {
  EXPECT_THROW(Thread(nullptr, "t", ReturnAtOnce, nullptr), VornException);
  EXPECT_THROW(Thread(environment(), "", ReturnAtOnce, nullptr), VornException);
  EXPECT_THROW(Thread(environment(), "t", nullptr, nullptr), VornException);
  const auto detach = [](Pointer self) { return self->Detach(), 0; };
  for (int i = 0; i < 200; ++i) {
    environment()->CreateThread("itself", detach, nullptr);
    EXPECT_TRUE(WaitUntil([&] { return environment()->GetThread("itself").is_empty(); }));
    Pointer kept(new Thread(environment(), "kept", i % 2 ? ReturnAtOnce : Throw, nullptr));
    kept->Join();
    kept->Join();
    kept = kept.get_ptr();
    // Nobody joins these; they delete themselves.
    { const Pointer dropped(new Thread(environment(), "dropped", ReturnAtOnce, nullptr)); }
    Pointer detached(new Thread(environment(), "detached", Throw, nullptr));
    detached->Detach();
    detached->Join();
  }
}

TEST_F(ThreadTest, ReferencesOfABaseCountAndThreadsThatNobodyTakesEnd) {
  const auto threads = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                         std::filesystem::directory_iterator());
  };
  const auto before = threads();
  const VRefCountedPointer<VRefCountedObject> base = new Thread(environment(), "base", ReturnAtOnce, nullptr);
  static_cast<Thread*>(base.get_ptr())->Join();
  for (int i = 0; i < 5; ++i) new Thread(environment(), "discarded", ReturnAtOnce, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return threads() <= before; }));
}

TEST_F(ThreadTest, TheEnvironmentKeepsThreadsByNameAndEndsThem) {
  const Pointer thread = environment()->CreateThread("poller", PollUntilTold, &m_running);
  EXPECT_EQ(environment()->CreateThread("poller", ReturnAtOnce, nullptr).get_ptr(), thread.get_ptr());
  EXPECT_EQ(environment()->GetThread("poller").get_ptr(), thread.get_ptr());
  thread->SetTerminating();
  thread->Join();
  EXPECT_EQ(m_running, 0);
  EXPECT_TRUE(environment()->GetThread("poller").is_empty());

  const Pointer kept = environment()->CreateThread("kept", PollUntilTold, &m_running);
  environment()->CreateThread("other", PollUntilTold, &m_running);
  EXPECT_TRUE(WaitUntil([&] { return m_running == 2; }));
  Run("exit()");
  EXPECT_TRUE(environment()->CreateThread("t", ReturnAtOnce, nullptr).is_empty());
  environment()->SetVariable("v", new EnvironmentVariable());
  EXPECT_TRUE(environment()->GetVariable("v").is_empty());
  automation.reset();
  EXPECT_EQ(m_running, 0);
  kept->Join();
}

TEST_F(ThreadTest, HostsMayMakeAndAwaitThreadsThemselves) {
  const auto endLate = [](Pointer self) {
    PollUntilTold(self);
    ++*static_cast<std::atomic<int>*>(self->GetData());
    usleep(100000);
    --*static_cast<std::atomic<int>*>(self->GetData());
    return 0;
  };
  const Pointer shared = environment()->CreateThread("shared", endLate, &m_running);
  {
    const Pointer other(new Thread(environment(), "shared", ReturnAtOnce, nullptr));
    other->Join();
  }
  EXPECT_EQ(environment()->GetThread("shared").get_ptr(), shared.get_ptr()) << "not the other of that name";
  Pointer late(new Thread(environment(), "late", ReturnAtOnce, nullptr));
  std::thread joining([&] { shared->Join(); });
  usleep(20000);
  automation.reset();
  EXPECT_EQ(m_running, 0) << "waited for, though another thread did, too";
  joining.join();
  late = nullptr;
}

}  // namespace
}  // namespace vnjs::testing
