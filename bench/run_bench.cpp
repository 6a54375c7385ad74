// What one Run of a small text costs beside a plain loop around the engine in the same process, when hosts
// call the same text again and again.
#include <benchmark/benchmark.h>
#include <vnjs/vnjs.h>

#include <string>

#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_environment.h"

namespace {

using vnjs::Automation;
using vnjs::bench::RawEnvironment;

struct Text {
  const char* group;
  const char* code;
  const char* expected;
};

constexpr Text kTexts[] = {
    {"Run sum", "1+1", "2"},
    {"Run object", R"(var o = {a: 1, b: "text", c: [1, 2, 3]}; o.a += 41; o)",
     R"({"a":42,"b":"text","c":[1,2,3]})"},
};

std::string Run(Automation& ours, const char* code) { return ours.Run(code, "bench.js").result(); }
std::string Run(RawEnvironment& raw, const char* code) { return raw.Run(code, "bench.js"); }

template <typename Environment>
void AddRow(const Text& text, const char* row, Environment& environment) {
  const auto body = [&](benchmark::State& state) {
    std::string result;
    for (auto _ : state) result = Run(environment, text.code);
    if (result != text.expected) state.SkipWithError(result.c_str());
  };
  benchmark::RegisterBenchmark((std::string(text.group) + row).c_str(), body)
      ->Iterations(100000)
      ->Repetitions(21);
}

}  // namespace

int main(int argc, char** argv) {
  // The raw context comes first: a later one would hold the library's extensions too.
  vnjs::bench::StartEngine();
  RawEnvironment raw;
  Automation ours(".");
  for (const Text& text : kTexts) {
    AddRow(text, "/ours", ours);
    AddRow(text, "/raw", raw);
  }
  return vnjs::bench::RunBenchmarks(
      argc, argv,
      {{"Run sum", 1.0}, {"Run sum", 1.0, "cpu"}, {"Run object", 1.0}, {"Run object", 1.0, "cpu"}});
}
