#include <libplatform/libplatform.h>
#include <unistd.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <new>
#include <utility>

#include "bridge/native.h"
#include "engine/environment_impl.h"
#include "engine/failure.h"
#include "engine/start.h"

namespace vnjs {

namespace {

constexpr useconds_t kPause = 10000;
constexpr int kIdleCycles = 1000;
constexpr int kBusyStep = 5;

/// How often the engine may say that it has more to tidy up before it is left alone.
constexpr int kMostIdleRounds = 100;

}  // namespace

void EnvironmentImpl::StartThread() {
  if (m_ending || m_threaded.exchange(true)) return;
  // The worker was told to stop, from inside one of its own scripts, and is told to go on before it has
  // ended.
  const bool goOn = OnWorker();
  if (!goOn) JoinWorker();
  if (m_debugTarget != nullptr) m_debugTarget->SetReleased(false);
  const bool wasTerminating = m_terminating;
  m_stopping = false;
  m_terminating = false;
  // The end may have begun meanwhile.
  if (m_ending) m_stopping = m_terminating = true;
  if (goOn) return;
  try {
    unsigned long handle = 0;
    VCreateThread(MainThreadFunc, this, &handle);
    m_thread = handle;
  } catch (...) {
    m_threaded = false;
    m_terminating = wasTerminating;
    Log(3, "Cannot create thread", nullptr);
    throw;
  }
}

void EnvironmentImpl::StopThread() {
  if (!m_threaded.exchange(false)) return;
  m_stopping = true;
  m_terminating = true;
  if (m_debugTarget != nullptr) m_debugTarget->SetReleased(true);
  JoinWorker();
  if (m_debugTarget != nullptr && !OnWorker()) m_debugTarget->SetReleased(false);
}

void EnvironmentImpl::JoinWorker() {
  // A script that stops its own worker cannot wait for it; the next start or the destructor does.
  if (OnWorker()) return;
  unsigned long handle = m_thread.exchange(0);
  VJoinThread(&handle);
}

void* EnvironmentImpl::MainThreadFunc(void* env) {
  auto* const self = static_cast<EnvironmentImpl*>(env);
  // Its own doing: the parent may know the handle only after this thread has run a script that asks for it.
  self->m_workerId = pthread_self();
  set_thread_name("vorn/core");

  int idleCycles = 0;
  bool busy = false;
  while (!self->m_terminating) {
    bool idle = false;
    try {
      idle = !self->RunWorkerCycle();
    } catch (const std::bad_alloc&) {
      self->Log(3, GetVornError(-2), nullptr);
    }
    usleep(kPause);
    if (!idle) {
      busy = true;
      idleCycles = idleCycles <= kBusyStep ? 0 : idleCycles - kBusyStep;
    } else if (busy && ++idleCycles == kIdleCycles) {
      self->NotifyIdle();
      idleCycles = 0;
      busy = false;
    }
  }
  if (self->m_debugTarget != nullptr) self->LeaveDebugThread();
  self->m_workerId = 0;
  return nullptr;
}

bool EnvironmentImpl::RunWorkerCycle() {
  bool worked = ProcessPendingCallbacks();

  std::map<uint32_t, PendingCode> pending;
  {
    const QueueLock queueLock(this);
    pending.swap(m_pendingCode);
  }
  for (const auto& [id, code] : pending) {
    worked = true;
    RunResult result = Execute(code);
    const QueueLock queueLock(this);
    const auto place = m_waiting.find(id);
    if (place == m_waiting.end()) continue;
    m_results[id] = std::move(result);
    place->second = false;
  }
  return worked;
}

void EnvironmentImpl::NotifyIdle() {
  const ScriptScope scope(m_isolate, m_context);
  for (int round = 0; round < kMostIdleRounds; ++round) {
    if (m_isolate->IdleNotificationDeadline(EnginePlatform()->MonotonicallyIncreasingTime() + 1.0)) break;
  }
}

void EnvironmentImpl::PushCallback(VRefCountedPointer<CallbackBase> callback) {
  if (m_terminating || callback.is_empty()) return;
  {
    const CallbackLock callbackLock(this);
    m_callbacks.push_back(std::move(callback));
  }
  if (m_observer != nullptr) m_observer->OnCallbackQueued();
}

std::vector<VRefCountedPointer<CallbackBase>> EnvironmentImpl::TakeCallbacks() {
  std::vector<VRefCountedPointer<CallbackBase>> callbacks;
  const CallbackLock callbackLock(this);
  if (!m_terminating) callbacks.swap(m_callbacks);
  return callbacks;
}

bool EnvironmentImpl::ProcessPendingCallbacks() {
  if (m_terminating) return false;
  const Caller caller(this);
  Entry entry(this);
  if (entry.context().IsEmpty()) return false;
  if (entry.IsOutermost()) {
    entry.Begin();
    RunEngineTasks();
    if (m_debugTarget != nullptr) m_debugTarget->Dispatch();
    entry.Settle();
  }

  std::vector<VRefCountedPointer<CallbackBase>> batch;
  {
    const CallbackLock callbackLock(this);
    batch.swap(m_callbacks);
    if (!batch.empty()) ++m_runningBatches;
  }
  if (batch.empty()) return false;

  bool terminated = false;
  for (auto callback = batch.begin(); callback != batch.end(); ++callback) {
    try {
      if (m_stopping || (m_guard->IsStopping() && !entry.IsOutermost())) {
        // If it is the script below that was to end, the rest comes when it has.
        const CallbackLock callbackLock(this);
        m_callbacks.insert(m_callbacks.begin(), callback, batch.end());
        break;
      }
      entry.Begin();
      terminated |= CallPending(callback->get_ptr());
    } catch (const std::bad_alloc&) {
      // Nor was there memory to say why it failed.
      LogToHost(3, m_noMemoryForCallback, nullptr);
    }
    entry.Settle();
  }
  // Dropped here, under the isolate's lock, where the handles can go at once.
  batch.clear();
  if (m_stopping) DropCallbacks();
  {
    const CallbackLock callbackLock(this);
    --m_runningBatches;
    ++m_endedBatches;
  }
  YieldIsolate();
  // A termination ended one callback; the script that had called for the batch ends as well.
  if ((terminated || m_guard->IsStopping()) && !entry.IsOutermost()) m_guard->EndNow(GetContext());
  return true;
}

void EnvironmentImpl::DropCallbacks() {
  std::vector<VRefCountedPointer<CallbackBase>> dropped;
  {
    const CallbackLock callbackLock(this);
    dropped.swap(m_callbacks);
  }
  if (!dropped.empty()) Log(1, "Callbacks dropped at the end: " + std::to_string(dropped.size()), nullptr);
}

/// Returns whether the callback was ended by a termination.
bool EnvironmentImpl::CallPending(CallbackBase* callback) {
  const v8::HandleScope scope(m_isolate);
  v8::TryCatch caught(m_isolate);
  caught.SetVerbose(m_debugTarget != nullptr);
  if (m_debugTarget != nullptr) m_debugTarget->OnScriptStart();
  std::string failure;
  try {
    callback->Call();
  } catch (const VornException& e) {
    failure = e.msg();
  } catch (const std::exception& e) {
    failure = e.what();
  }
  if (caught.HasTerminated() || m_isolate->IsExecutionTerminating() || m_guard->IsStopping()) {
    m_isolate->CancelTerminateExecution();
    Log(3, "Callback execution error: " + StoppedText(m_guard->Stopped()), nullptr);
    return true;
  }
  if (caught.HasCaught()) failure = StackText(GetContext(), caught, MessageText(caught));
  if (!failure.empty()) Log(3, "Callback execution error: " + failure, nullptr);
  return false;
}

/// Finalizers and asynchronous compilations wait for somebody to run the platform's tasks; a host that
/// started the engine itself does that.
void EnvironmentImpl::RunEngineTasks() {
  if (!OwnsEnginePlatform()) return;
  const v8::TryCatch caught(m_isolate);
  m_runsEngineTasks = true;
  while (!m_terminating && !m_guard->IsStopping() &&
         v8::platform::PumpMessageLoop(EnginePlatform(), m_isolate)) {
  }
  m_runsEngineTasks = false;
  if (caught.HasTerminated()) Log(3, "Callback execution error: " + StoppedText(m_guard->Stopped()), nullptr);
}

/// What none of our own calls catches, such as what a finalizer throws. Without this the engine prints it to standard
/// output, which is the host's.
void EnvironmentImpl::OnUncaught(v8::Local<v8::Message> message, v8::Local<v8::Value> error) {
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  auto* const self = static_cast<EnvironmentImpl*>(GetEnvironment(isolate));
  // While debuggers may come, the engine tells here of all that scripts and callbacks throw, for debuggers to stop at.
  if (self == nullptr || (self->m_debugTarget != nullptr && !self->m_runsEngineTasks)) return;
  try {
    const v8::Local<v8::Context> context = isolate->GetCurrentContext();
    v8::Local<v8::Value> stack;
    const bool hasStack = !context.IsEmpty() && v8::TryCatch::StackTrace(context, error).ToLocal(&stack);
    const std::string text = GetText(hasStack ? stack : message->Get().As<v8::Value>());
    self->Log(3, "Callback execution error: " + text, nullptr);
  } catch (const std::bad_alloc&) {
    // The engine's frames cannot be unwound.
  }
}

/// Lets threads that wait for the isolate have it for a moment. The isolate may be entered several times
/// below, by nested runs or by the host.
void EnvironmentImpl::YieldIsolate() {
  // A thread that comes back to an isolate with breakpoints crashes in the engine, which looks for a current isolate
  // before the thread can have one. While a debugger is attached, other threads wait for the end of the call, and one
  // that comes during the pause waits for its end.
  if (m_debugTarget != nullptr && m_debugTarget->IsWatched()) return;
  // The script below is to end, and what another thread runs now is not.
  if (m_guard->IsStopping()) return;
  int entered = 0;
  while (v8::Isolate::TryGetCurrent() == m_isolate) {
    m_isolate->Exit();
    ++entered;
  }
  const int entries = std::exchange(m_entries, 0);
  // With one entry, which is the caller's own, no script is being held up.
  const int pausing = entries > 1 ? 1 : 0;
  m_pausing += pausing;
  if (m_debugTarget != nullptr) m_debugTarget->Hold();
  {
    const v8::Unlocker unlocker(m_isolate);
    usleep(kPause);
  }
  if (m_debugTarget != nullptr) m_debugTarget->Unhold();
  m_pausing -= pausing;
  m_entries = entries;
  while (entered-- > 0) m_isolate->Enter();
}

std::vector<VRefCountedPointer<EnvironmentVariable>> EnvironmentImpl::Variables() {
  std::vector<VRefCountedPointer<EnvironmentVariable>> variables;
  const VariablesLock variablesLock(this);
  for (const auto& [name, variable] : m_variables) variables.push_back(variable);
  return variables;
}

bool EnvironmentImpl::HasPendingWork() {
  uint64_t endedBatches = 0;
  {
    const CallbackLock callbackLock(this);
    if (m_terminating) return false;
    if (!m_callbacks.empty() || m_runningBatches > 0) return true;
    endedBatches = m_endedBatches;
  }
  for (const auto& variable : Variables()) {
    if (variable->HasPendingWork()) return true;
  }
  // Work may have moved from an extension to the queue, and through it, since the first look.
  const CallbackLock callbackLock(this);
  return !m_callbacks.empty() || m_runningBatches > 0 || m_endedBatches != endedBatches;
}

std::vector<std::string> EnvironmentImpl::PendingWork() {
  std::vector<std::string> lines;
  {
    const CallbackLock callbackLock(this);
    if (m_terminating) return lines;
    if (!m_callbacks.empty()) lines.push_back("callbacks queued: " + std::to_string(m_callbacks.size()));
  }
  for (const auto& variable : Variables()) {
    for (std::string& line : variable->PendingWork()) lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace vnjs
