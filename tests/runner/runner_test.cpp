// Life of a runner: starts that fail, states, events in their order, ends in the middle of everything, reloads that lose
// something, and threads that wake without need.
#include "tests/runner/runner_test.h"

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace vnjs::testing {
namespace {

/// How often this process's threads have been switched to, of their own will or not.
long Switches(const std::string& thread) {
  long sum = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream name(entry.path() / "comm");
    std::string text;
    if (!std::getline(name, text) || text != thread) continue;
    std::ifstream status(entry.path() / "status");
    for (std::string line; std::getline(status, line);) {
      const size_t at = line.find("ctxt_switches:");
      if (at != std::string::npos) sum += std::stol(line.substr(at + 14));
    }
  }
  return sum;
}

TEST_F(RunnerTest, TellsWhyItDoesNotStart) {
  std::vector<State> states;
  RunnerOptions options;
  options.startLimit = 200ms;
  options.onState = [&](State state) { states.push_back(state); };
  Make(options);
  EXPECT_FALSE(runner->Emit("x"));
  EXPECT_EQ(runner->Reload(0ms).message, "The runner has not started");
  const struct {
    const char* code;
    const char* message;
    ErrorKind kind;
    int line;
  } kTable[] = {{"\nvar x = ;", "Unexpected token ';'", ErrorKind::kSyntax, 2},
                {"\n\nthrow new Error('no lamp')", "no lamp", ErrorKind::kThrown, 3},
                {"throw {toString() { throw 1 }}", "", ErrorKind::kThrown, 1},
                {"for (;;) {}", "Script took longer than 200 ms", ErrorKind::kTimeout, 1},
                {"Promise.resolve().then(() => { for (;;) {} })", "Script took longer than 200 ms",
                 ErrorKind::kTimeout, 1}};
  for (const auto& [code, message, kind, line] : kTable) {
    const ScriptError error = runner->StartCode(code, "hall.js");
    EXPECT_EQ(error.kind, kind) << code << error.message;
    EXPECT_THAT(error.message, HasSubstr(message));
    EXPECT_EQ(error.source + std::to_string(error.line), "hall.js" + std::to_string(line)) << code;
    EXPECT_EQ(runner->GetStatistics().state, State::kFailed);
    EXPECT_EQ(runner->GetStatistics().lastError.kind, kind);
  }
  EXPECT_EQ(runner->Start((folder.path() + "none.js").c_str()).kind, ErrorKind::kHost);
  EXPECT_THAT(runner->Start(folder.path().c_str()).message, HasSubstr("is a folder"));
  EXPECT_FALSE(runner->Eval("1", "", nullptr));
  EXPECT_FALSE(runner->StartCode("exit()", ""));
  EXPECT_EQ(runner->GetStatistics().state, State::kEnded);
  EXPECT_FALSE(runner->StartCode("", ""));
  EXPECT_EQ(runner->StartCode("", "").kind, ErrorKind::kHost);
  runner->Stop(1s);
  ASSERT_GE(states.size(), 5U);
  EXPECT_EQ(states[0], State::kStarting);
  EXPECT_EQ(states[1], State::kFailed);
  EXPECT_EQ(states.back(), State::kStopped);
  // Stopped, it may begin anew.
  runner->Define("again()", [] { return 1; });
  EXPECT_FALSE(runner->StartCode("again()", ""));
  runner->Stop(1s);

  RunnerOptions small;
  small.heapBytes = 16 << 20;
  Make(small);
  EXPECT_EQ(runner->StartCode("var a = []; for (;;) a.push(new Array(1000).fill(1))", "").kind,
            ErrorKind::kMemory);
  EXPECT_FALSE(runner->StartCode("", ""));
}

TEST_F(RunnerTest, HandlersAreCalledInOrderWhateverTheOthersDo) {
  Start(R"(
    function first(...all) { note('first ' + JSON.stringify(all)); }
    function second() { note('second'); off('x', third); on('x', late); throw new Error('in second'); }
    function third() { note('third'); }
    function late() { note('late'); }
    on('x', first); on('x', second); on('x', third); on('x', first);
    once('x').then(([n]) => note('once ' + n));
    on('y', () => Promise.reject(new Error('nobody cares')));
    on('z', function () { off('z', arguments.callee); note('z'); });
  )");
  runner->Emit("x", 1, "a");
  EXPECT_EQ(Eval("0").As<int>(), 0);
  EXPECT_THAT(Notes(), ElementsAre("first [1,\"a\"]", "second", "first [1,\"a\"]", "once 1"));
  runner->Emit("x");
  runner->Emit("y");
  runner->Emit("z");
  runner->Emit("z");
  runner->Emit("nobody");
  Eval("0");
  EXPECT_THAT(Notes(),
              ::testing::UnorderedElementsAre("first [1,\"a\"]", "second", "first [1,\"a\"]", "once 1",
                                              "first []", "second", "first []", "late", "z"));
  const std::vector<LogLine> lines = Lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].automation, "hall");
  EXPECT_THAT(lines[0].message, HasSubstr("Event 'x': Error: in second\n    at second (hall.js:3:"));
  EXPECT_EQ(lines[0].error.line, 3);
  EXPECT_EQ(lines[2].error.kind, ErrorKind::kRejection);
  const Statistics now = runner->GetStatistics();
  EXPECT_EQ(now.failures, 3U);
  EXPECT_EQ(now.callbacks, 6U);
  EXPECT_EQ(now.runs, 3U);
  EXPECT_EQ(now.lastError.message, "nobody cares");
  EXPECT_EQ(Fail("on('x', 5)"), "on: handler must be a function, not a number");
  EXPECT_EQ(Fail("off(5)"), "off: event must be a string, not a number");
}

TEST_F(RunnerTest, EvalGivesValuesAndWhatPromisesBecome) {
  Start("");
  EXPECT_EQ(Eval("(async () => { await null; return {a: 1}; })()").Json(), R"({"a":1})");
  EXPECT_EQ(Eval("new Promise((resolve) => setTimeout(resolve, 30, 0)).then(() => 5)").As<int>(), 5);
  const ScriptError error = Try("(async () => { await null; null.x; })()").second;
  EXPECT_EQ(error.kind, ErrorKind::kRejection);
  EXPECT_THAT(error.message, HasSubstr("Cannot read properties of null"));
  EXPECT_EQ(error.line, 1);
  EXPECT_EQ(Try("Promise.resolve(Symbol())").second.message, "a symbol cannot be given to the host");
  EXPECT_EQ(Try(std::string("1\0+1", 4)).second.message, "The code has a NUL character");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RunnerTest, EndsInTheMiddleOfEverything) {
  std::atomic<bool> begun{false};
  const auto make = [&](const char* code) {
    Make({});
    runner->Define("begin()", [&] { begun = true; });
    begun = false;
    Start(code);
    runner->Emit("x");
    for (int i = 0; i < 10; ++i) runner->Emit("y");
    EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
  };
  // The callback ends in time, then onStop, and nothing more.
  make(
      "on('x', () => { begin(); const end = Date.now() + 100; while (Date.now() < end); note('x'); });"
      "on('y', () => note('y')); onStop(() => note('stop')); onStop(() => { for (;;) {} }); setTimeout(() => "
      "{}, 1e6)");
  EXPECT_EQ(runner->GetStatistics().timers, 1U);
  runner->Stop(2s);
  EXPECT_THAT(Notes(), ElementsAre("x", "stop"));
  EXPECT_EQ(runner->GetStatistics().dropped, 10U);
  EXPECT_EQ(runner->GetStatistics().interrupted, 1U);
  EXPECT_EQ(Lines(1).back().message, "Stopped; 10 that waited were dropped");

  // A script that catches everything.
  make("on('x', () => { begin(); for (;;) try { for (;;) {} } catch (e) {} finally { for (;;) {} } })");
  std::thread another([this] { runner->Stop(10s); });
  runner->Stop(50ms);
  another.join();
  EXPECT_EQ(runner->GetStatistics().state, State::kStopped);
  EXPECT_FALSE(runner->Emit("x"));
  EXPECT_EQ(runner->Reload(0ms).kind, ErrorKind::kHost);

  // The start itself.
  Make({});
  runner->Define("begin()", [&] { begun = true; });
  begun = false;
  std::thread stopper([&] {
    EXPECT_TRUE(WaitUntil([&] { return begun.load(); }));
    runner->Stop(0ms);
  });
  EXPECT_EQ(runner->StartCode("begin(); for (;;) {}", "").kind, ErrorKind::kInterrupted);
  stopper.join();
}

TEST_F(RunnerTest, InterruptEndsOnlyWhatRuns) {
  std::atomic<int> begun{0};
  runner->Define("begin()", [&] { ++begun; });
  Start("on('spin', () => { begin(); for (;;) {} }); on('x', () => note('x'))");
  runner->Interrupt();
  for (int i = 1; i <= 20; ++i) {
    runner->Emit("spin");
    runner->Emit("x");
    ASSERT_TRUE(WaitUntil([&] { return begun == i; }));
    runner->Interrupt();
  }
  Eval("0");
  EXPECT_EQ(Notes().size(), 20U);
  EXPECT_EQ(runner->GetStatistics().interrupted, 20U);
}

TEST_F(RunnerTest, ReloadLosesNoEventAndDelaysNobodyElse) {
  folder.Write("hall.js", "var count = 0; on('x', (n) => { note(String(n)); }); onStop(() => note('stop'));");
  const std::string file = folder.path() + "hall.js";
  ASSERT_FALSE(runner->Start(file.c_str()));
  std::atomic<bool> done{false};
  std::thread sender([&] {
    for (int i = 0; i < 1000; ++i) {
      EXPECT_TRUE(runner->Emit("x", i));
      std::this_thread::sleep_for(500us);
    }
    done = true;
  });
  int reloads = 0;
  for (; !done || reloads < 3; ++reloads) ASSERT_FALSE(runner->Reload(1s));
  sender.join();
  Eval("0");
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) expected.push_back(std::to_string(i));
  std::vector<std::string> notes = Notes();
  notes.erase(std::remove(notes.begin(), notes.end(), "stop"), notes.end());
  EXPECT_EQ(notes, expected);
  EXPECT_EQ(Notes().size(), 1000U + static_cast<size_t>(reloads));
  EXPECT_EQ(runner->GetStatistics().dropped, 0U);

  folder.Write("hall.js", "note('broken'); oops();");
  const ScriptError error = runner->Reload(0ms);
  EXPECT_EQ(error.message, "oops is not defined");
  EXPECT_EQ(runner->GetStatistics().state, State::kFailed);
  EXPECT_FALSE(runner->Emit("x"));
  folder.Write("hall.js", "note('repaired');");
  EXPECT_FALSE(runner->Reload(0ms));
  EXPECT_EQ(Notes().back(), "repaired");
}

TEST_F(RunnerTest, AReloadThatTakesLongDelaysNoOtherRunnerAndStopEndsIt) {
  folder.Write("slow.js", "on('x', () => 0); onStop(() => { note('leaving'); for (;;); });");
  ASSERT_FALSE(runner->Start((folder.path() + "slow.js").c_str()));
  RunnerOptions options;
  options.storageDir = folder.path();
  Runner other(options);
  std::atomic<int> seen{0};
  other.Define("seen()", [&] { ++seen; });
  ASSERT_FALSE(other.StartCode("on('x', () => seen())", "other.js"));
  std::thread reloading([&] { static_cast<void>(runner->Reload(std::chrono::hours(1))); });
  EXPECT_TRUE(WaitUntil([this] { return !Notes().empty(); }));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(other.Emit("x"));
  EXPECT_TRUE(WaitUntil([&] { return seen == 100; }));
  EXPECT_TRUE(runner->Emit("x")) << "waits for the new script";
  runner->Stop(0ms);
  reloading.join();
  EXPECT_EQ(runner->GetStatistics().state, State::kStopped);
}

TEST_F(RunnerTest, SignalsOfTheHostDisturbNothing) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &before);
  itimerval often{{0, 500}, {0, 500}};
  setitimer(ITIMER_REAL, &often, nullptr);
  Start("var n = 0; on('x', () => { ++n; }); setInterval(() => note('tick'), 30)");
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(runner->Emit("x"));
  EXPECT_EQ(Eval("n").As<int>(), 2000);
  EXPECT_TRUE(WaitUntil([this] { return Notes().size() > 3; }));
  EXPECT_FALSE(runner->Reload(1s));
  runner->Stop(1s);
  often = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(RunnerTest, AFullQueueRefusesAndSaysItOnce) {
  RunnerOptions options;
  options.queueLimit = 100;
  Make(options);
  std::promise<void> go;
  runner->Define("wait()", [&] { go.get_future().wait(); });
  Start(
      "var next = {}; on('x', (sender, n) => { if (!(n >= (next[sender] || 0))) throw new Error('order'); "
      "next[sender] = n; });");
  runner->Eval("wait()", "", nullptr);
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().queued == 0; }));
  std::atomic<int> accepted{0};
  std::vector<std::thread> senders;
  for (int sender = 0; sender < 8; ++sender) {
    senders.emplace_back([&, sender] {
      for (int i = 0; i < 5000; ++i) accepted += runner->Emit("x", sender, i) ? 1 : 0;
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(accepted, 100);
  EXPECT_EQ(runner->GetStatistics().queued, 100U);
  EXPECT_FALSE(runner->Post([] {}));
  go.set_value();
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().queued == 0; }));
  EXPECT_EQ(runner->GetStatistics().dropped, 8U * 5000 - 100 + 1);
  EXPECT_EQ(Lines().size(), 1U);
  // The same again, while it works on them.
  senders.clear();
  for (int sender = 0; sender < 8; ++sender) {
    senders.emplace_back([&, sender] {
      for (int i = 5000; i < 10000; ++i) accepted += runner->Emit("x", sender, i) ? 1 : 0;
    });
  }
  for (std::thread& sender : senders) sender.join();
  ASSERT_TRUE(WaitUntil([this] { return runner->GetStatistics().queued == 0; }));
  Eval("0");
  const Statistics now = runner->GetStatistics();
  EXPECT_EQ(now.callbacks, static_cast<uint64_t>(accepted));
  EXPECT_EQ(now.dropped, 8U * 10000 + 1 - static_cast<uint64_t>(accepted));
  EXPECT_EQ(now.failures, 0U);
}

TEST_F(RunnerTest, AnIdleOneNeverWakes) {
  Start("on('x', () => {})");
  runner->Emit("x");
  Eval("0");
  ASSERT_TRUE(WaitUntil([] { return Switches("hall") > 0; }));
  std::this_thread::sleep_for(50ms);
  const long before = Switches("hall");
  std::this_thread::sleep_for(1s);
  EXPECT_EQ(Switches("hall"), before);
}

TEST_F(RunnerTest, AChildOfAForkHasNone) {
  Start("");
  const pid_t child = fork();
  if (child == 0) {
    const bool isRefused = !runner->Emit("x") && !runner->Eval("1", "", nullptr) &&
                           runner->Reload(0ms).kind == ErrorKind::kHost &&
                           runner->StartCode("", "").kind == ErrorKind::kHost;
    runner->Stop(1s);
    runner.reset();
    bool isMade = false;
    try {
      Runner another({});
      isMade = true;
    } catch (const VornException&) {
    }
    _exit(isRefused && !isMade ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Eval("1").As<int>(), 1);
}

}  // namespace

}  // namespace vnjs::testing
