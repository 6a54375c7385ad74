#include "bench/support/ratio_reporter.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/support/median.h"

namespace vnjs::bench {
namespace {

/// What the repetitions of one row measured: the times in seconds under "" and "cpu", each user counter under
/// its name.
using Measured = std::map<std::string, std::vector<double>>;

/// Whether a row failed, which the library has told in two ways.
template <typename Run>
auto HasFailed(const Run& run, int /*preferred*/) -> decltype(run.error_occurred) {
  return run.error_occurred;
}
template <typename Run>
auto HasFailed(const Run& run, long /*newer*/) -> decltype(run.skip_message.empty()) {
  return !run.skip_message.empty();
}

/// The console's table without the single repetitions, and a memory of what they measured.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) == 1 ? OO_ColorTabular : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      const bool failed = HasFailed(run, 0);
      m_failed |= failed;
      if (run.run_type == Run::RT_Iteration && !failed) Remember(run);
      if (IsShown(run)) shown.push_back(run);
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }

  /// Whether a row failed.
  bool failed() const { return m_failed; }

  /// Prints one line. Returns whether the limit is kept, or its rows were filtered out.
  bool ReportLimit(const Limit& limit) const {
    const std::string counter = limit.counter == nullptr ? "" : limit.counter;
    const char* const what = limit.counter == nullptr ? "time" : limit.counter;
    const std::vector<double>* const ours = Find(limit.group + std::string("/ours"), counter);
    const std::vector<double>* const raw = Find(limit.group + std::string("/raw"), counter);
    if (ours == nullptr || raw == nullptr) {
      printf("%-50s %-8s        %8.2f  not run\n", limit.group, what, limit.most);
      return !benchmark::GetBenchmarkFilter().empty();
    }
    const double ratio = Median(*ours) / Median(*raw);
    const bool kept = ratio <= limit.most;
    printf("%-50s %-8s %6.3f %8.2f  %s\n", limit.group, what, ratio, limit.most, kept ? "ok" : "MISSED");
    return kept;
  }

 private:
  static bool IsShown(const Run& run) {
    if (HasFailed(run, 0)) return true;
    if (run.run_type == Run::RT_Iteration) return run.repetitions == 1;
    return run.aggregate_name == "median" || run.aggregate_name == "cv";
  }

  void Remember(const Run& run) {
    Measured& row = m_rows[run.run_name.function_name];
    const double unitsPerSecond = benchmark::GetTimeUnitMultiplier(run.time_unit);
    row[""].push_back(run.GetAdjustedRealTime() / unitsPerSecond);
    row["cpu"].push_back(run.GetAdjustedCPUTime() / unitsPerSecond);
    for (const auto& [name, counter] : run.counters) row[name].push_back(counter.value);
  }

  const std::vector<double>* Find(const std::string& name, const std::string& counter) const {
    const auto row = m_rows.find(name);
    if (row == m_rows.end()) return nullptr;
    const auto values = row->second.find(counter);
    return values == row->second.end() ? nullptr : &values->second;
  }

  std::map<std::string, Measured> m_rows;
  bool m_failed = false;
};

}  // namespace

int RunBenchmarks(int argc, char** argv, std::initializer_list<Limit> limits) {
  // Neighbours in time share the machine's moods; random order spreads them over both rows of a group.
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::string repetitions = "--benchmark_repetitions=9";
  std::vector<char*> arguments{argv[0], interleaving.data(), repetitions.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  printf("\n%-50s %-8s %6s %8s\n", "ours / raw, medians of this run", "of", "ratio", "at most");
  bool good = !reporter.failed();
  for (const Limit& limit : limits) good = reporter.ReportLimit(limit) && good;
  return good ? 0 : 1;
}

}  // namespace vnjs::bench
