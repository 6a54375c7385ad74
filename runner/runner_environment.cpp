#include "runner/runner_environment.h"

#include <vnjs/error.h>
#include <vnjs/value.h>

#include <algorithm>
#include <utility>

#include "bridge/native.h"
#include "engine/failure.h"
#include "engine/watchdog.h"
#include "runner/function_handle.h"
#include "runner/runner_core.h"
#include "runner/script_failure.h"

namespace vnjs {

using Clock = std::chrono::steady_clock;

RunnerEnvironment::Turn::Turn(RunnerEnvironment* environment)
    : m_environment(environment), m_entry(environment->m_environment.get()) {
  environment->m_entry = &m_entry;
  DebugTarget* const target = environment->m_environment->GetDebugTarget();
  if (target == nullptr) return;
  m_entry.Begin();
  target->Dispatch();
  m_entry.Settle();
}

RunnerEnvironment::Turn::~Turn() {
  // At the end: nobody waits for it.
  m_entry.Begin();
  m_environment->m_environment->RunEngineTasks();
  m_entry.Settle();
  m_environment->m_entry = nullptr;
}

RunnerEnvironment::RunnerEnvironment(detail::RunnerCore* core, uint64_t number, Definitions* definitions)
    : m_core(core), m_number(number) {
  const RunnerOptions& options = core->options();
  const EnvironmentSettings settings{options.heapBytes, options.bufferBytes, this};
  m_environment = std::make_unique<EnvironmentImpl>(options.storageDir.c_str(), false, settings);
  m_conversion = std::make_unique<Conversion>(m_environment->GetIsolate(), core->weak_from_this(), number,
                                              GetMemoryBudget()->limit());
  m_handlers = std::make_unique<EventHandlers>(*m_conversion);
  m_promises = std::make_unique<HostPromises>(core->weak_from_this(), *m_conversion);
  try {
    Prepare(definitions);
  } catch (...) {
    Release();
    throw;
  }
}

RunnerEnvironment::~RunnerEnvironment() { Release(); }

void RunnerEnvironment::Prepare(Definitions* definitions) {
  {
    const Turn turn(this);
    const v8::Local<v8::Context> context = m_environment->GetContext();
    if (!m_conversion->Prepare(context) || !m_handlers->Install(context)) {
      throw VornException("Cannot create script context");
    }
    definitions->Install(context, this);
  }
  const RunnerOptions& options = m_core->options();
  if (options.startLimit.count() > 0 || options.callbackLimit.count() > 0) {
    Watchdog::Get().Watch(&m_environment->GetRunGuard());
  }
}

/// The handles go while there is an isolate, and the environment last.
void RunnerEnvironment::Release() {
  Watchdog::Get().Leave(&m_environment->GetRunGuard());
  m_core->figures().dropped += m_awaited.size();
  {
    const EnvironmentImpl::Entry entry(m_environment.get());
    m_conversion->Clear();
    m_handlers->Clear();
    m_promises->Clear();
    if (DebugTarget* const target = m_environment->GetDebugTarget()) target->OnThreadEnd();
  }
  m_environment.reset();
}

// --- Parts -----------------------------------------------------------------------------------------------------

template <typename Body>
ScriptError RunnerEnvironment::RunPart(Milliseconds limit, const What& what, const Body& body) {
  v8::Isolate* const isolate = m_environment->GetIsolate();
  RunGuard& guard = m_environment->GetRunGuard();
  m_entry->Begin();
  if (limit.count() > 0) guard.Limit(limit);
  // Who waits for the end has interrupted nothing, if this part had not begun.
  if (m_core->IsCutShort()) guard.Interrupt();
  ScriptError error;
  {
    const v8::HandleScope scope(isolate);
    const v8::Local<v8::Context> context = m_environment->GetContext();
    v8::TryCatch caught(isolate);
    if (DebugTarget* const target = m_environment->GetDebugTarget()) {
      // What only we catch, a debugger takes for uncaught.
      caught.SetVerbose(true);
      target->OnScriptStart();
    }
    ErrorKind kind = ErrorKind::kThrown;
    bool ended = false;
    try {
      ended = !guard.IsStopping() && body(context, &kind);
    } catch (const PendingException&) {
      // The TryCatch has it.
    } catch (const Refusal& refusal) {
      error = {ErrorKind::kHost, refusal.Text(), {}, {}};
    } catch (const VornException& e) {
      error = {ErrorKind::kHost, e.msg(), {}, {}};
    } catch (const std::exception& e) {
      error = {ErrorKind::kHost, e.what(), {}, {}};
    }
    if (!caught.HasTerminated() && caught.HasCaught()) {
      error = DescribeFailure(context, kind, caught.Exception(), caught.Message());
    }
    // A debugger can have taken the termination back that it had asked for.
    if (caught.HasTerminated() || guard.IsStopping() || isolate->IsExecutionTerminating() ||
        (!ended && !error)) {
      isolate->CancelTerminateExecution();
      error = Stopped(limit);
    }
  }
  m_entry->SettleMicrotasks();
  if (!error && guard.IsStopping()) error = Stopped(limit);
  if (error) Report(what, error);
  m_entry->Finish();
  return error;
}

ScriptError RunnerEnvironment::Stopped(Milliseconds limit) {
  RunGuard& guard = m_environment->GetRunGuard();
  const RunResult stopped = guard.Stopped();
  const ScriptPosition place = stopped.position();
  ScriptError error{ErrorKind::kInterrupted, stopped.result(), {}, place.source, place.line, place.column};
  if (guard.reason() == RunGuard::kOutOfMemory) error.kind = ErrorKind::kMemory;
  if (guard.reason() == RunGuard::kTimeout) {
    error.kind = ErrorKind::kTimeout;
    error.message = "Script took longer than " + std::to_string(limit.count()) + " ms";
  }
  return error;
}

void RunnerEnvironment::Report(const What& what, const ScriptError& error) {
  const bool isEnded = error.kind == ErrorKind::kTimeout || error.kind == ErrorKind::kInterrupted;
  Figures& figures = m_core->figures();
  ++(isEnded ? figures.interrupted : figures.failures);
  m_core->SetLastError(error);
  if (what.kind == nullptr) return;
  const std::string name = what.name.empty() ? "" : " '" + std::string(what.name) + "'";
  LogFailure(what.kind + name + ": " + FailureText(error), error);
}

void RunnerEnvironment::LogFailure(const std::string& text, const ScriptError& error) {
  m_failure = &error;
  m_environment->Log(error.kind == ErrorKind::kSyntax ? 4 : 3, text, "runner");
  m_failure = nullptr;
}

void RunnerEnvironment::EndIfStopping() {
  RunGuard& guard = m_environment->GetRunGuard();
  if (guard.IsStopping()) guard.EndNow(m_environment->GetContext());
}

void RunnerEnvironment::InterruptAt(Clock::time_point time) {
  RunGuard& guard = m_environment->GetRunGuard();
  Watchdog::Get().Watch(&guard);
  guard.InterruptAt(time);
}

// --- What the host wants ----------------------------------------------------------------------------------------

v8::MaybeLocal<v8::Value> RunnerEnvironment::CompileAndRun(v8::Local<v8::Context> context,
                                                           const std::string& code, const std::string& source,
                                                           bool* compiled) {
  *compiled = false;
  if (code.find('\0') != std::string::npos) throw Refusal{{}, "The code has a NUL character"};
  v8::Local<v8::Script> script;
  if (!m_environment->GetScripts().Compile(context, code, source).ToLocal(&script)) return {};
  *compiled = true;
  return script->Run(context);
}

ScriptError RunnerEnvironment::Start(const std::string& code, const std::string& source, Milliseconds limit) {
  ++m_core->figures().runs;
  return RunPart(limit, {"Start of", source}, [&](v8::Local<v8::Context> context, ErrorKind* kind) {
    bool compiled = false;
    const bool ended = !CompileAndRun(context, code, source, &compiled).IsEmpty();
    if (!compiled) *kind = ErrorKind::kSyntax;
    return ended;
  });
}

void RunnerEnvironment::Do(Job& job) {
  if (auto* const event = std::get_if<Event>(&job.what)) {
    Deliver(*event);
  } else if (auto* const call = std::get_if<FunctionCall>(&job.what)) {
    Call(*call);
  } else if (auto* const evaluation = std::get_if<Evaluation>(&job.what)) {
    Evaluate(*evaluation);
  } else if (const auto* const settlement = std::get_if<Settlement>(&job.what)) {
    Settle(*settlement);
  } else {
    m_core->CallHost("A posted function", std::get<Work>(job.what).function);
  }
}

void RunnerEnvironment::Deliver(Event& event) {
  m_core->figures().CountCallback();
  const std::shared_ptr<const EventHandlers::List> list = m_handlers->Find(event.name);
  if (list == nullptr) return;
  v8::Isolate* const isolate = m_environment->GetIsolate();
  for (const auto& handler : list->handlers) {
    if (handler->removed || HasEnded() || m_core->IsCutShort()) continue;
    const ScriptError error = RunPart(
        m_core->options().callbackLimit, {"Event", event.name},
        [&](v8::Local<v8::Context> context, ErrorKind*) {
          // Each handler has its own: what one changes the others do not see.
          Arguments arguments(event.arguments.size());
          MakeArguments(context, event.arguments, &arguments);
          if (handler->once.IsEmpty())
            return CallFunction(context, handler->function.Get(isolate), arguments);
          const v8::Local<v8::Array> all = v8::Array::New(isolate, arguments.data(), arguments.size());
          return !handler->once.Get(isolate)->Resolve(context, all).IsNothing();
        });
    // No handler can be given what the first could not.
    if (error.kind == ErrorKind::kHost) return;
  }
}

void RunnerEnvironment::Call(FunctionCall& call) {
  if (call.function->environment() != m_number) {
    ++m_core->figures().dropped;
    return;
  }
  m_core->figures().CountCallback();
  RunPart(m_core->options().callbackLimit, {"Call of a function"},
          [&](v8::Local<v8::Context> context, ErrorKind*) {
            const v8::Local<v8::Value> function = call.function->function()->GetValue();
            Arguments arguments(call.arguments.size());
            MakeArguments(context, call.arguments, &arguments);
            return CallFunction(context, function.As<v8::Function>(), arguments);
          });
}

bool RunnerEnvironment::CallFunction(v8::Local<v8::Context> context, v8::Local<v8::Function> function,
                                     Arguments& arguments) {
  const v8::Local<v8::Value> receiver = v8::Undefined(m_environment->GetIsolate());
  return !function->Call(context, receiver, static_cast<int>(arguments.size()), arguments.data()).IsEmpty();
}

void RunnerEnvironment::MakeArguments(v8::Local<v8::Context> context, const JobArguments& values,
                                      Arguments* arguments) {
  v8::Local<v8::Value>* place = arguments->data();
  for (const Value& value : values) *place++ = m_conversion->ToScript(context, value);
}

void RunnerEnvironment::Evaluate(Evaluation& evaluation) {
  ++m_core->figures().runs;
  Value result;
  bool isAwaited = false;
  const What what{evaluation.done ? nullptr : "Code", evaluation.source};
  const ScriptError error =
      RunPart(m_core->options().callbackLimit, what, [&](v8::Local<v8::Context> context, ErrorKind* kind) {
        bool compiled = false;
        v8::Local<v8::Value> value;
        const bool ended =
            CompileAndRun(context, evaluation.code, evaluation.source, &compiled).ToLocal(&value);
        if (!compiled) *kind = ErrorKind::kSyntax;
        if (!ended) return false;
        if (value->IsPromise() && evaluation.done) {
          isAwaited = Await(context, value.As<v8::Promise>(), evaluation.done);
          return isAwaited;
        }
        if (evaluation.done) result = m_conversion->ToHost(context, value);
        return true;
      });
  if (!isAwaited) Answer(evaluation.done, result, error);
}

/// The promise's handlers find `done` by its number, because a promise may never be settled.
bool RunnerEnvironment::Await(v8::Local<v8::Context> context, v8::Local<v8::Promise> promise, Done done) {
  const auto number = v8::Number::New(m_environment->GetIsolate(), static_cast<double>(++m_lastAwaited));
  const auto onFulfilled = [](const v8::FunctionCallbackInfo<v8::Value>& info) { OnAwaited(info, false); };
  const auto onRejected = [](const v8::FunctionCallbackInfo<v8::Value>& info) { OnAwaited(info, true); };
  v8::Local<v8::Function> fulfilled;
  v8::Local<v8::Function> rejected;
  if (!v8::Function::New(context, onFulfilled, number).ToLocal(&fulfilled) ||
      !v8::Function::New(context, onRejected, number).ToLocal(&rejected)) {
    return false;
  }
  m_awaited[m_lastAwaited] = std::move(done);
  return !promise->Then(context, fulfilled, rejected).IsEmpty();
}

void RunnerEnvironment::OnAwaited(const v8::FunctionCallbackInfo<v8::Value>& info, bool isRejection) {
  v8::Isolate* const isolate = info.GetIsolate();
  auto* const environment = static_cast<EnvironmentImpl*>(vnjs::GetEnvironment(isolate));
  auto* const self = static_cast<RunnerEnvironment*>(environment->GetObserver());
  const auto found = self->m_awaited.find(static_cast<uint64_t>(info.Data().As<v8::Number>()->Value()));
  if (found == self->m_awaited.end()) return;
  const Done done = std::move(found->second);
  self->m_awaited.erase(found);
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  Value value;
  ScriptError error;
  {
    const v8::TryCatch caught(isolate);
    try {
      if (isRejection) {
        error = DescribeFailure(context, ErrorKind::kRejection, info[0],
                                v8::Exception::CreateMessage(isolate, info[0]));
      } else {
        value = self->m_conversion->ToHost(context, info[0]);
      }
    } catch (const PendingException&) {
      // A termination goes on by itself.
      if (caught.HasTerminated()) return;
      error = DescribeFailure(context, ErrorKind::kThrown, caught.Exception(), caught.Message());
    } catch (const Refusal& refusal) {
      error = {ErrorKind::kHost, refusal.Text(), {}, {}};
    } catch (const std::exception& e) {
      error = {ErrorKind::kHost, e.what(), {}, {}};
    }
  }
  if (error) self->Report({}, error);
  self->Answer(done, value, error);
}

void RunnerEnvironment::Answer(const Done& done, const Value& value, const ScriptError& error) {
  if (done) m_core->CallHost("An answer's function", [&] { done(value, error); });
}

void RunnerEnvironment::Settle(const Settlement& settlement) {
  if (settlement.environment != m_number) return;
  RunPart(m_core->options().callbackLimit, {"Promise"}, [&](v8::Local<v8::Context> context, ErrorKind*) {
    m_promises->Settle(context, settlement.number, settlement.outcome);
    return true;
  });
}

void RunnerEnvironment::RunCallbacks() {
  std::vector<VRefCountedPointer<CallbackBase>> callbacks = m_environment->TakeCallbacks();
  for (VRefCountedPointer<CallbackBase>& callback : callbacks) {
    if (HasEnded() || m_core->HasRequest()) {
      ++m_core->figures().dropped;
      continue;
    }
    m_core->figures().CountCallback();
    RunPart(m_core->options().callbackLimit, {"Callback execution error"},
            [&](v8::Local<v8::Context>, ErrorKind*) {
              callback->Call();
              return true;
            });
    callback = nullptr;
    m_core->figures().Ended();
  }
}

void RunnerEnvironment::CallStopHandlers(Clock::time_point end) {
  const std::vector<v8::Global<v8::Function>> handlers = m_handlers->TakeStopHandlers();
  if (handlers.empty()) return;
  // Also a script that is to stop at once may save what it has.
  constexpr Milliseconds kLeast(100);
  end = std::max(end, Clock::now() + kLeast);
  Watchdog::Get().Watch(&m_environment->GetRunGuard());
  const v8::HandleScope scope(m_environment->GetIsolate());
  for (const v8::Global<v8::Function>& handler : handlers) {
    const auto left = std::chrono::duration_cast<Milliseconds>(end - Clock::now());
    RunPart(std::max(left, Milliseconds(1)), {"onStop"}, [&](v8::Local<v8::Context> context, ErrorKind*) {
      Arguments none(0);
      return CallFunction(context, handler.Get(m_environment->GetIsolate()), none);
    });
  }
}

void RunnerEnvironment::MeasureHeap() {
  v8::HeapStatistics statistics;
  m_environment->GetIsolate()->GetHeapStatistics(&statistics);
  m_core->figures().heapBytes = statistics.used_heap_size();
  m_core->figures().heapLimit = statistics.heap_size_limit();
}

// --- What the environment tells ---------------------------------------------------------------------------------

void RunnerEnvironment::OnCallbackQueued() { m_core->WakeForCallbacks(); }
void RunnerEnvironment::OnDebuggerMail() { m_core->WakeForCallbacks(); }

void RunnerEnvironment::OnLog(int level, const std::string& message, const char* module) {
  const bool tellsOfFailure = m_failure != nullptr && m_core->IsOwnThread();
  m_core->Log(level, message, module == nullptr ? "core" : module,
              tellsOfFailure ? *m_failure : ScriptError());
}

void RunnerEnvironment::OnRejection(v8::Local<v8::Value> reason, const std::string& text) {
  v8::Isolate* const isolate = m_environment->GetIsolate();
  const ScriptError error = DescribeFailure(m_environment->GetContext(), ErrorKind::kRejection, reason,
                                            v8::Exception::CreateMessage(isolate, reason));
  ++m_core->figures().failures;
  m_core->SetLastError(error);
  LogFailure(text, error);
}

}  // namespace vnjs
