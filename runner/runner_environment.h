#pragma once

#include <vnjs/runner.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/environment_impl.h"
#include "runner/conversion.h"
#include "runner/definitions.h"
#include "runner/event_handlers.h"
#include "runner/host_promises.h"
#include "runner/job.h"

namespace vnjs {

/// One environment of a runner, from its start to its reload or end.
///
/// Owner:    the runner's core, which outlives it.
/// Threads:  the runner's own; the observer's part is for any.
/// Failures: of scripts are counted and logged here.
class RunnerEnvironment final : public EnvironmentObserver {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Throws VornException. `number` is of this environment alone.
  RunnerEnvironment(detail::RunnerCore* core, uint64_t number, Definitions* definitions);
  ~RunnerEnvironment() override;

  /// Holds the isolate for as long as there is something to do.
  class Turn;

  /// @{ Inside a turn. Each is a part with a limit of its own, or several.
  ScriptError Start(const std::string& code, const std::string& source, Milliseconds limit);
  void Do(Job& job);
  void RunCallbacks();
  void CallStopHandlers(std::chrono::steady_clock::time_point end);
  /// @}

  /// By the script's own `exit()`.
  bool HasEnded() const { return m_environment->IsTerminating(); }

  /// Ends what runs now. Any thread, while this object lives.
  void Interrupt() { m_environment->Interrupt(); }

  /// The same, on its own thread, if it still runs then.
  void InterruptAt(std::chrono::steady_clock::time_point time);

  /// For natives, when they return: a script that is to end does so there.
  void EndIfStopping();

  /// @{ For the figures.
  VRefCountedPointer<EnvironmentVariable> GetTimers() { return m_environment->GetVariable("vorn/timers"); }
  const std::shared_ptr<MemoryBudget>& GetMemoryBudget() const { return m_environment->GetMemoryBudget(); }
  void MeasureHeap();
  /// @}

  Conversion& GetConversion() { return *m_conversion; }
  HostPromises& GetPromises() { return *m_promises; }
  uint64_t number() const { return m_number; }

  void OnCallbackQueued() override;
  void OnDebuggerMail() override;
  void OnLog(int level, const std::string& message, const char* module) override;
  void OnRejection(v8::Local<v8::Value> reason, const std::string& text) override;

 private:
  using Done = std::function<void(const Value&, const ScriptError&)>;

  void Prepare(Definitions* definitions);
  void Release();

  void Deliver(Event& event);
  void Call(FunctionCall& call);
  void Evaluate(Evaluation& evaluation);
  void Settle(const Settlement& settlement);

  /// What a part of the script is, for the log. Nothing is logged of one without a kind.
  struct What {
    const char* kind = nullptr;
    std::string_view name = {};
  };

  /// Runs a part of the script. `body` returns false when it leaves an exception. What went wrong is counted and logged.
  template <typename Body>
  ScriptError RunPart(Milliseconds limit, const What& what, const Body& body);
  ScriptError Stopped(Milliseconds limit);
  void Report(const What& what, const ScriptError& error);
  void LogFailure(const std::string& text, const ScriptError& error);

  /// What a function of the script is called with. A few have their place here.
  class Arguments {
   public:
    explicit Arguments(size_t size) : m_size(size), m_many(size > kFew ? size : 0) {}
    v8::Local<v8::Value>* data() { return m_many.empty() ? m_few : m_many.data(); }
    size_t size() const { return m_size; }

   private:
    static constexpr size_t kFew = 8;
    const size_t m_size;
    v8::Local<v8::Value> m_few[kFew];
    std::vector<v8::Local<v8::Value>> m_many;
  };

  bool CallFunction(v8::Local<v8::Context> context, v8::Local<v8::Function> function, Arguments& arguments);
  void MakeArguments(v8::Local<v8::Context> context, const JobArguments& values, Arguments* arguments);
  v8::MaybeLocal<v8::Value> CompileAndRun(v8::Local<v8::Context> context, const std::string& code,
                                          const std::string& source, bool* compiled);
  bool Await(v8::Local<v8::Context> context, v8::Local<v8::Promise> promise, Done done);
  void Answer(const Done& done, const Value& value, const ScriptError& error);
  static void OnAwaited(const v8::FunctionCallbackInfo<v8::Value>& info, bool isRejection);

  detail::RunnerCore* const m_core;
  const uint64_t m_number;
  std::unique_ptr<Conversion> m_conversion;
  std::unique_ptr<EventHandlers> m_handlers;
  std::unique_ptr<HostPromises> m_promises;

  /// Whose promises are awaited.
  std::unordered_map<uint64_t, Done> m_awaited;
  uint64_t m_lastAwaited = 0;

  EnvironmentImpl::Entry* m_entry = nullptr;

  /// What the line tells of that is being logged.
  const ScriptError* m_failure = nullptr;
  std::unique_ptr<EnvironmentImpl> m_environment;
};

class RunnerEnvironment::Turn {
 public:
  explicit Turn(RunnerEnvironment* environment);
  ~Turn();
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  RunnerEnvironment* const m_environment;
  EnvironmentImpl::Entry m_entry;
};

}  // namespace vnjs
