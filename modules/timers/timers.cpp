#include "modules/timers/timers.h"

#include <unistd.h>
#include <vnjs/host.h>

#include <algorithm>
#include <new>

#include "bridge/native.h"
#include "engine/registration.h"

namespace vnjs {

bool Timers::m_registered = false;

const char Timers::kSource[] = R"(native function setTimeout();

native function clearTimeout();

native function setInterval();

native function clearInterval();
)";

namespace {

constexpr char kVariable[] = "vorn/timers";
constexpr char kThread[] = "vorn/timers";
constexpr useconds_t kStep = 25000;

/// Longer gaps between two passes are jumps of the clock and charged to nobody.
constexpr int32_t kLongestGap = 1000;

/// What a timer takes, or the queued callback of one without a delay, with the engine's handle.
constexpr size_t kTimerBytes = 256;

}  // namespace

Timers::Timers() : Module("vorn/timers", kSource, 0, nullptr, -1) {}

void Timers::Register() { RegisterOnce<Timers>(m_registered); }

VRefCountedPointer<Timers::TimersContext> Timers::GetTimersContext(Environment* env) {
  const VRefCountedPointer<EnvironmentVariable> variable = env->GetVariable(kVariable);
  if (!variable.is_empty()) return static_cast<TimersContext*>(variable.get_ptr());
  VRefCountedPointer<TimersContext> context(new TimersContext(env));
  env->SetVariable(kVariable, context.get_ptr());
  return context;
}

void Timers::CreateThreadIfNeeded(Environment* env) { env->CreateThread(kThread, TimersFunc, nullptr); }

int Timers::TimersFunc(VRefCountedPointer<Thread> thread) {
  VRefCountedPointer<TimersContext> context;
  uint64_t last = get_local_time_ms();
  while (!thread->IsTerminating()) {
    const uint64_t now = get_local_time_ms();
    const auto elapsed = static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(last));
    last = now;
    if (elapsed < 0 || elapsed > kLongestGap) continue;
    // An environment that is terminating shows no table, but may be started again.
    const VRefCountedPointer<EnvironmentVariable> kept = thread->GetEnvironment()->GetVariable(kVariable);
    if (!kept.is_empty()) context = static_cast<TimersContext*>(kept.get_ptr());
    if (!context.is_empty()) context->Pass(elapsed);
    usleep(kStep);
  }
  return 0;
}

bool Timers::TimersContext::HasPendingWork() const {
  const Scope scope(this);
  return !m_timers.empty();
}

std::vector<std::string> Timers::TimersContext::PendingWork() const {
  std::vector<std::string> lines;
  const Scope scope(this);
  for (const auto& [id, info] : m_timers) lines.push_back(info.Describe(id));
  return lines;
}

std::string Timers::TimerInfo::Describe(uint32_t id) const {
  const std::string left = std::to_string(std::max(m_timeLeft, 0)) + " ms";
  if (!m_recurring) return "timeout " + std::to_string(id) + " in " + left;
  return "interval " + std::to_string(id) + " every " + std::to_string(m_interval) + " ms, next in " + left;
}

uint32_t Timers::TimersContext::Add(v8::Isolate* isolate, v8::Local<v8::Value> callback, int32_t delay,
                                    bool recurring) {
  // Before any lock is held, because the thread has the host give it a name.
  if (delay != 0) CreateThreadIfNeeded(m_environment);
  const Scope scope(this);
  if (!m_queued->Fits((m_timers.size() + 1) * kTimerBytes)) throw VornException(GetVornError(-2));
  uint32_t id = 0;
  while (id == 0 || m_timers.count(id) != 0) id = NextTimerId();
  if (delay == 0) {
    m_environment->PushCallback(new TimerCallback(m_environment, SafeValue::New(isolate, callback), id,
                                                  MemoryCharge(m_queued, kTimerBytes)));
  } else {
    m_timers[id] = TimerInfo(SafeValue::New(isolate, callback), delay, recurring);
  }
  return id;
}

bool Timers::TimersContext::Clear(uint32_t id, bool recurring) {
  const Scope scope(this);
  const auto found = m_timers.find(id);
  if (found == m_timers.end()) return true;
  if (found->second.GetRecurring() != recurring) return false;
  m_timers.erase(found);
  return true;
}

void Timers::TimersContext::Pass(int32_t elapsed) {
  const Scope scope(this);
  for (auto timer = m_timers.begin(); timer != m_timers.end();) {
    auto& [id, info] = *timer;
    info.Decrement(elapsed);
    if (info.GetTimeLeft() > 0 || !m_ticks->Fits(1)) {
      ++timer;
      continue;
    }
    try {
      m_environment->PushCallback(
          new TimerCallback(m_environment, info.GetCallback(), id, MemoryCharge(m_ticks, 1)));
    } catch (const std::bad_alloc&) {
      // Due as before, at the next pass.
      ++timer;
      continue;
    }
    if (info.GetRecurring()) {
      info.Reset();
      ++timer;
    } else {
      timer = m_timers.erase(timer);
    }
  }
}

void Timers::TimerCallback::Call() {
  if (m_callback.is_empty()) return;
  v8::Isolate* const isolate = m_environment->GetIsolate();
  const v8::HandleScope scope(isolate);
  const v8::Local<v8::Value> value = m_callback->GetValue();
  if (value.IsEmpty() || !value->IsFunction()) return;
  v8::Local<v8::Value> id = v8::Integer::New(isolate, static_cast<int32_t>(m_id));
  v8::Local<v8::Value> ignored;
  if (!value.As<v8::Function>()->Call(m_environment->GetContext(), value, 1, &id).ToLocal(&ignored)) {
    // What it threw stays pending, for the callback queue to log.
    return;
  }
}

namespace {

/// What an argument means as a number of 32 bits. False when it means none: that is refused as any other bad argument,
/// without what the script's own code may have thrown. Called before any lock is held, because that code can also set
/// timers.
template <typename Number>
bool ToNumber(v8::Isolate* isolate, v8::Local<v8::Value> argument,
              v8::Maybe<Number> (v8::Value::*convert)(v8::Local<v8::Context>) const, Number* number) {
  // A termination goes on by itself. Thrown again, it would be the value null, which scripts can catch.
  const v8::TryCatch caught(isolate);
  return ((*argument)->*convert)(isolate->GetCurrentContext()).To(number);
}

}  // namespace

void Timers::SetTimeout(const Info& info) {
  if (info.Length() < 2 || !info[0]->IsFunction()) return;
  v8::Isolate* const isolate = info.GetIsolate();
  const bool recurring = info.Data()->BooleanValue(isolate);
  int32_t delay = 0;
  if (!ToNumber(isolate, info[1], &v8::Value::Int32Value, &delay)) return;
  if (delay < 0 || (delay == 0 && recurring)) return;
  info.GetReturnValue().Set(
      GetTimersContext(GetEnvironment(isolate))->Add(isolate, info[0], delay, recurring));
}

void Timers::ClearTimeout(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  uint32_t id = 0;
  if (!ToNumber(isolate, info[0], &v8::Value::Uint32Value, &id) || id == 0) return;
  if (!GetTimersContext(GetEnvironment(isolate))->Clear(id, info.Data()->BooleanValue(isolate))) {
    info.GetReturnValue().Set(ThrowException(isolate, "clearTimeout()/clearInterval() mismatch"));
  }
}

const NativeEntry Timers::kNatives[] = {
    {"setTimeout", Native<&Timers::SetTimeout>, NativeEntry::kFunction, false},
    {"clearTimeout", Native<&Timers::ClearTimeout>, NativeEntry::kFunction, false},
    {"setInterval", Native<&Timers::SetTimeout>, NativeEntry::kFunction, true},
    {"clearInterval", Native<&Timers::ClearTimeout>, NativeEntry::kFunction, true},
};

v8::Local<v8::FunctionTemplate> Timers::GetFunction(Environment* env, v8::Isolate* isolate,
                                                    std::string name) {
  return FindNative(isolate, kNatives, name);
}

}  // namespace vnjs
