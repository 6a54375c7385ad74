// Saving and loading objects beside a plain program that calls the engine and the system itself. A row "with
// folder" has a raw side that, as the library does, also flushes the folder in which the file was renamed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_environment.h"
#include "tests/support/inside.h"

namespace {

using vnjs::Automation;
using vnjs::bench::RawEnvironment;

/// A script variable and what is in it.
struct Value {
  const char* size;
  const char* variable;
  const char* records;
};

constexpr Value kValues[] = {{"1 KB", "small", "20"}, {"1 MB", "large", "16000"}};

std::string Definition(const Value& value) {
  return std::string("var ") + value.variable + " = Array.from({length: " + value.records +
         "}, (nothing, i) => ({name: 'sensor ' + i, value: i / 7, on: true})); 0";
}

bool Flush(const char* path, int flags) {
  const int descriptor = open(path, flags | O_CLOEXEC);
  const bool flushed = descriptor >= 0 && fsync(descriptor) == 0;
  close(descriptor);
  return flushed;
}

bool RawSave(const RawEnvironment& raw, const std::string& folder, const char* variable, bool flushFolder) {
  const vnjs::testing::Inside inside(&raw);
  v8::Local<v8::String> name;
  v8::Local<v8::Value> value;
  v8::Local<v8::String> json;
  if (!v8::String::NewFromUtf8(inside.isolate, variable).ToLocal(&name) ||
      !inside.context->Global()->Get(inside.context, name).ToLocal(&value) ||
      !v8::JSON::Stringify(inside.context, value).ToLocal(&json)) {
    return false;
  }
  const v8::String::Utf8Value text(inside.isolate, json);
  const auto length = static_cast<size_t>(text.length());
  const std::string path = folder + "raw.json";
  const std::string temporary = path + ".tmp";
  const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  const bool written = write(file, *text, length) == text.length() && fsync(file) == 0;
  close(file);
  return written && rename(temporary.c_str(), path.c_str()) == 0 &&
         (!flushFolder || Flush(folder.c_str(), O_RDONLY | O_DIRECTORY));
}

bool RawLoad(const RawEnvironment& raw, const std::string& path) {
  const vnjs::testing::Inside inside(&raw);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (fstat(file, &status) != 0) return false;
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const bool read = ::read(file, text.data(), text.size()) == status.st_size;
  close(file);
  v8::Local<v8::String> json;
  v8::Local<v8::Value> value;
  return read &&
         v8::String::NewFromUtf8(inside.isolate, text.data(), v8::NewStringType::kNormal,
                                 static_cast<int>(text.size()))
             .ToLocal(&json) &&
         v8::JSON::Parse(inside.context, json).ToLocal(&value);
}

/// A row whose `work` does `count` operations; the time is that of one.
template <typename Work>
void AddRow(const std::string& name, int count, Work work) {
  const auto body = [count, work](benchmark::State& state) {
    for (auto _ : state) {
      const auto start = std::chrono::steady_clock::now();
      if (!work()) state.SkipWithError("failed");
      const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
      state.SetIterationTime(time.count() / count);
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), body)
      ->UseManualTime()
      ->Iterations(4)
      ->Repetitions(25)
      ->Unit(benchmark::kMicrosecond);
}

/// Runs a script text `count` times in one go.
bool Repeat(Automation& ours, int count, const std::string& code) {
  const std::string loop = "for (let i = 0; i < " + std::to_string(count) + "; ++i) { " + code + " }";
  return !ours.Run(loop.c_str(), "bench.js").isException();
}

template <typename Work>
bool Repeat(int count, Work work) {
  for (int i = 0; i < count; ++i) {
    if (!work()) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // The raw context comes first: a later one would hold the library's extensions too.
  vnjs::bench::StartEngine();
  RawEnvironment raw;
  std::string folder = (std::filesystem::temp_directory_path() / "vnjs-bench-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return 1;
  folder += "/";
  const std::string storage = folder + "storage/";
  std::filesystem::create_directory(storage);
  Automation ours(folder.c_str());

  for (const Value& value : kValues) {
    const char* const variable = value.variable;
    raw.Run(Definition(value).c_str(), "");
    ours.Run(Definition(value).c_str(), "");
    for (const bool flushFolder : {false, true}) {
      constexpr int kSaves = 5;
      const std::string group = std::string("save ") + value.size + (flushFolder ? ", folder flushed" : "");
      AddRow(group + "/ours", kSaves, [&, variable] {
        return Repeat(ours, kSaves, std::string("saveObject('state', ") + variable + ")");
      });
      AddRow(group + "/raw", kSaves, [&, variable, flushFolder] {
        return Repeat(kSaves, [&] { return RawSave(raw, storage, variable, flushFolder); });
      });
    }
  }

  constexpr int kLoads = 1000;
  Repeat(ours, 1, "saveObject('small', small)");
  const std::string saved = std::filesystem::directory_iterator(storage)->path();
  AddRow("load 1 KB/ours", kLoads, [&] { return Repeat(ours, kLoads, "loadObject('small')"); });
  AddRow("load 1 KB/raw", kLoads, [&] { return Repeat(kLoads, [&] { return RawLoad(raw, saved); }); });

  const int status = vnjs::bench::RunBenchmarks(argc, argv,
                                                {{"save 1 KB, folder flushed", 1.1},
                                                 {"save 1 MB, folder flushed", 1.1},
                                                 {"save 1 KB", 2},
                                                 {"save 1 MB", 2},
                                                 {"load 1 KB", 1.2}});
  std::filesystem::remove_all(folder);
  return status;
}
