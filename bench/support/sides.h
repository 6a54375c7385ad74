#pragma once

#include <benchmark/benchmark.h>
#include <vnjs/vnjs.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>

#include "bench/support/child.h"
#include "bench/support/raw_environment.h"

/// The two sides of measurements that have a process of their own each. There the library starts the engine as it
/// does in any host, and the raw contexts are without the library's extensions.
namespace vnjs::bench {

using Clock = std::chrono::steady_clock;

struct Ours {
  /// With as much heap as the raw side: how large it may be also says how it is collected.
  static void Start() { Automation::SetLimits(64 << 20, 64 << 20); }
  std::string Run(const std::string& code) { return automation.Run(code.c_str(), "bench.js").result(); }
  Automation automation{"."};
};

struct Raw {
  static void Start() { StartEngine(); }
  std::string Run(const std::string& code) { return environment.Run(code.c_str(), "bench.js"); }
  RawEnvironment environment;
};

inline double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Ends the child, so that no row is made of wrong results.
inline void Require(bool condition) {
  if (!condition) abort();
}

/// A row, which fails when the process needs more memory than that.
inline void AddRow(const char* name, int repetitions, Measurement (*measure)(), double mostBytes = HUGE_VAL) {
  const auto body = [measure, mostBytes](benchmark::State& state) {
    for (auto _ : state) MeasureInChild(state, measure);
    if (state.counters["memory"] > mostBytes) state.SkipWithError("too much memory");
  };
  benchmark::RegisterBenchmark(name, body)
      ->Iterations(1)
      ->Repetitions(repetitions)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace vnjs::bench
