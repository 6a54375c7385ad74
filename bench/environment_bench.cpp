// What an environment costs beside a bare isolate with a context: one more of them to its first result, and
// the memory that one holds after 100,000 texts that it had never seen.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/support/median.h"
#include "bench/support/ratio_reporter.h"
#include "bench/support/sides.h"

namespace {

using vnjs::bench::AddRow;
using vnjs::bench::Clock;
using vnjs::bench::Measurement;
using vnjs::bench::Ours;
using vnjs::bench::PrivateBytes;
using vnjs::bench::Raw;
using vnjs::bench::Require;
using vnjs::bench::SecondsSince;

constexpr int kMore = 20;
constexpr int kTexts = 100000;

/// One more beside a first one that started the engine, as the median of twenty that are all kept alive.
template <typename Environment>
Measurement OneMore() {
  std::vector<std::unique_ptr<Environment>> alive;
  const auto add = [&] {
    alive.push_back(std::make_unique<Environment>());
    Require(alive.back()->Run("1+1") == "2");
  };
  Environment::Start();
  add();
  const size_t bytes = PrivateBytes();
  std::vector<double> seconds;
  for (int i = 0; i < kMore; ++i) {
    const Clock::time_point start = Clock::now();
    add();
    seconds.push_back(SecondsSince(start));
  }
  return {vnjs::bench::Median(seconds), static_cast<double>(PrivateBytes() - bytes) / kMore};
}

/// The object script of the other programs, each time with another number in it.
std::vector<std::string> MakeTexts() {
  std::vector<std::string> texts;
  texts.reserve(kTexts);
  for (int i = 0; i < kTexts; ++i) {
    texts.push_back("var o = {a: " + std::to_string(i) + ", b: \"text\", c: [1, 2, 3]}; o.a += 41; o");
  }
  return texts;
}

/// The time of one text, and all the memory that came with the engine, the environment and the texts it ran.
template <typename Environment>
Measurement NewTexts() {
  const std::vector<std::string> texts = MakeTexts();
  const size_t bytes = PrivateBytes();
  Environment::Start();
  const auto environment = std::make_unique<Environment>();
  std::string result;
  const Clock::time_point start = Clock::now();
  for (const std::string& text : texts) result = environment->Run(text);
  const double seconds = SecondsSince(start);
  Require(result == R"({"a":100040,"b":"text","c":[1,2,3]})");
  return {seconds / kTexts, static_cast<double>(PrivateBytes() - bytes)};
}

}  // namespace

int main(int argc, char** argv) {
  AddRow("One more environment/ours", 31, OneMore<Ours>);
  AddRow("One more environment/raw", 31, OneMore<Raw>);
  AddRow("Run new text/ours", 31, NewTexts<Ours>);
  AddRow("Run new text/raw", 31, NewTexts<Raw>);
  return vnjs::bench::RunBenchmarks(argc, argv,
                                    {{"One more environment", 1.5},
                                     {"One more environment", 1.5, "memory"},
                                     {"Run new text", 1.15},
                                     {"Run new text", 1.2, "memory"}});
}
