#pragma once

#include <vnjs/runner.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bridge/memory_budget.h"
#include "runner/definitions.h"
#include "runner/figures.h"
#include "runner/job.h"
#include "runner/runner_environment.h"

namespace vnjs::detail {

/// What a Runner is: the thread, what waits for it, and the environment of the script.
///
/// Owner:    the Runner and its thread; functions and promises of its scripts know it as long as it is there.
/// Threads:  any, where nothing else is said.
/// Locks:    one, which is held while nothing else is called but the guard of what is to be interrupted.
class RunnerCore : public std::enable_shared_from_this<RunnerCore> {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  /// Throws VornException in a child of a process that had a runner.
  explicit RunnerCore(RunnerOptions options);
  ~RunnerCore();

  void Define(const char* declaration, NativeSignature signature, std::unique_ptr<NativeFunction> function);
  ScriptError Start(const char* code, const char* source, bool isFile);
  ScriptError Reload(Milliseconds grace);
  void Stop(Milliseconds grace);

  /// The Runner goes.
  void Leave();
  void Interrupt();
  void Fill(Statistics* statistics) const;
  std::string Declare() const;

  /// Whether this process is a child of the one that the runner was made in.
  bool IsOfAnotherProcess() const;

  /// @{ Queue something. False when it is refused.
  bool Push(Job job);
  bool PushCall(uint64_t environment, FunctionCall call);
  bool PushSettlement(Settlement settlement);
  /// @}

  /// The environment has something to do.
  void WakeForCallbacks();

  /// @{ For the runner's thread: whether it has to see to something else than the script, and at once.
  bool HasRequest() const { return m_hasRequest.load(std::memory_order_relaxed); }
  bool IsCutShort() const { return m_cutShort; }
  /// @}

  bool IsOwnThread() const { return m_threadId == std::this_thread::get_id(); }
  void Log(int level, const std::string& message, const char* module, const ScriptError& error = {});
  void SetLastError(const ScriptError& error);

  /// Calls a function of the host's; what it throws is logged.
  void CallHost(const char* what, const std::function<void()>& function);

  const RunnerOptions& options() const { return m_options; }
  Figures& figures() { return m_figures; }

 private:
  using Lock = std::unique_lock<std::mutex>;

  /// A script that is to be started.
  struct Request {
    bool isReload = false;
    Clock::time_point end;
    bool begun = false;
    bool done = false;
    ScriptError error;
  };

  ScriptError Ask(Lock& lock, const std::shared_ptr<Request>& request);
  void MakeThread();
  void WaitOrCutShort(Lock& lock, Clock::time_point end, const std::function<bool()>& begun);
  bool Add(Lock& lock, Job job);
  void RequestStop(Clock::time_point end);

  void Run();
  bool WaitForWork();
  void BeginScript();
  ScriptError StartScript();
  ScriptError MakeEnvironment(std::string* code, std::string* source);
  void EndScript(Clock::time_point end);
  void EndEnvironment();
  void LeaveScript(State state);
  void DoWork();
  void Publish();
  Job* NextJob();
  size_t DropQueue();
  void SetState(State state);
  _VNLog* GetLogger();
  void Finish();

  const RunnerOptions m_options;
  const int m_process;
  Figures m_figures;
  Definitions m_definitions;

  std::atomic<std::thread::id> m_threadId{};
  std::atomic<bool> m_hasRequest{false};
  std::atomic<bool> m_cutShort{false};
  std::atomic<bool> m_callbacksWait{false};

  // The thread's own.
  std::unique_ptr<RunnerEnvironment> m_environment;
  std::vector<Job> m_batch;
  size_t m_nextInBatch = 0;

  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  std::condition_variable m_changed;
  State m_state = State::kStopped;
  bool m_hasThread = false;
  bool m_sleeps = false;
  bool m_isOpen = false;
  bool m_isRefusing = false;
  bool m_stopping = false;
  bool m_stopBegun = false;
  Clock::time_point m_stopEnd;

  /// How many threads have ended.
  uint64_t m_ends = 0;
  std::thread m_thread;
  std::vector<Job> m_queue;
  std::atomic<size_t> m_queued{0};
  std::deque<std::shared_ptr<Request>> m_requests;
  bool m_isFile = false;
  std::string m_code;
  std::string m_source;

  /// Of the script that there is, for other threads.
  RunnerEnvironment* m_visible = nullptr;
  VRefCountedPointer<EnvironmentVariable> m_timers;
  std::shared_ptr<MemoryBudget> m_memory;
  ScriptError m_lastError;
  std::chrono::system_clock::time_point m_lastErrorTime;
  std::chrono::microseconds m_pastCpu{0};

  mutable std::mutex m_loggerMutex;
  struct _VNLog* m_logger = nullptr;
};

}  // namespace vnjs::detail
