#include "engine/environment_impl.h"

#include <libplatform/libplatform.h>
#include <unistd.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <algorithm>
#include <utility>

#include "bridge/native.h"
#include "engine/array_buffer_allocator.h"
#include "engine/machine_memory.h"
#include "engine/start.h"

namespace vnjs {

namespace {

/// Below, the engine cannot make a context and run it.
constexpr size_t kSmallestHeap = size_t{8} * 1024 * 1024;

constexpr size_t kHeapStep = size_t{1024} * 1024;

/// Two environments may be full at a time, and half of the memory is left to the host and the system. The least is for
/// a controller with 512 MB; no automation needs the most.
size_t DefaultLimit() {
  constexpr size_t kPart = 8;
  constexpr size_t kLeast = size_t{64} << 20;
  constexpr size_t kMost = size_t{1024} << 20;
  return std::clamp(MachineMemory() / kPart, kLeast, kMost) & ~(kHeapStep - 1);
}

/// Of environments to be made; 0 until somebody has said.
std::atomic<size_t> heapLimit{0};
std::atomic<size_t> bufferLimit{0};

size_t DefaultHeapLimit() { return heapLimit != 0 ? heapLimit.load() : DefaultLimit(); }
size_t DefaultBufferLimit() { return heapLimit != 0 ? bufferLimit.load() : DefaultLimit(); }

size_t HeapLimit(size_t heapBytes) {
  if (heapBytes < kSmallestHeap) throw VornException(GetVornError(-1));
  // The engine ends the process when its code does not begin and end with a page.
  return std::min(heapBytes, SIZE_MAX / 4) & ~(kHeapStep - 1);
}

/// The isolate that the process was given for debugging, and the budget that its buffers count against.
v8::Isolate* providedIsolate = nullptr;
std::shared_ptr<MemoryBudget>& ProvidedBudget() {
  static auto* const budget = new std::shared_ptr<MemoryBudget>;
  return *budget;
}

/// The engine ends the process when this returns. The log may be what is looked at afterwards. Versions of the engine
/// differ in what else they tell.
template <typename Details>
void LogEnd(const char* place, Details) {
  v8::Isolate* const isolate = v8::Isolate::TryGetCurrent();
  Environment* const environment = isolate == nullptr ? nullptr : GetEnvironment(isolate);
  if (environment == nullptr) return;
  static_cast<EnvironmentImpl*>(environment)
      ->LogToHost(4, std::string("The engine ends the process, out of memory or of stack in ") + place,
                  nullptr);
}

v8::Isolate* NewIsolate(const std::shared_ptr<MemoryBudget>& budget, size_t heapBytes) {
  v8::Isolate::CreateParams params;
  params.array_buffer_allocator_shared = std::make_shared<LimitedAllocator>(budget);
  params.constraints.ConfigureDefaultsFromHeapSize(0, heapBytes);
  v8::Isolate* const isolate = v8::Isolate::New(params);
  isolate->SetOOMErrorHandler(LogEnd);
  return isolate;
}

struct DisposeIsolate {
  void operator()(v8::Isolate* isolate) const {
    if (OwnsEnginePlatform()) v8::platform::NotifyIsolateShutdown(EnginePlatform(), isolate);
    isolate->Dispose();
  }
};

}  // namespace

EnvironmentImpl::EnvironmentImpl(const char* storageDir, bool useCurrentIsolate,
                                 const EnvironmentSettings& settings)
    : m_storageDir(storageDir == nullptr ? "" : storageDir), m_observer(settings.observer) {
  if (m_storageDir.empty() || m_storageDir.back() != '/') m_storageDir += '/';
  StartEngine();
  CreateIsolate(useCurrentIsolate, settings);
  bool created = false;
  try {
    created = CreateContext();
  } catch (const std::bad_alloc&) {
    // The same as without it.
  }
  if (created) return;
  // The sources that ran may have started threads and made a logger.
  End();
  throw VornException("Cannot create script context");
}

void EnvironmentImpl::CreateIsolate(bool useCurrentIsolate, const EnvironmentSettings& settings) {
  v8::Isolate* const current = useCurrentIsolate ? v8::Isolate::TryGetCurrent() : nullptr;
  // An isolate has room for one environment.
  m_useCurrentIsolate = current != nullptr && GetEnvironment(current) == nullptr;
  m_memory =
      std::make_shared<MemoryBudget>(settings.bufferBytes == 0 ? DefaultBufferLimit() : settings.bufferBytes);
  std::unique_ptr<v8::Isolate, DisposeIsolate> made;
  if (!m_useCurrentIsolate) {
    made.reset(
        NewIsolate(m_memory, settings.heapBytes == 0 ? DefaultHeapLimit() : HeapLimit(settings.heapBytes)));
    m_isolate = made.get();
  } else {
    m_isolate = current;
    if (current == providedIsolate) m_memory = ProvidedBudget();
  }
  m_droppedHandles = std::make_shared<DroppedHandles>(m_isolate);
  m_guard = std::make_unique<RunGuard>(m_isolate);
  static_cast<void>(made.release());
  m_isolate->SetData(0, static_cast<Environment*>(this));
}

bool EnvironmentImpl::CreateContext() {
  const ScriptScope scope(m_isolate, m_context);
  m_isolate->SetPromiseRejectCallback(Rejections::OnReject);
  m_isolate->AddMessageListener(OnUncaught);
  // The extensions' sources run here, and their natives with them: until it returns there is no m_context.
  const v8::Local<v8::Context> context = v8::Context::New(m_isolate);
  if (context.IsEmpty() || m_incomplete) return false;
  const v8::Context::Scope contextScope(context);
  m_context.Reset(m_isolate, context);
  m_json.Prepare(context);
  // Where evalPath starts.
  if (!context->Global()
           ->DefineOwnProperty(context, NewName(m_isolate, "global"), context->Global(), v8::DontEnum)
           .FromMaybe(false)) {
    return false;
  }
  StartDebugTarget();
  return true;
}

void EnvironmentImpl::StartDebugTarget() {
  try {
    m_debugTarget = NewDebugTarget(this);
  } catch (const VornException& e) {
    // There is no thread left for it. The environment can do without.
    Log(3, e.msg() + ": no debugger can attach", nullptr);
  }
}

void EnvironmentImpl::ProvideCurrentIsolate() {
  StartEngine();
  if (v8::Isolate::TryGetCurrent() != nullptr) return;
  ProvidedBudget() = std::make_shared<MemoryBudget>(DefaultBufferLimit());
  providedIsolate = NewIsolate(ProvidedBudget(), DefaultHeapLimit());
  providedIsolate->Enter();
}

void EnvironmentImpl::SetLimits(size_t heapBytes, size_t bufferBytes) {
  const size_t heapRounded = HeapLimit(heapBytes);
  bufferLimit = bufferBytes;
  heapLimit = heapRounded;
}

void EnvironmentImpl::Interrupt() {
  const Caller caller(this);
  m_guard->Interrupt();
  if (m_debugTarget != nullptr) m_debugTarget->Wake();
}

EnvironmentImpl::~EnvironmentImpl() { End(); }

void EnvironmentImpl::End() {
  // 1. From here on callbacks, threads and variables are refused, and callers that wait for the worker give up.
  m_ending = true;
  m_stopping = true;
  m_terminating = true;
  if (m_debugTarget != nullptr) m_debugTarget->Close();
  m_guard->Close();

  // 2. The worker ends at its next test. Afterwards only callers inside Run or ProcessPendingCallbacks and the
  //    named threads can still touch this object.
  StopThread();
  JoinWorker();

  // 3. Named threads poll their flag. They are told before callers are waited for, because they may be callers
  //    that come again and again; and they are joined outside the lock, which they may be waiting for. Requests
  //    for new ones are refused, so the table stays empty.
  std::map<std::string, VRefCountedPointer<Thread>> threads;
  {
    const ThreadLock threadLock(this);
    threads.swap(m_threads);
  }
  for (auto& [name, thread] : threads) thread->SetTerminating();
  while (m_callers > 0) usleep(1000);
  for (auto& [name, thread] : threads) {
    try {
      thread->Join();
    } catch (const VornException& e) {
      Log(3, e.msg() + ": " + name, nullptr);
    }
  }
  threads.clear();
  {
    // What is left of threads finds nobody from here on.
    const MutexScope linkLock(m_link->lock);
    m_link->environment = nullptr;
  }
  if (m_debugTarget != nullptr) m_debugTarget->Join();

  // 4. and 5. With no other thread left, the script state goes, and the isolate with it.
  ReleaseScriptState();

  // 6. Last, because any step may have logged.
  SetLogger(nullptr);
}

void EnvironmentImpl::ReleaseScriptState() {
  {
    const ScriptScope scope(m_isolate, m_context);
    m_debugTarget.reset();
    std::vector<VRefCountedPointer<CallbackBase>> callbacks;
    {
      const CallbackLock callbackLock(this);
      callbacks.swap(m_callbacks);
    }
    callbacks.clear();
    {
      const QueueLock queueLock(this);
      m_pendingCode.clear();
      m_results.clear();
      m_waiting.clear();
    }
    std::map<std::string, VRefCountedPointer<EnvironmentVariable>> variables;
    {
      const VariablesLock variablesLock(this);
      variables.swap(m_variables);
    }
    for (auto& [name, variable] : variables) variable->OnEnvironmentEnd();
    variables.clear();
    m_scripts.Clear();
    m_json.Clear();
    m_rejections.Clear();
    m_isolate->SetPromiseRejectCallback(nullptr);
    m_isolate->RemoveMessageListeners(OnUncaught);

    // Finalizers of what the script has dropped still find the environment in its slot.
    m_isolate->LowMemoryNotification();
    m_context.Reset();
    m_guard->Detach();
    m_isolate->SetData(0, nullptr);

    // SafeValues that somebody still holds do nothing from now on.
    m_droppedHandles->Close();
  }
  if (!m_useCurrentIsolate) DisposeIsolate()(m_isolate);
  m_isolate = nullptr;
}

void EnvironmentImpl::DispatchDebugMessages() {
  v8::Isolate* const isolate = v8::Isolate::TryGetCurrent();
  if (isolate == nullptr) return;
  auto* const self = static_cast<EnvironmentImpl*>(GetEnvironment(isolate));
  if (self == nullptr || self->m_debugTarget == nullptr) return;
  const ScriptScope scope(isolate, self->m_context);
  self->m_debugTarget->Dispatch();
}

void EnvironmentImpl::ProcessDebugMessages() {
  // The observer's thread is the one that natives are called on.
  if (m_observer != nullptr) return m_observer->OnDebuggerMail();
  const Caller caller(this);
  Entry entry(this);
  entry.Begin();
  DispatchDebugMessages();
  entry.Settle();
}

void EnvironmentImpl::LeaveDebugThread() {
  Entry entry(this);
  if (m_debugTarget != nullptr) m_debugTarget->OnThreadEnd();
}

bool EnvironmentImpl::WaitForDebugger(std::chrono::milliseconds time) {
  if (m_debugTarget == nullptr) return false;
  const Caller caller(this);
  Entry entry(this);
  return m_debugTarget->WaitForClient(time, [&] {
    entry.Begin();
    m_debugTarget->Dispatch();
    entry.Settle();
  });
}

void EnvironmentImpl::LogToHost(int level, const std::string& message, const char* module) {
  if (m_observer != nullptr) {
    m_observer->OnLog(level, message, module);
  } else {
    Environment::Log(level, message, module);
  }
}

void EnvironmentImpl::Log(int level, const std::string& message, const char* module) {
  LogToHost(level, message, module);
  if (m_debugTarget != nullptr) m_debugTarget->Log(level, message);
}

_VNLog* EnvironmentImpl::GetLogger() {
  {
    const QueueLock queueLock(this);
    if (m_logger != nullptr) return m_logger;
  }
  _VNLog* const created = vlog_create(stderr, 1);
  _VNLog* kept = nullptr;
  {
    const QueueLock queueLock(this);
    if (m_logger == nullptr) m_logger = created;
    kept = m_logger;
  }
  // Another thread was faster.
  if (kept != created) vlog_close(created);
  return kept;
}

void EnvironmentImpl::SetLogger(_VNLog* logger) {
  _VNLog* old = nullptr;
  {
    const QueueLock queueLock(this);
    old = std::exchange(m_logger, logger);
  }
  if (old != nullptr && old != logger) vlog_close(old);
}

v8::Local<v8::Context> EnvironmentImpl::GetContext() const { return m_context.Get(m_isolate); }

v8::Local<v8::Object> EnvironmentImpl::GetGlobal() const {
  const v8::Local<v8::Context> context = GetContext();
  return context.IsEmpty() ? v8::Local<v8::Object>() : context->Global();
}

VRefCountedPointer<EnvironmentVariable> EnvironmentImpl::GetVariable(std::string name) {
  if (m_terminating) return {};
  return FindVariable(name);
}

VRefCountedPointer<EnvironmentVariable> EnvironmentImpl::FindVariable(const std::string& name) {
  const VariablesLock variablesLock(this);
  const auto found = m_variables.find(name);
  return found == m_variables.end() ? nullptr : found->second;
}

void EnvironmentImpl::SetVariable(std::string name, VRefCountedPointer<EnvironmentVariable> value) {
  if (!m_terminating) KeepVariable(name, value);
}

void EnvironmentImpl::KeepVariable(const std::string& name, VRefCountedPointer<EnvironmentVariable> value) {
  // Destroyed after the lock is released: extensions decide what their state's destructor does.
  VRefCountedPointer<EnvironmentVariable> old;
  const VariablesLock variablesLock(this);
  const auto found = m_variables.find(name);
  if (found != m_variables.end()) {
    old = found->second;
    m_variables.erase(found);
  }
  if (!value.is_empty()) m_variables[name] = value;
}

VRefCountedPointer<Thread> EnvironmentImpl::CreateThread(std::string name, Thread::Function func,
                                                         void* data) {
  const ThreadLock threadLock(this);
  if (m_terminating) return {};
  const auto found = m_threads.find(name);
  if (found != m_threads.end()) return found->second;
  // Its place comes first: nobody would end a thread that is not in the table.
  const auto made = m_threads.emplace(name, nullptr).first;
  try {
    made->second = new Thread(this, name, func, data);
  } catch (...) {
    m_threads.erase(made);
    throw;
  }
  return made->second;
}

VRefCountedPointer<Thread> EnvironmentImpl::GetThread(std::string name) {
  const ThreadLock threadLock(this);
  if (m_terminating) return {};
  const auto found = m_threads.find(name);
  return found == m_threads.end() ? nullptr : found->second;
}

// Other implementations of Environment have no limits of ours.

std::shared_ptr<MemoryBudget> GetMemoryBudget(Environment* environment) {
  if (auto* const ours = dynamic_cast<EnvironmentImpl*>(environment)) return ours->GetMemoryBudget();
  return std::make_shared<MemoryBudget>(SIZE_MAX);
}

void RequireMemory(Environment* environment, uint64_t bytes) {
  const std::shared_ptr<MemoryBudget> memory = GetMemoryBudget(environment);
  if (memory->Fits(bytes)) return;
  if (bytes <= memory->limit()) environment->GetIsolate()->LowMemoryNotification();
  if (!memory->Fits(bytes)) throw VornException(GetVornError(-2));
}

void RequireMemoryBriefly(Environment* environment, uint64_t bytes) {
  constexpr uint64_t kNeverRefused = 1 << 20;
  if (bytes >= kNeverRefused) RequireMemory(environment, bytes);
}

bool IsInterrupted(Environment* environment) {
  auto* const ours = dynamic_cast<EnvironmentImpl*>(environment);
  return ours != nullptr && ours->GetRunGuard().IsStopping();
}

void EndIfInterrupted(v8::Isolate* isolate) {
  // The isolate's slot has no other kind.
  auto* const environment = static_cast<EnvironmentImpl*>(GetEnvironment(isolate));
  if (environment != nullptr && environment->GetRunGuard().IsStopping())
    environment->GetRunGuard().EndNow(environment->GetContext());
}

void EnvironmentImpl::DeleteThreadRef(const std::string& name, const Thread* thread) {
  VRefCountedPointer<Thread> forgotten;
  const ThreadLock threadLock(this);
  if (m_terminating) return;
  const auto found = m_threads.find(name);
  // A host may have made another thread of that name by itself.
  if (found == m_threads.end() || found->second.get_ptr() != thread) return;
  forgotten = found->second;
  m_threads.erase(found);
}

}  // namespace vnjs
