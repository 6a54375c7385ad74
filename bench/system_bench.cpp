// What system() costs beside a plain program that starts the same shell command, for a command that does
// nothing and for one that prints 10 MB.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_environment.h"
#include "tests/support/temporary_folder.h"

namespace {

using vnjs::Automation;
using vnjs::bench::RawEnvironment;

constexpr size_t kOutputSize = 10 << 20;

/// What system() reads at once.
constexpr size_t kChunk = 256;

/// Runs a shell command by posix_spawn and returns its output, read in pieces of at most `chunk` bytes. The
/// status must be 0.
std::string SpawnShell(const char* command, size_t chunk) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) abort();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const char* const arguments[] = {"sh", "-c", command, nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(arguments), environ) != 0) abort();
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);

  std::string output;
  std::vector<char> buffer(chunk);
  for (ssize_t count; (count = read(ends[0], buffer.data(), chunk)) > 0;) {
    output.append(buffer.data(), static_cast<size_t>(count));
  }
  close(ends[0]);
  int status = -1;
  if (waitpid(pid, &status, 0) != pid || status != 0) abort();
  return output;
}

void AddOurs(const char* name, Automation& ours, std::string script, std::string expected) {
  benchmark::RegisterBenchmark(name, [&ours, script, expected](benchmark::State& state) {
    std::string result;
    for (auto _ : state) result = ours.Run(script.c_str(), "bench.js").result();
    if (result != expected) state.SkipWithError(result.c_str());
  });
}

void AddRaw(const char* name, RawEnvironment& raw, std::string command, size_t chunk) {
  benchmark::RegisterBenchmark(name, [&raw, command, chunk](benchmark::State& state) {
    const v8::Locker locker(raw.GetIsolate());
    const v8::Isolate::Scope isolateScope(raw.GetIsolate());
    for (auto _ : state) {
      const v8::HandleScope handleScope(raw.GetIsolate());
      const std::string output = SpawnShell(command.c_str(), chunk);
      benchmark::DoNotOptimize(v8::String::NewFromUtf8(
          raw.GetIsolate(), output.data(), v8::NewStringType::kNormal, static_cast<int>(output.size())));
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  // A storage directory that allows every command and holds a file to print.
  const vnjs::testing::TemporaryFolder storage;
  storage.Write(".syscommands", "\n");
  storage.Write("output", std::string(kOutputSize, 'x'));
  // The raw context comes first: a later one would hold the library's extensions too.
  vnjs::bench::StartEngine();
  RawEnvironment raw;
  Automation ours(storage.path().c_str());

  AddOurs("system true/ours", ours, "system('true')[0]", "0");
  AddRaw("system true/raw", raw, "true", kChunk);
  const std::string print = "cat " + storage.path() + "output";
  AddOurs("system 10 MB/ours", ours, "system('" + print + "')[1].length", std::to_string(kOutputSize));
  AddRaw("system 10 MB/raw", raw, print, kChunk);
  // No limit: it shows what the small chunks cost both others.
  AddRaw("system 10 MB/raw in large chunks", raw, print, 65536);
  return vnjs::bench::RunBenchmarks(argc, argv, {{"system true", 1.3}, {"system 10 MB", 2.0}});
}
