// Promises of the host: settled before, late, twice, never, from anywhere; and deadlines, which must hit what they belong
// to and nothing beside it.
#include <atomic>

#include "tests/runner/runner_test.h"

namespace vnjs::testing {
namespace {

using PromisesTest = RunnerTest;
using DeadlinesTest = RunnerTest;

TEST_F(PromisesTest, AreSettledOnceFromAnywhere) {
  std::vector<std::thread> threads;
  Promise shared;
  runner->Define("now()", [] {
    Promise promise;
    EXPECT_TRUE(promise.Resolve("now"));
    EXPECT_FALSE(promise.Resolve("twice"));
    EXPECT_FALSE(promise.Reject("twice"));
    return promise;
  });
  runner->Define("later(n)", [&](int n) {
    Promise promise;
    threads.emplace_back([promise, n] {
      std::this_thread::sleep_for(5ms);
      EXPECT_TRUE(n % 2 == 0 ? promise.Resolve(n) : promise.Reject("odd " + std::to_string(n)));
      EXPECT_FALSE(promise.Resolve(n));
    });
    return promise;
  });
  runner->Define("never()", [] { return Promise(); });
  runner->Define("shared()", [&] { return shared; });
  runner->Define("bad()", [] {
    Promise promise;
    promise.Resolve(Value("\xff"));
    return promise;
  });
  Start("");
  EXPECT_EQ(Eval("now()").As<std::string>(), "now");
  EXPECT_EQ(Eval("Promise.allSettled([later(2), later(3)]).then((all) => all.map((r) => r.value ?? "
                 "String(r.reason)))")
                .Json(),
            R"([2,"Error: odd 3"])");
  EXPECT_EQ(Try("never()").second.message, "The host has dropped the promise");
  EXPECT_EQ(Try("bad()").second.message, "a text is not UTF-8");
  runner->Eval("Promise.all([shared(), shared()]).then((all) => note(JSON.stringify(all)))", "", nullptr);
  Eval("0");
  EXPECT_TRUE(shared.Resolve(std::string("both")));
  ASSERT_TRUE(WaitUntil([this] { return Notes().size() == 1; }));
  EXPECT_EQ(Notes()[0], R"(["both","both"])");
  for (std::thread& thread : threads) thread.join();
}

TEST_F(PromisesTest, MayOutliveTheirScript) {
  std::vector<Promise> kept;
  runner->Define("wait()", [&] {
    kept.emplace_back();
    return kept.back();
  });
  Start("for (let i = 0; i < 10000; ++i) wait();");
  std::atomic<bool> stopping{false};
  std::thread settler([&, mine = kept] {
    for (size_t i = 0; i < 5000; ++i) {
      if (i == 1000) stopping = true;
      mine[i].Resolve(1);
    }
  });
  ASSERT_TRUE(WaitUntil([&] { return stopping.load(); }));
  runner->Stop(1s);
  settler.join();
  EXPECT_FALSE(kept[9999].Resolve(1));
  runner.reset();
  EXPECT_FALSE(kept[9998].Reject("gone"));
}

TEST_F(DeadlinesTest, EndWhatSpinsAndNothingElse) {
  RunnerOptions options;
  options.callbackLimit = 100ms;
  Make(options);
  // Timers are among them; each piece of work takes a moment, so that limits of neighbours are near.
  Start(R"(
    var calls = 0, spins = 0, ticks = 0;
    function work() { const end = Date.now() + 1; while (Date.now() < end); ++calls; }
    on('x', (n) => { if (n % 50 === 7) { ++spins; for (;;) {} } work(); });
    setInterval(() => { ++ticks; work(); }, 25);
    on('natives', () => { for (;;) note(''); });
    on('tasks', () => { const again = () => Promise.resolve().then(again); again(); });
  )");
  for (int i = 0; i < 500; ++i) ASSERT_TRUE(runner->Emit("x", i));
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().queued == 0; }));
  EXPECT_EQ(Eval("[calls - ticks, spins]").Json(), "[490,10]");
  EXPECT_EQ(runner->GetStatistics().interrupted, 10U);
  EXPECT_EQ(runner->GetStatistics().failures, 0U);
  for (const LogLine& line : Lines()) {
    EXPECT_EQ(line.error.kind, ErrorKind::kTimeout);
    EXPECT_THAT(line.message, HasSubstr("Event 'x': Script took longer than 100 ms at hall.js:4:"));
  }
  runner->Emit("natives");
  runner->Emit("tasks");
  Eval("0");
  EXPECT_EQ(runner->GetStatistics().interrupted, 12U);
  EXPECT_LT(runner->GetStatistics().longest, 5s);
}

}  // namespace
}  // namespace vnjs::testing
