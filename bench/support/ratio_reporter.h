#pragma once

#include <initializer_list>

namespace vnjs::bench {

/// The most that our row of a group may cost, as a multiple of the raw row.
///
/// A group is a pair of benchmarks with the names "GROUP/ours" and "GROUP/raw". The raw one does the same
/// work as a plain program would that calls the engine, libxml2 or the system itself.
struct Limit {
  const char* group;
  double most;

  /// What is compared: the user counter of this name, "cpu" for the calling thread's time, or the real time
  /// when null. On a busy machine "cpu" is the steadier one; it does not see other threads and processes.
  const char* counter = nullptr;
};

/// The whole of a benchmark program's `main`: runs what is registered, a few repetitions of each in random
/// order, prints the median and the variation of each, and then for each limit the ratio of the medians of
/// this run.
///
///     void ParseOurs(benchmark::State& state) { for (auto _ : state) ...; }
///     void ParseRaw(benchmark::State& state) { for (auto _ : state) ...; }
///     BENCHMARK(ParseOurs)->Name("Parse 1 KB/ours");
///     BENCHMARK(ParseRaw)->Name("Parse 1 KB/raw");
///     int main(int argc, char** argv) { return vnjs::bench::RunBenchmarks(argc, argv, {{"Parse 1
///     KB", 1.1}}); }
///
/// Name a row with `Name`, not with `Arg`: only the name is looked at. `Iterations` and `Repetitions` may be
/// set; `UseManualTime` with `SetIterationTime` compares a time measured elsewhere. Flags of the command line
/// come after our own, so they win.
///
/// Returns the exit status: 1 when a limit is missed or a row failed (`SkipWithError`). A limit whose rows a
/// filter left out is only said to be so.
int RunBenchmarks(int argc, char** argv, std::initializer_list<Limit> limits);

}  // namespace vnjs::bench
