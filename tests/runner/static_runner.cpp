// Runners as long as statics: one that starts before main, and ends in a destructor after it, when much else has gone.
#include <vnjs/runner.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

std::atomic<int> ticks{0};
vnjs::Value keptFunction;

/// The log of the tests' host is a static itself, which may come later.
vnjs::RunnerOptions Options() {
  vnjs::RunnerOptions options;
  options.storageDir = ".";
  options.log = [](const vnjs::LogLine&) {};
  return options;
}

struct Automation {
  Automation() {
    runner.Define("tick()", [] { ++ticks; }).Define("keep(value)", [](const vnjs::Value& value) {
      keptFunction = value;
    });
    if (runner.StartCode("setInterval(tick, 25); keep(() => 1); onStop(tick);", "static")) abort();
  }
  ~Automation() {
    const int before = ticks;
    runner.Stop(std::chrono::seconds(1));
    // At least onStop.
    if (ticks == before || keptFunction.Post()) _Exit(1);
    puts("ended");
  }
  vnjs::Runner runner{Options()};
} automation;

}  // namespace

int main() {
  static vnjs::Runner later{Options()};
  if (later.StartCode("setInterval(() => {}, 25)", "later")) return 1;
  while (ticks < 3) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return 0;
}
