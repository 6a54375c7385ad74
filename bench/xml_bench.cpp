// XML beside a thin binding of libxml2 to the engine in an isolate of its own, and writing a document beside
// libxml2 from C.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <vnjs/vnjs.h>

#include <functional>
#include <memory>
#include <string>

#include "bench/support/items_xml.h"
#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_environment.h"
#include "bench/support/raw_xml.h"

namespace {

using vnjs::Automation;
using vnjs::bench::ItemsXml;
using vnjs::bench::RawEnvironment;

/// Function expressions that take an XML text and return the function to measure, which returns a length.
constexpr char kParseAndSerialiseSmall[] = R"(text => () => {
  let length = 0;
  for (let i = 0; i < 1000; ++i) length += new VXmlDocument(text).toString().length;
  return length;
})";
constexpr char kParseAndSerialise[] = R"(text => () => {
  let length = 0;
  for (let i = 0; i < 20; ++i) length += new VXmlDocument(text).toString().length;
  return length;
})";
constexpr char kFindAndRead[] = R"(text => {
  const doc = new VXmlDocument(text);
  return () => {
    let length = 0;
    for (const item of doc.findAll('//item[@id]')) {
      length += item.name.length + item.text.length + item.attributes.id.length;
    }
    return length;
  };
})";
constexpr char kSerialise[] = R"(text => {
  const doc = new VXmlDocument(text);
  return () => {
    let length = 0;
    for (let i = 0; i < 50; ++i) length += doc.toString().length;
    return length;
  };
})";

std::string Run(Automation& ours, const std::string& code) {
  return ours.Run(code.c_str(), "bench.js").result();
}
std::string Run(RawEnvironment& raw, const std::string& code) { return raw.Run(code.c_str(), "bench.js"); }

/// Prepares the function to measure and returns what calls it.
template <typename Environment>
std::function<std::string()> Measured(Environment& environment, const std::string& group, const char* script,
                                      const std::string& text) {
  const std::string function = "globalThis['" + group + "']";
  Run(environment, function + " = (" + script + ")(`" + text + "`); 0");
  return [&environment, call = function + "()"] { return Run(environment, call); };
}

/// What `kSerialise` does, from C.
std::function<std::string()> MeasuredFromC(const std::string& text) {
  const std::shared_ptr<xmlDoc> document(
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NOBLANKS),
      xmlFreeDoc);
  return [document] {
    int64_t length = 0;
    for (int i = 0; i < 50; ++i) {
      xmlChar* buffer = nullptr;
      int size = 0;
      xmlDocDumpFormatMemory(document.get(), &buffer, &size, 1);
      xmlFree(buffer);
      length += size;
    }
    return std::to_string(length);
  };
}

void AddRow(const std::string& name, const std::function<std::string()>& measured,
            const std::string& expected) {
  const auto body = [measured, expected](benchmark::State& state) {
    std::string result;
    for (auto _ : state) result = measured();
    if (result != expected) state.SkipWithError(result.c_str());
  };
  benchmark::RegisterBenchmark(name.c_str(), body)
      ->Iterations(10)
      ->Repetitions(25)
      ->Unit(benchmark::kMillisecond);
}

void AddRows(const std::string& group, const std::function<std::string()>& ours,
             const std::function<std::string()>& raw) {
  const std::string expected = raw();
  AddRow(group + "/ours", ours, expected);
  AddRow(group + "/raw", raw, expected);
}

}  // namespace

int main(int argc, char** argv) {
  // The raw context comes first: a later one would hold the library's extensions too.
  vnjs::bench::StartEngine();
  RawEnvironment raw;
  const vnjs::bench::RawXml rawXml(raw);
  Automation ours(".");

  constexpr char kNested[] = R"( unit="C"><name>Living room</name><value>21.5</value></item>)";
  constexpr char kFlat[] = R"( unit="C">21.5 in the living room</item>)";
  const std::string text100KB = ItemsXml(1350, kNested);
  const auto addGroup = [&](const char* group, const char* script, const std::string& text) {
    AddRows(group, Measured(ours, group, script, text), Measured(raw, group, script, text));
  };
  addGroup("parse and serialise 1 KB", kParseAndSerialiseSmall, ItemsXml(13, kNested));
  addGroup("parse and serialise 100 KB", kParseAndSerialise, text100KB);
  addGroup("find 10,000 and read", kFindAndRead, ItemsXml(10000, kFlat));
  AddRows("serialise 100 KB", Measured(ours, "serialise 100 KB", kSerialise, text100KB),
          MeasuredFromC(text100KB));
  return vnjs::bench::RunBenchmarks(argc, argv,
                                    {{"parse and serialise 1 KB", 1.1},
                                     {"parse and serialise 1 KB", 1.1, "cpu"},
                                     {"parse and serialise 100 KB", 1.1},
                                     {"parse and serialise 100 KB", 1.1, "cpu"},
                                     {"find 10,000 and read", 1.0},
                                     {"find 10,000 and read", 1.0, "cpu"},
                                     {"serialise 100 KB", 1.15},
                                     {"serialise 100 KB", 1.15, "cpu"}});
}
