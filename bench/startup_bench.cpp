// From the start of a process to its end with one result: `vnjs eval 1+1` beside a program linked with the
// engine alone.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "bench/support/ratio_reporter.h"
#include "tests/support/temporary_folder.h"

namespace {

/// What the program printed on its standard output; empty when it failed.
std::string OutputOf(std::vector<const char*> command) {
  command.push_back(nullptr);
  int ends[2];
  if (pipe(ends) != 0) return "";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  pid_t child = 0;
  const int error =
      posix_spawn(&child, command[0], &actions, nullptr, const_cast<char**>(command.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);

  std::string output;
  char buffer[64];
  for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;) {
    output.append(buffer, static_cast<size_t>(count));
  }
  close(ends[0]);
  int status = 0;
  if (error != 0 || waitpid(child, &status, 0) != child || status != 0) return "";
  return output;
}

void Eval(benchmark::State& state, std::vector<const char*> command) {
  for (auto _ : state) {
    if (OutputOf(command) != "2\n") state.SkipWithError("the program failed");
  }
}

BENCHMARK_CAPTURE(Eval, ours, {VNJS_PROGRAM, "eval", "1+1"})
    ->Iterations(1)
    ->Repetitions(101)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Eval, raw, {RAW_EVAL_PROGRAM, "1+1"})
    ->Iterations(1)
    ->Repetitions(101)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // The program makes its "storage" where it stands.
  const std::filesystem::path original = std::filesystem::current_path();
  const vnjs::testing::TemporaryFolder folder;
  std::filesystem::current_path(folder.path());
  const int status = vnjs::bench::RunBenchmarks(argc, argv, {{"Eval", 1.25}});
  std::filesystem::current_path(original);
  return status;
}
