#pragma once

#include <pthread.h>
#include <v8.h>
#include <vnjs/environment.h>
#include <vnjs/error.h>
#include <vnjs/lock.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "bridge/json.h"
#include "bridge/memory_budget.h"
#include "bridge/script_scope.h"
#include "engine/debug/debugger.h"
#include "engine/dropped_handles.h"
#include "engine/environment_observer.h"
#include "engine/rejections.h"
#include "engine/run_guard.h"
#include "engine/script_store.h"

namespace vnjs {

class EnvironmentImpl;

/// Where threads find their environment as long as there is one: some outlive it. Its lock comes before all others.
struct EnvironmentLink {
  explicit EnvironmentLink(EnvironmentImpl* env) : environment(env) {}

  ReentrantMutexLock lock;
  EnvironmentImpl* environment;
};

/// The one implementation of Environment.
///
/// Locks:    four, each taken through the scoped class named after what it guards, none inside another, none held
///           while script code, a host function or somebody else's destructor runs. (Making a named thread is the
///           exception: it waits under ThreadLock until the thread has its name.) RunGuard has one of its own.
/// Ending:   End is the numbered sequence that says what each step relies on.
class EnvironmentImpl final : public Environment {
 public:
  /// With `useCurrentIsolate` the thread's current isolate is used if there is one that serves no other
  /// environment; it stays the caller's. Throws VornException when no context can be made.
  EnvironmentImpl(const char* storageDir, bool useCurrentIsolate, const EnvironmentSettings& settings = {});
  ~EnvironmentImpl() override;

  RunResult Run(const char* code, const char* source) override;
  RunResult RunFile(const char* path) override;
  void StartThread() override;
  void StopThread() override;
  bool IsThreaded() const override { return m_threaded; }
  bool IsTerminating() const override { return m_terminating; }
  void PushCallback(VRefCountedPointer<CallbackBase> callback) override;
  bool ProcessPendingCallbacks() override;
  std::string StorageDir() const override { return m_storageDir; }
  _VNLog* GetLogger() override;
  void SetLogger(_VNLog* logger) override;
  v8::Isolate* GetIsolate() const override { return m_isolate; }
  v8::Local<v8::Context> GetContext() const override;
  v8::Local<v8::Object> GetGlobal() const override;
  VRefCountedPointer<EnvironmentVariable> GetVariable(std::string name) override;
  void SetVariable(std::string name, VRefCountedPointer<EnvironmentVariable> value) override;
  VRefCountedPointer<Thread> CreateThread(std::string name, Thread::Function func, void* data) override;
  VRefCountedPointer<Thread> GetThread(std::string name) override;

  /// @{ The variables, whether or not it is terminating, until it has ended.
  VRefCountedPointer<EnvironmentVariable> FindVariable(const std::string& name);
  void KeepVariable(const std::string& name, VRefCountedPointer<EnvironmentVariable> value);
  /// @}

  /// Runs code on the calling thread, whether or not there is a worker.
  RunResult Execute(const PendingCode& code);

  /// What `exit()` does: from now on callbacks, threads and variables are refused. Nothing is interrupted.
  void SetTerminating() { m_terminating = true; }

  void Log(int level, const std::string& message, const char* module) override;

  /// The same, but not to debuggers, for which the engine may have to be asked for more memory.
  void LogToHost(int level, const std::string& message, const char* module);

  /// Gives the calling thread a current isolate for the rest of the process, unless it has one: where the first
  /// environment goes when debugging is on.
  static void ProvideCurrentIsolate();

  /// Handles what debuggers have sent to the environment of the current isolate. Under its lock.
  static void DispatchDebugMessages();

  /// The same for this one, on a thread that has not entered the isolate.
  void ProcessDebugMessages();

  /// For the debug target's own thread, at its end.
  void LeaveDebugThread();

  /// See Automation.
  bool WaitForDebugger(std::chrono::milliseconds time);

  /// See Automation.
  void Interrupt();
  static void SetLimits(size_t heapBytes, size_t bufferBytes);

  /// A native of an extension could not be made. Ends an environment that is being created.
  void SetIncomplete() { m_incomplete = true; }

  /// A named thread was joined or detached.
  void DeleteThreadRef(const std::string& name, const Thread* thread);
  bool HasPendingWork();
  std::vector<std::string> PendingWork();

  /// @{ For an observer that runs what is queued itself. Under the isolate's lock, but for TakeCallbacks.
  class Entry;
  std::vector<VRefCountedPointer<CallbackBase>> TakeCallbacks();
  void RunEngineTasks();
  ScriptStore& GetScripts() { return m_scripts; }
  DebugTarget* GetDebugTarget() const { return m_debugTarget.get(); }
  /// @}

  EnvironmentObserver* GetObserver() const { return m_observer; }
  const std::shared_ptr<EnvironmentLink>& GetLink() const { return m_link; }
  const std::shared_ptr<DroppedHandles>& GetDroppedHandles() const { return m_droppedHandles; }
  Rejections& GetRejections() { return m_rejections; }
  RunGuard& GetRunGuard() { return *m_guard; }
  const std::shared_ptr<MemoryBudget>& GetMemoryBudget() const { return m_memory; }

 private:
  struct ThreadLock : MutexScope {
    explicit ThreadLock(EnvironmentImpl* env) : MutexScope(env->m_threadsLock) {}
  };
  struct VariablesLock : MutexScope {
    explicit VariablesLock(EnvironmentImpl* env) : MutexScope(env->m_variablesLock) {}
  };
  struct QueueLock : MutexScope {
    explicit QueueLock(EnvironmentImpl* env) : MutexScope(env->m_queueLock) {}
  };
  struct CallbackLock : MutexScope {
    explicit CallbackLock(EnvironmentImpl* env) : MutexScope(env->m_callbackLock) {}
  };

  std::vector<VRefCountedPointer<EnvironmentVariable>> Variables();

  /// Counts a thread that is inside a call, so that the destructor can wait for it.
  class Caller;

  /// Code that a caller has queued for the worker.
  class Request;

  void CreateIsolate(bool useCurrentIsolate, const EnvironmentSettings& settings);
  bool CreateContext();
  void StartDebugTarget();
  void End();
  void ReleaseScriptState();
  void JoinWorker();
  bool OnWorker() const { return m_workerId == pthread_self(); }

  RunResult RunOnWorker(const char* code, const char* source);
  RunResult ExecuteEntered(v8::Local<v8::Context> context, const PendingCode& code);
  RunResult ExecuteStopped();

  void LogExecuting(const std::string& code);

  static void* MainThreadFunc(void* env);
  bool RunWorkerCycle();
  void NotifyIdle();
  bool CallPending(CallbackBase* callback);
  /// The rest of a batch, and what was queued behind it, is never called; a line of the log says how much that is.
  void DropCallbacks();
  static void OnUncaught(v8::Local<v8::Message> message, v8::Local<v8::Value> error);
  void YieldIsolate();

  std::string m_storageDir;

  /// Lines of the log for when there is no memory to make them.
  const std::string m_noMemoryForResult = std::string("result: Error: ") + GetVornError(-2);
  const std::string m_noMemoryForCallback = std::string("Callback execution error: ") + GetVornError(-2);
  EnvironmentObserver* const m_observer;
  bool m_useCurrentIsolate = false;
  bool m_incomplete = false;
  v8::Isolate* m_isolate = nullptr;
  std::shared_ptr<EnvironmentLink> m_link = std::make_shared<EnvironmentLink>(this);
  std::shared_ptr<DroppedHandles> m_droppedHandles;
  std::shared_ptr<MemoryBudget> m_memory;
  std::unique_ptr<RunGuard> m_guard;

  std::atomic<bool> m_threaded{false};
  std::atomic<bool> m_terminating{false};

  /// StopThread or the destructor has begun: of what is queued, nothing begins any more. After `exit()` it does.
  std::atomic<bool> m_stopping{false};
  std::atomic<bool> m_ending{false};
  std::atomic<int> m_callers{0};
  std::atomic<unsigned long> m_thread{0};
  std::atomic<unsigned long> m_workerId{0};

  ReentrantMutexLock m_threadsLock;
  std::map<std::string, VRefCountedPointer<Thread>> m_threads;

  ReentrantMutexLock m_variablesLock;
  std::map<std::string, VRefCountedPointer<EnvironmentVariable>> m_variables;

  MutexLock m_queueLock{false};
  uint32_t m_lastCodeId = 0;
  std::map<uint32_t, PendingCode> m_pendingCode;
  std::map<uint32_t, RunResult> m_results;

  /// True until the result is there.
  std::map<uint32_t, bool> m_waiting;
  _VNLog* m_logger = nullptr;

  ReentrantMutexLock m_callbackLock;
  std::vector<VRefCountedPointer<CallbackBase>> m_callbacks;
  int m_runningBatches = 0;
  uint64_t m_endedBatches = 0;

  // Guarded by the isolate's Locker.
  v8::Global<v8::Context> m_context;
  ScriptStore m_scripts;
  JsonStringifier m_json;
  Rejections m_rejections;
  int m_entries = 0;
  int m_pausing = 0;
  bool m_runsEngineTasks = false;

  /// Null while debugging is off.
  std::unique_ptr<DebugTarget> m_debugTarget;
};

class EnvironmentImpl::Caller {
 public:
  explicit Caller(EnvironmentImpl* env) : m_callers(env->m_callers) { ++m_callers; }
  ~Caller() { --m_callers; }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

 private:
  std::atomic<int>& m_callers;
};

/// The isolate, entered by this thread, with the number of entries below.
class EnvironmentImpl::Entry {
 public:
  explicit Entry(EnvironmentImpl* env) : m_scope(env->m_isolate, env->m_context), m_env(env) {
    ++m_env->m_entries;
  }
  ~Entry() { --m_env->m_entries; }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  /// Empty while the extensions' sources run: the environment is not ready for code then.
  v8::Local<v8::Context> context() const { return m_scope.context(); }

  /// No script is running below this entry.
  bool IsOutermost() const { return m_env->m_entries == 1; }

  /// Around each outermost run and callback. At its end, what the script has left behind is reported, as far as
  /// there is memory for it, and let go.
  void Begin() {
    if (IsOnly()) m_env->m_guard->Begin();
  }
  void Settle() {
    SettleMicrotasks();
    Finish();
  }

  /// @{ The two halves of it. What the guard says of the part is known in between.
  void SettleMicrotasks() {
    if (IsOnly()) m_env->m_guard->Settle();
  }
  void Finish() {
    if (!IsOnly()) return;
    try {
      m_env->m_rejections.Report(m_env);
    } catch (const std::exception&) {
      // Fits into the string itself.
      m_env->Log(3, GetVornError(-2), nullptr);
    }
    m_env->m_droppedHandles->Reset();
    m_env->m_guard->End();
  }
  /// @}

 private:
  /// No script is running below, nor pausing on another thread while this one has its turn.
  bool IsOnly() const { return IsOutermost() && m_env->m_pausing == 0; }

  const ScriptScope m_scope;
  EnvironmentImpl* const m_env;
};

}  // namespace vnjs
