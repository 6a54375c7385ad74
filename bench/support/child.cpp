#include "bench/support/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace vnjs::bench {

void MeasureInChild(benchmark::State& state, Measurement (*measure)()) {
  int ends[2];
  if (pipe(ends) != 0) return state.SkipWithError("no pipe");
  const pid_t child = fork();
  if (child == 0) {
    const Measurement measured = measure();
    _exit(write(ends[1], &measured, sizeof measured) == sizeof measured ? 0 : 1);
  }
  close(ends[1]);
  Measurement measured{};
  const bool whole = child > 0 && read(ends[0], &measured, sizeof measured) == sizeof measured;
  close(ends[0]);
  if (child > 0) waitpid(child, nullptr, 0);
  if (!whole) return state.SkipWithError("the child measured nothing");
  state.SetIterationTime(measured.seconds);
  state.counters["memory"] =
      benchmark::Counter(measured.bytes, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

size_t PrivateBytes() {
  unsigned long resident = 0;
  unsigned long shared = 0;
  FILE* const file = fopen("/proc/self/statm", "r");
  if (file == nullptr || fscanf(file, "%*u %lu %lu", &resident, &shared) != 2) perror("/proc/self/statm");
  if (file != nullptr) fclose(file);
  return (resident - shared) * static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
}

}  // namespace vnjs::bench
