// What the engine and its environments take, in a process that does nothing else: one line of numbers for
// ./dev footprint. Milliseconds until the first result; KiB of memory that no other process shares after it, for each
// further environment that has run something, and for each that runs scripts on a thread of its own.
#include <vnjs/vnjs.h>

#include <chrono>
#include <cstdio>
#include <list>

#include "bench/support/child.h"

namespace {

constexpr int kFurther = 10;

double Kib(size_t bytes) { return static_cast<double>(bytes) / 1024; }

double KibOfEach(bool threaded) {
  std::list<vnjs::Automation> further;
  const size_t before = vnjs::bench::PrivateBytes();
  for (int i = 0; i < kFurther; ++i) {
    further.emplace_back("./");
    if (threaded) further.back().StartThread();
    further.back().Run("1 + 1", "footprint.js");
  }
  return Kib(vnjs::bench::PrivateBytes() - before) / kFurther;
}

}  // namespace

int main() {
  const size_t before = vnjs::bench::PrivateBytes();
  const auto start = std::chrono::steady_clock::now();
  vnjs::Automation first("./");
  first.Run("1 + 1", "footprint.js");
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  const double memory = Kib(vnjs::bench::PrivateBytes() - before);
  const double further = KibOfEach(false);
  printf("%.0f %.0f %.0f %.0f\n", taken.count(), memory, further, KibOfEach(true));
}
