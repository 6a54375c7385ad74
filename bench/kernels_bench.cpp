// What it costs scripts that calculate that the engine looks for interrupts often: each kernel once in a new process,
// beside the engine as it is. "short" is over before anything is optimised.
#include <time.h>

#include "bench/support/ratio_reporter.h"
#include "bench/support/sides.h"

namespace vnjs::bench {
namespace {

struct Kernel {
  const char* name;
  const char* code;
};

constexpr Kernel kCalls{"calls", "function f(n) { return n < 2 ? n : f(n - 1) + f(n - 2); } f(30)"};
constexpr Kernel kSieve{"sieve", R"(
  var a = new Uint8Array(2000000), c = 0;
  for (var i = 2; i < a.length; i++) if (!a[i]) { c++; for (var j = i * 2; j < a.length; j += i) a[j] = 1; }
  c)"};
constexpr Kernel kNumbers{"numbers", R"(
  var s = 0;
  for (var y = 0; y < 200; y++) for (var x = 0; x < 200; x++) {
    var a = 0, b = 0, n = 0;
    while (a * a + b * b < 4 && n < 100) { var t = a * a - b * b + x / 100 - 1.5; b = 2 * a * b + y / 100 - 1; a = t; n++; }
    s += n;
  }
  s)"};
constexpr Kernel kObjects{"objects", R"(
  var list = [], sums = {};
  for (var i = 0; i < 100000; i++) list.push({a: i, b: i * 2, c: 'k' + i % 100});
  for (var o of list) sums[o.c] = (sums[o.c] || 0) + o.a;
  Object.keys(sums).length)"};
constexpr Kernel kTexts{"texts", R"(
  var t = '', n = 0;
  for (var i = 0; i < 200000; i++) t += String.fromCharCode(65 + i % 26);
  for (var i = 0; i < t.length; i++) if (t.charCodeAt(i) === 66) n++;
  n)"};
constexpr Kernel kClosures{"closures", R"(
  var q = [1, 2, 3, 4, 5, 6, 7, 8, 9], n = 0;
  for (var i = 0; i < 50000; i++) n += q.map(x => x * 2).filter(x => x % 3).reduce((a, b) => a + b, 0);
  n)"};
constexpr Kernel kMatrix{"matrix", R"(
  var size = 120, row = i => Array.from({length: size}, (_, j) => i + j), a = Array.from({length: size}, (_, i) => row(i));
  var c = a.map(() => []);
  for (var i = 0; i < size; i++) for (var j = 0; j < size; j++) {
    for (var k = 0, s = 0; k < size; k++) s += a[i][k] * a[k][j];
    c[i][j] = s;
  }
  c[5][7])"};
constexpr Kernel kShort{"short", R"(
  var t = 20, last = [], on = false;
  for (var i = 0; i < 300; i++) {
    t += Math.sin(i) * 0.3;
    last.push(t);
    if (last.length > 24) last.shift();
    on = last.reduce((a, b) => a + b) / last.length > 20;
  }
  on)"};

/// Of all threads, because the engine optimises on one of its own.
double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

template <typename Side, const Kernel& kernel>
Measurement Measure() {
  Side::Start();
  Side side;
  const double start = ProcessorSeconds();
  const std::string result = side.Run(kernel.code);
  const double seconds = ProcessorSeconds() - start;
  Require(!result.empty() && result.find("rror") == std::string::npos);
  return {seconds, 0};
}

template <const Kernel&... kernels>
void AddRows() {
  (AddRow((std::string(kernels.name) + "/ours").c_str(), 15, Measure<Ours, kernels>), ...);
  (AddRow((std::string(kernels.name) + "/raw").c_str(), 15, Measure<Raw, kernels>), ...);
}

}  // namespace
}  // namespace vnjs::bench

int main(int argc, char** argv) {
  using namespace vnjs::bench;
  AddRows<kCalls, kSieve, kNumbers, kObjects, kTexts, kClosures, kMatrix, kShort>();
  return RunBenchmarks(argc, argv,
                       {{"calls", 1.15},
                        {"sieve", 1.15},
                        {"numbers", 1.15},
                        {"objects", 1.15},
                        {"texts", 1.15},
                        {"closures", 1.15},
                        {"matrix", 1.2},
                        {"short", 2.5}});
}
