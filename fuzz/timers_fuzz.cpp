// The timer table, next to a model that knows when each timer is due instead of how much time it has left.
#include <unistd.h>

#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "fuzz/support.h"
#include "modules/timers/timers.h"

namespace vnjs::fuzz {
namespace {

/// Which function was called, and with which id.
using Calls = std::vector<std::pair<uint32_t, uint32_t>>;
Calls calls;

void OnCall(const v8::FunctionCallbackInfo<v8::Value>& info) {
  calls.emplace_back(info.Data().As<v8::Uint32>()->Value(), info[0].As<v8::Uint32>()->Value());
}

struct Timer {
  uint32_t function;
  int64_t due;
  int64_t interval;
  bool recurring;
};

/// A table beside the environment's own, which nobody but us passes time to, and its model. Needs a Scope around it.
class Tables {
 public:
  explicit Tables(Environment* environment)
      : m_environment(environment), m_table(new Timers::TimersContext(environment)) {}

  void Add(v8::Local<v8::Context> context, int32_t delay, bool recurring) {
    recurring = recurring && delay > 0;
    v8::Isolate* const isolate = context->GetIsolate();
    v8::Local<v8::Function> function;
    const auto data = v8::Integer::NewFromUnsigned(isolate, ++m_lastFunction);
    if (!v8::Function::New(context, OnCall, data).ToLocal(&function)) Break("no function");
    const uint32_t id = m_table->Add(isolate, function, delay, recurring);
    if (id != ++m_lastId) Break("id " + std::to_string(id));
    if (delay == 0) {
      m_expected.emplace_back(m_lastFunction, id);
    } else {
      m_timers[id] = {m_lastFunction, m_now + delay, delay, recurring};
    }
  }

  void Clear(uint32_t id, bool recurring) {
    const auto found = m_timers.find(id);
    const bool matches = found == m_timers.end() || found->second.recurring == recurring;
    if (m_table->Clear(id, recurring) != matches) Break("clearing " + std::to_string(id));
    if (found != m_timers.end() && matches) m_timers.erase(found);
  }

  void Pass(int32_t elapsed) {
    m_table->Pass(elapsed);
    m_now += elapsed;
    const std::map<uint32_t, Timer> timers = m_timers;
    for (const auto& [id, timer] : timers) {
      if (timer.due > m_now) continue;
      m_expected.emplace_back(timer.function, id);
      m_timers[id].due = m_now + timer.interval;
      if (!timer.recurring) m_timers.erase(id);
    }
  }

  /// Calls what is queued.
  void Compare() {
    calls.clear();
    m_environment->ProcessPendingCallbacks();
    if (calls != std::exchange(m_expected, {})) Break("other timers are due, or in another order");
    if (m_table->HasPendingWork() == m_timers.empty()) Break("pending work");
  }

 private:
  Environment* const m_environment;
  const VRefCountedPointer<Timers::TimersContext> m_table;

  int64_t m_now = 0;
  uint32_t m_lastId = 0;
  uint32_t m_lastFunction = 0;
  std::map<uint32_t, Timer> m_timers;
  Calls m_expected;
};

/// Times and delays are never negative.
int32_t Time(Reader& reader) { return static_cast<int32_t>(reader.Number() & 0x7fffffff); }

void RunInput(Scripts& scripts, Reader reader) {
  const Scope scope(scripts.environment());
  Tables tables(scripts.environment());
  while (!reader.AtEnd()) {
    const v8::HandleScope handles(scope.isolate());
    const unsigned step = reader.Byte();
    const bool recurring = (step & 1) != 0;
    switch (step / 2 % 4) {
      case 0:
        tables.Add(scope.context(), Time(reader), recurring);
        break;
      case 1:
        tables.Clear(reader.Number(), recurring);
        break;
      case 2:
        tables.Pass(Time(reader));
        break;
      default:
        tables.Compare();
    }
  }
  tables.Compare();
}

}  // namespace
}  // namespace vnjs::fuzz

extern "C" {

/// Stands in front of the system's: the isolate, which callbacks leave to others for 10 ms each time, has no others.
int usleep(useconds_t microseconds) {
  if (getpid() == gettid()) return 0;
  const timespec time{0, static_cast<long>(microseconds) * 1000};
  return nanosleep(&time, nullptr);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vnjs::fuzz;
  static Scripts scripts("/", "");
  scripts.NextInput();
  RunInput(scripts, Reader({reinterpret_cast<const char*>(data), size}));
  // Lets go of the functions.
  scripts.Expect("1 + 1", "2");
  return 0;
}

}  // extern "C"
