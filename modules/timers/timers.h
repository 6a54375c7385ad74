#pragma once

#include <vnjs/callback.h>
#include <vnjs/lock.h>
#include <vnjs/module.h>
#include <vnjs/refcount.h>
#include <vnjs/thread.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bridge/memory_budget.h"

namespace vnjs {

/// "vorn/timers": `setTimeout`, `setInterval` and their clear functions.
///
/// Threads:  the natives run under the isolate's lock. One thread per environment, started by the first timer with a
///           delay, counts all timers down in steps of 25 ms and queues a callback for each that comes due;
///           it never touches the engine.
/// Locks:    the context's lock comes before the environment's callback lock.
class Timers : public Module {
 public:
  class TimerInfo;
  class TimersContext;
  class TimerCallback;

  Timers();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

  /// The environment's timers, made when it has none. An environment that is terminating keeps nothing: the
  /// timers that it answers with are gone with the pointer.
  static VRefCountedPointer<TimersContext> GetTimersContext(Environment* env);

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void SetTimeout(const Info& info);
  static void ClearTimeout(const Info& info);
  static void CreateThreadIfNeeded(Environment* env);
  static int TimersFunc(VRefCountedPointer<Thread> thread);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

/// One waiting timer. Times are in milliseconds.
class Timers::TimerInfo {
 public:
  TimerInfo() = default;
  TimerInfo(VRefCountedPointer<SafeValue> callback, int32_t interval, bool recurring)
      : m_callback(callback), m_interval(interval), m_timeLeft(interval), m_recurring(recurring) {}

  /// One that is due stays so.
  void Decrement(int32_t ms) {
    if (m_timeLeft > 0) m_timeLeft -= ms;
  }
  void Reset() { m_timeLeft = m_interval; }

  std::string Describe(uint32_t id) const;

  int32_t GetTimeLeft() const { return m_timeLeft; }
  bool GetRecurring() const { return m_recurring; }
  VRefCountedPointer<SafeValue> GetCallback() const { return m_callback; }

 private:
  VRefCountedPointer<SafeValue> m_callback;
  int32_t m_interval = 0;
  int32_t m_timeLeft = 0;
  bool m_recurring = false;
};

/// The waiting timers of one environment. The lock is held for the whole of each operation below.
class Timers::TimersContext : public EnvironmentVariable {
 public:
  /// Ids go on after `lastId`, and after the highest one with 1 again.
  explicit TimersContext(Environment* env, uint32_t lastId = 0) : m_environment(env), m_lastId(lastId) {}
  bool HasPendingWork() const override;
  std::vector<std::string> PendingWork() const override;

  /// Adds a timer, or queues its callback at once when the delay is 0. Returns its id, never 0 nor one in
  /// use. Throws VornException "Bad allocation" when there are too many.
  uint32_t Add(v8::Isolate* isolate, v8::Local<v8::Value> callback, int32_t delay, bool recurring);

  /// False when the id belongs to a timer of the other family.
  bool Clear(uint32_t id, bool recurring);

  /// Charges the time that has passed to every timer, in the order of their ids, and queues what is due. What is
  /// due waits when too much is queued already, because the script does not come to it.
  void Pass(int32_t elapsed);

  uint32_t NextTimerId() { return ++m_lastId; }

 private:
  struct Scope : MutexScope {
    explicit Scope(const TimersContext* context) : MutexScope(context->m_lock) {}
  };

  Environment* const m_environment;

  /// What callbacks without a delay take while they are queued. Together with the timers as much as buffers may take,
  /// but not of theirs: a house whose buffers are full still switches its heating off.
  const std::shared_ptr<MemoryBudget> m_queued =
      std::make_shared<MemoryBudget>(GetMemoryBudget(m_environment)->limit());

  /// How many timers that came due may wait for the script. Not of the memory's budget, which garbage can fill.
  static constexpr size_t kMostTicks = 10000;
  const std::shared_ptr<MemoryBudget> m_ticks = std::make_shared<MemoryBudget>(kMostTicks);

  mutable MutexLock m_lock{false};
  std::map<uint32_t, TimerInfo> m_timers;
  uint32_t m_lastId;
};

/// A timer that came due: calls the script's function with the timer's id.
class Timers::TimerCallback : public CallbackBase {
 public:
  TimerCallback(Environment* env, VRefCountedPointer<SafeValue> callback, uint32_t id, MemoryCharge charge)
      : CallbackBase(env, callback), m_id(id), m_charge(std::move(charge)) {}
  void Call() override;

 private:
  const uint32_t m_id;
  const MemoryCharge m_charge;
};

}  // namespace vnjs
