#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

namespace vnjs::bench {

/// What a child process measured.
struct Measurement {
  double seconds;
  double bytes;
};

/// One iteration of a benchmark with `UseManualTime` that needs a process of its own, because the engine
/// starts only once in a process and keeps what it took. The seconds become the iteration's time, the bytes
/// the counter "memory". The calling process must not have started the engine.
void MeasureInChild(benchmark::State& state, Measurement (*measure)());

/// The memory that only this process has: resident pages without those of files.
size_t PrivateBytes();

}  // namespace vnjs::bench
