// Reading and writing dictionaries, beside what a script would write itself: a Proxy that folds case over a
// Map. Both run in environments of the same kind.
#include <benchmark/benchmark.h>
#include <vnjs/vnjs.h>

#include <chrono>
#include <string>

#include "bench/support/ratio_reporter.h"

namespace {

using vnjs::Automation;

constexpr int kAccesses = 20000;

constexpr char kNewDictionary[] = "new NameValueDictionary()";
constexpr char kNewProxy[] = R"(new Proxy(new Map(), {
  get(map, name) { return map.get(name.toLowerCase()); },
  set(map, name, value) { map.set(name.toLowerCase(), value); return true; },
}))";

struct Access {
  const char* group;

  /// The script of one access; `i` counts them.
  const char* code;
};

constexpr Access kAccess[] = {
    {"get stored spelling", "result += entries[names[i % names.length]]"},
    {"get other spelling", "result += entries[capitals[i % names.length]]"},
    {"set", "entries[names[i % names.length]] = i; result += 1"},
};

/// Ten names that stand in the script, each at a place of its own.
constexpr Access kWrittenOut = {"get written out", R"(result +=
    entries["Header-Name0"] + entries["Header-Name1"] + entries["Header-Name2"] + entries["Header-Name3"] +
    entries["Header-Name4"] + entries["Header-Name5"] + entries["Header-Name6"] + entries["Header-Name7"] +
    entries["Header-Name8"] + entries["Header-Name9"]; i += 9)"};

void AddRow(const Access& access, int names, const char* row, const char* newEntries,
            Automation& automation) {
  const std::string count = std::to_string(names);
  const std::string accesses = std::to_string(kAccesses);
  // The name of the row keeps the engine from sharing what it learns about one row's code with another's.
  const std::string setup = "// " + std::string(access.group) + count + row + R"(
    (function () {
      const names = Array.from({length: )" +
                            count + R"(}, (nothing, i) => 'Header-Name' + i);
      const capitals = names.map(name => name.toUpperCase());
      const entries = )" + newEntries +
                            R"(;
      for (const name of names) entries[name] = 1;
      measure = function () { let result = 0; for (let i = 0; i < )" +
                            accesses + "; ++i) { " + access.code +
                            R"( } return result; };
    })())";
  const auto body = [setup, accesses, &automation](benchmark::State& state) {
    automation.Run("var measure", "");
    std::string result = automation.Run(setup.c_str(), "").result();
    for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      result = automation.Run("measure()", "").result();
      const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
      state.SetIterationTime(time.count() / kAccesses);
    }
    if (result != accesses) state.SkipWithError(result.c_str());
  };
  benchmark::RegisterBenchmark((std::string(access.group) + ", " + count + " names/" + row).c_str(), body)
      ->UseManualTime()
      ->Iterations(50);
}

}  // namespace

int main(int argc, char** argv) {
  Automation ours(".");
  Automation raw(".");
  // The first one is made by another function than all that follow.
  ours.Run(kNewDictionary, "");
  const auto addGroup = [&](const Access& access, int names) {
    AddRow(access, names, "ours", kNewDictionary, ours);
    AddRow(access, names, "raw", kNewProxy, raw);
  };
  for (const int names : {10, 100, 1000}) {
    for (const Access& access : kAccess) addGroup(access, names);
  }
  addGroup(kWrittenOut, 10);
  return vnjs::bench::RunBenchmarks(argc, argv,
                                    {{"get stored spelling, 10 names", 1.1},
                                     {"get stored spelling, 100 names", 1.1},
                                     {"get stored spelling, 1000 names", 1.1},
                                     {"get written out, 10 names", 1.7},
                                     {"get other spelling, 10 names", 8},
                                     {"get other spelling, 100 names", 8},
                                     {"get other spelling, 1000 names", 8},
                                     {"set, 10 names", 1.1},
                                     {"set, 100 names", 1.1},
                                     {"set, 1000 names", 1.1}});
}
