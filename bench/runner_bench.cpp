// What a runner costs beside a plain program's thread with a condition variable, a Locker and a call, and beside callbacks
// of the engine written by hand.
#include <benchmark/benchmark.h>
#include <semaphore.h>
#include <vnjs/runner.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/ratio_reporter.h"
#include "bench/support/raw_runner.h"
#include "tests/support/inside.h"

namespace {

using vnjs::bench::RawEnvironment;
using vnjs::bench::RawRunner;
using Clock = std::chrono::steady_clock;
using Info = v8::FunctionCallbackInfo<v8::Value>;

constexpr int kEvents = 1000000;

/// The calling thread sleeps until the runner's has done something.
class Signal {
 public:
  Signal() { sem_init(&m_semaphore, 0, 0); }
  ~Signal() { sem_destroy(&m_semaphore); }
  void Set() { sem_post(&m_semaphore); }
  void Wait() {
    while (sem_wait(&m_semaphore) != 0) {
    }
  }

 private:
  sem_t m_semaphore;
};

/// What both sides' natives do.
struct Host {
  void SetLamp(const std::string& id, double level) { sum += level + static_cast<double>(id.size()); }
  void OnEvent(const std::string& room, double lux) {
    begun = Clock::now();
    sum += lux + static_cast<double>(room.size());
    if (--expected == 0) signal.Set();
  }

  double sum = 0;
  std::atomic<int> expected{0};
  Clock::time_point begun;
  Signal signal;
};

constexpr char kScript[] = R"(
  function calls() { for (let i = 0; i < 100000; ++i) setLamp('hall lamp', i); }
  var fields = {
    field0: 0, field1: 'text 1', field2: true, field3: null, field4: 6.25, field5: 'text 5', field6: true, field7: null,
    field8: 12, field9: 'text 9', field10: true, field11: null, field12: 18.5, field13: 'text 13', field14: false,
    field15: null, field16: 24, field17: 'text 17', field18: true, field19: null,
  };
  function copies() { for (let i = 0; i < 1000; ++i) if (copy(fields).field1 !== 'text 1') throw new Error('copy'); }
  var handler = (room, lux) => onEvent(room, lux);
)";

Host* HostOf(const Info& info) { return static_cast<Host*>(info.Data().As<v8::External>()->Value()); }

std::string TextOf(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  const v8::String::Utf8Value text(isolate, value);
  return {*text, static_cast<size_t>(text.length())};
}

/// One with the conversions of a (string, double): the types are checked, and nothing is let through.
template <void (Host::*native)(const std::string&, double)>
void RawNative(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  if (info.Length() < 2 || !info[0]->IsString() || !info[1]->IsNumber()) {
    isolate->ThrowException(
        v8::Exception::TypeError(v8::String::NewFromUtf8Literal(isolate, "bad arguments")));
    return;
  }
  try {
    (HostOf(info)->*native)(TextOf(isolate, info[0]), info[1].As<v8::Number>()->Value());
  } catch (const std::exception&) {
    isolate->ThrowException(v8::Exception::Error(v8::String::NewFromUtf8Literal(isolate, "failed")));
  }
}

void RawCopy(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const auto json =
      nlohmann::json::parse(TextOf(isolate, v8::JSON::Stringify(context, info[0]).ToLocalChecked()));
  const std::string text = json.dump();
  info.GetReturnValue().Set(
      v8::JSON::Parse(context, v8::String::NewFromUtf8(isolate, text.c_str()).ToLocalChecked())
          .ToLocalChecked());
}

class Ours {
 public:
  Ours() : m_runner(Options()) {
    m_runner
        .Define("setLamp(id, level)",
                [this](const std::string& id, double level) { host.SetLamp(id, level); })
        .Define("onEvent(room, lux)",
                [this](const std::string& room, double lux) { host.OnEvent(room, lux); })
        .Define("copy(value)", [](const vnjs::Value& value) { return value; });
    if (m_runner.StartCode((std::string(kScript) + "on('motion', handler)").c_str(), "bench.js")) abort();
  }

  void Emit() {
    if (!m_runner.Emit("motion", "hall", 21.5)) abort();
  }
  void Eval(const char* code) {
    m_runner.Eval(code, "bench.js", [this](const vnjs::Value& value, const vnjs::ScriptError& error) {
      if (error) abort();
      benchmark::DoNotOptimize(value.Get(0.0));
      host.signal.Set();
    });
    host.signal.Wait();
  }

  Host host;

 private:
  static vnjs::RunnerOptions Options() {
    vnjs::RunnerOptions options;
    options.storageDir = ".";
    options.queueLimit = 2 * kEvents;
    return options;
  }

  vnjs::Runner m_runner;
};

class Raw {
 public:
  Raw() : m_runner(m_environment) {
    m_runner.Define("setLamp", RawNative<&Host::SetLamp>, &host);
    m_runner.Define("onEvent", RawNative<&Host::OnEvent>, &host);
    m_runner.Define("copy", RawCopy);
    if (m_environment.Run((std::string(kScript) + "0").c_str(), "bench.js") != "0") abort();
    const vnjs::testing::Inside inside(&m_environment);
    m_handler.Reset(inside.isolate, inside.Eval("handler").As<v8::Function>());
  }

  void Emit() {
    m_runner.Post([this, room = std::string("hall"), lux = 21.5](v8::Local<v8::Context> context) {
      v8::Isolate* const isolate = context->GetIsolate();
      v8::Local<v8::Value> arguments[] = {
          v8::String::NewFromUtf8(isolate, room.data(), v8::NewStringType::kNormal,
                                  static_cast<int>(room.size()))
              .ToLocalChecked(),
          v8::Number::New(isolate, lux)};
      v8::Local<v8::Value> ignored;
      if (!m_handler.Get(isolate)->Call(context, v8::Undefined(isolate), 2, arguments).ToLocal(&ignored))
        abort();
    });
  }
  void Eval(const char* code) {
    m_runner.Post([this, text = std::string(code)](v8::Local<v8::Context> context) {
      v8::Isolate* const isolate = context->GetIsolate();
      v8::ScriptOrigin origin(isolate, v8::String::NewFromUtf8Literal(isolate, "bench.js"));
      v8::Local<v8::Script> script;
      v8::Local<v8::Value> value;
      if (!v8::Script::Compile(context, v8::String::NewFromUtf8(isolate, text.c_str()).ToLocalChecked(),
                               &origin)
               .ToLocal(&script) ||
          !script->Run(context).ToLocal(&value)) {
        abort();
      }
      if (value->IsNumber()) benchmark::DoNotOptimize(value.As<v8::Number>()->Value());
      host.signal.Set();
    });
    host.signal.Wait();
  }

  Host host;

 private:
  RawEnvironment m_environment;
  v8::Global<v8::Function> m_handler;
  RawRunner m_runner;
};

/// One after the other, each when the thread sleeps again.
template <typename Side>
void Latency(benchmark::State& state, Side& side) {
  std::vector<double> delays;
  for (auto _ : state) {
    side.host.expected = 1;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
    const Clock::time_point emitted = Clock::now();
    side.Emit();
    side.host.signal.Wait();
    delays.push_back(std::chrono::duration<double>(side.host.begun - emitted).count());
  }
  std::sort(delays.begin(), delays.end());
  state.counters["p50"] = delays[delays.size() / 2];
  state.counters["p99"] = delays[delays.size() * 99 / 100];
}

template <typename Side>
void Throughput(benchmark::State& state, Side& side) {
  for (auto _ : state) {
    side.host.expected = kEvents;
    for (int i = 0; i < kEvents; ++i) side.Emit();
    side.host.signal.Wait();
  }
}

template <typename Side>
void AddRows(const std::string& row, Side& side) {
  const auto add = [&](const char* group, auto body) {
    return benchmark::RegisterBenchmark((group + row).c_str(), body)->UseRealTime();
  };
  const auto eval = [&side](const char* code) {
    return [&side, code](benchmark::State& state) {
      for (auto _ : state) side.Eval(code);
    };
  };
  add("100,000 calls of a native", eval("calls()"))->Unit(benchmark::kMillisecond);
  add("Emit, idle", [&](benchmark::State& state) { Latency(state, side); })->Iterations(1000);
  add("1,000,000 events", [&](benchmark::State& state) { Throughput(state, side); })
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  add("Eval to done", eval("1+1"))->Iterations(5000);
  add("1,000 objects of 20 fields there and back", eval("copies()"))->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  // The raw context comes first: a later one would hold the library's extensions too.
  vnjs::bench::StartEngine();
  Raw raw;
  Ours ours;
  AddRows("/ours", ours);
  AddRows("/raw", raw);
  return vnjs::bench::RunBenchmarks(argc, argv,
                                    {{"100,000 calls of a native", 1.5},
                                     {"Emit, idle", 1.3, "p50"},
                                     {"Emit, idle", 2.0, "p99"},
                                     {"1,000,000 events", 1.5},
                                     {"Eval to done", 1.5},
                                     {"1,000 objects of 20 fields there and back", 1.0}});
}
