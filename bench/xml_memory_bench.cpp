// What XML leaves in memory: a loop that makes and drops documents, beside the same loop in a thin binding of
// libxml2 to the engine, and a document that is asked again and again, beside itself before. Each measurement
// is a process of its own.
//
// The loop makes as many documents as the environment variable DOCUMENTS says, or as many as show that the
// peak is reached.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdlib>
#include <string>

#include "bench/support/items_xml.h"
#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_xml.h"
#include "bench/support/sides.h"
#include "tests/support/inside.h"

namespace {

using vnjs::bench::AddRow;
using vnjs::bench::Clock;
using vnjs::bench::ItemsXml;
using vnjs::bench::Measurement;
using vnjs::bench::Ours;
using vnjs::bench::Raw;
using vnjs::bench::Require;
using vnjs::bench::SecondsSince;

/// The most that a process may hold that makes and drops documents with a small heap.
constexpr double kMostBytes = 120e6;
constexpr char kSmallHeap[] = "--max-heap-size=64";

/// The raw side, with its own XML.
struct RawWithXml : Raw {
  vnjs::bench::RawXml xml{environment};
};

double PeakBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) * 1024;
}

int Documents() {
  const char* const count = getenv("DOCUMENTS");
  return count == nullptr ? 500 : atoi(count);
}

/// The time of one document, and the most memory that the process ever had.
template <typename Environment>
Measurement MakeAndDrop() {
  v8::V8::SetFlagsFromString(kSmallHeap);
  Environment::Start();
  Environment environment;
  // Dense markup: the tree takes nearly thirty times the memory of the text.
  const std::string text = ItemsXml(7590, R"( on="1" ok="1"/>)");
  const int documents = Documents();
  environment.Run("var text = `" + text + "`; 0");
  const Clock::time_point start = Clock::now();
  const std::string made = environment.Run("let made = 0; while (made < " + std::to_string(documents) +
                                           " && new VXmlDocument(text)) ++made; made");
  const double seconds = SecondsSince(start);
  Require(made == std::to_string(documents));
  return {seconds / documents, PeakBytes()};
}

/// The time of one findOne, and all the memory that is left after `count` of them and a collection.
template <int count>
Measurement FindOne() {
  Ours environment;
  environment.Run("var doc = new VXmlDocument(`" + ItemsXml(100, " unit=\"C\">21.5</item>") + "`); 0");
  const Clock::time_point start = Clock::now();
  const std::string found = environment.Run(
      "let found = 0; for (let i = 0; i < " + std::to_string(count) +
      "; ++i) if (doc.findOne('//item[@id=' + i % 100 + ']').attributes.id == i % 100) ++found; found");
  const double seconds = SecondsSince(start);
  Require(found == std::to_string(count));
  vnjs::testing::Inside(environment.automation.GetEnvironment()).isolate->LowMemoryNotification();
  return {seconds / count, static_cast<double>(vnjs::bench::PrivateBytes())};
}

}  // namespace

int main(int argc, char** argv) {
  AddRow("make and drop documents of 236 KB/ours", 3, MakeAndDrop<Ours>, kMostBytes);
  AddRow("make and drop documents of 236 KB/raw", 3, MakeAndDrop<RawWithXml>);
  AddRow("findOne 100,000 times/ours", 7, FindOne<150000>);
  AddRow("findOne 100,000 times/raw", 7, FindOne<50000>);
  return vnjs::bench::RunBenchmarks(
      argc, argv,
      {{"make and drop documents of 236 KB", 1.1, "memory"}, {"findOne 100,000 times", 1.1, "memory"}});
}
