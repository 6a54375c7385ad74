#include "runner/runner_core.h"

#include <pthread.h>
#include <sys/stat.h>
#include <time.h>
#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/value.h>

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>

#include "runner/function_handle.h"
#include "runner/payload.h"

namespace vnjs {

namespace detail {

namespace {

std::atomic<int> forks{0};

/// In which process the first runner began; the engine's threads are in that one alone.
std::atomic<int> engineProcess{-1};

/// Environments are told apart by numbers, across all runners.
std::atomic<uint64_t> lastEnvironment{0};

/// How often this process and its parents have forked since.
int Process() {
  static const bool isCounted = pthread_atfork(nullptr, nullptr, [] { ++forks; }) == 0;
  static_cast<void>(isCounted);
  return forks;
}

ScriptError HostError(std::string message, ErrorKind kind = ErrorKind::kHost) {
  return {kind, std::move(message), {}, {}};
}

ScriptError StoppedError() { return HostError("The runner was stopped", ErrorKind::kInterrupted); }

/// Longer than anybody waits, and short enough to be added to a time.
RunnerCore::Clock::time_point After(RunnerCore::Milliseconds grace) {
  constexpr RunnerCore::Milliseconds kLongest = std::chrono::hours(24 * 365);
  return RunnerCore::Clock::now() + std::clamp(grace, RunnerCore::Milliseconds(0), kLongest);
}

bool IsSettlement(const Job& job) { return std::holds_alternative<Settlement>(job.what); }

/// Queues larger than this do not keep their memory while the runner sleeps.
constexpr size_t kKeptJobs = 256;

}  // namespace

RunnerCore::RunnerCore(RunnerOptions options) : m_options(std::move(options)), m_process(Process()) {
  if (engineProcess != -1 && engineProcess != m_process) {
    throw VornException("No script environment survives fork()");
  }
}

RunnerCore::~RunnerCore() {
  if (m_logger != nullptr) vlog_close(m_logger);
}

bool RunnerCore::IsOfAnotherProcess() const { return forks != m_process; }

// --- What the host asks for, on any thread ----------------------------------------------------------------------

void RunnerCore::Define(const char* declaration, NativeSignature signature,
                        std::unique_ptr<NativeFunction> function) {
  const Lock lock(m_mutex);
  if (m_hasThread) throw VornException("Functions are defined before the runner starts");
  m_definitions.Add(declaration, std::move(signature), std::move(function));
}

std::string RunnerCore::Declare() const {
  const Lock lock(m_mutex);
  return m_definitions.Declare();
}

ScriptError RunnerCore::Start(const char* code, const char* source, bool isFile) {
  if (IsOfAnotherProcess()) return HostError("No script environment survives fork()");
  if (code == nullptr) return HostError(isFile ? "There is no file to start" : "There is no code to start");
  auto request = std::make_shared<Request>();
  Lock lock(m_mutex);
  if (m_stopping) return StoppedError();
  const bool isDown = !m_hasThread || m_state == State::kFailed || m_state == State::kEnded;
  if (!isDown || !m_requests.empty()) return HostError("The runner runs already");
  m_isFile = isFile;
  m_code = code;
  m_source = source == nullptr ? "" : source;
  m_figures.Clear();
  m_lastError = {};
  m_lastErrorTime = {};
  try {
    if (!m_hasThread) MakeThread();
  } catch (const std::system_error&) {
    return HostError("Cannot create thread");
  }
  return Ask(lock, request);
}

/// Under the lock.
void RunnerCore::MakeThread() {
  if (m_thread.joinable()) m_thread.join();
  engineProcess = m_process;
  m_state = State::kStarting;
  m_thread = std::thread([self = shared_from_this()] { self->Run(); });
  m_hasThread = true;
  m_pastCpu = {};
}

ScriptError RunnerCore::Reload(Milliseconds grace) {
  if (IsOfAnotherProcess()) return HostError("No script environment survives fork()");
  auto request = std::make_shared<Request>();
  request->isReload = true;
  request->end = After(grace);
  Lock lock(m_mutex);
  if (m_stopping) return StoppedError();
  if (!m_hasThread) return HostError("The runner has not started");
  return Ask(lock, request);
}

ScriptError RunnerCore::Ask(Lock& lock, const std::shared_ptr<Request>& request) {
  m_requests.push_back(request);
  m_isOpen = true;
  m_hasRequest = true;
  m_wake.notify_one();
  if (IsOwnThread()) {
    lock.unlock();
    if (m_environment != nullptr && request->isReload) m_environment->InterruptAt(request->end);
    return {};
  }
  if (request->isReload) WaitOrCutShort(lock, request->end, [&] { return request->begun; });
  m_changed.wait(lock, [&] { return request->done; });
  return request->error;
}

/// Gives what runs its time, then none.
void RunnerCore::WaitOrCutShort(Lock& lock, Clock::time_point end, const std::function<bool()>& begun) {
  if (m_changed.wait_until(lock, end, begun)) return;
  m_cutShort = true;
  if (m_visible != nullptr) m_visible->Interrupt();
}

/// Under the lock.
void RunnerCore::RequestStop(Clock::time_point end) {
  m_stopEnd = m_stopping ? std::min(m_stopEnd, end) : end;
  m_stopping = true;
  m_isOpen = false;
  m_hasRequest = true;
  m_wake.notify_one();
}

void RunnerCore::Stop(Milliseconds grace) {
  if (IsOfAnotherProcess()) return;
  const Clock::time_point end = After(grace);
  Lock lock(m_mutex);
  if (IsOwnThread()) {
    RequestStop(end);
    lock.unlock();
    if (m_environment != nullptr) m_environment->InterruptAt(end);
    return;
  }
  if (m_hasThread) {
    RequestStop(end);
    const uint64_t ends = m_ends;
    WaitOrCutShort(lock, end, [&] { return m_stopBegun || m_ends != ends; });
    m_changed.wait(lock, [&] { return m_ends != ends; });
  }
  std::thread thread;
  Definitions definitions;
  if (!m_hasThread) {
    thread.swap(m_thread);
    std::swap(definitions, m_definitions);
  }
  lock.unlock();
  if (thread.joinable()) thread.join();
}

void RunnerCore::Leave() {
  Stop(Milliseconds(0));
  if (!IsOwnThread()) return;
  const Lock lock(m_mutex);
  // It keeps this object until it has ended.
  m_thread.detach();
}

void RunnerCore::Interrupt() {
  if (IsOfAnotherProcess()) return;
  const Lock lock(m_mutex);
  if (m_visible != nullptr) m_visible->Interrupt();
}

bool RunnerCore::Push(Job job) {
  if (IsOfAnotherProcess()) return false;
  job.queued = Clock::now();
  Lock lock(m_mutex);
  return Add(lock, std::move(job));
}

bool RunnerCore::PushCall(uint64_t environment, FunctionCall call) {
  if (IsOfAnotherProcess()) return false;
  Lock lock(m_mutex);
  if (m_visible == nullptr || m_visible->number() != environment) return false;
  return Add(lock, {std::move(call), Clock::now()});
}

bool RunnerCore::PushSettlement(Settlement settlement) {
  if (IsOfAnotherProcess()) return false;
  Lock lock(m_mutex);
  if (m_visible == nullptr || m_visible->number() != settlement.environment) return false;
  return Add(lock, {std::move(settlement), Clock::now()});
}

bool RunnerCore::Add(Lock& lock, Job job) {
  if (!m_isOpen) return false;
  // As many promises wait as the script has got, so there is room for what becomes of them.
  const bool isBounded = !IsSettlement(job);
  if (isBounded && m_queued >= m_options.queueLimit) {
    ++m_figures.dropped;
    const bool isFirst = !std::exchange(m_isRefusing, true);
    lock.unlock();
    if (isFirst) {
      Log(3,
          "The queue is full: with " + std::to_string(m_options.queueLimit) +
              " waiting, more is refused until half of it is done",
          "runner");
    }
    return false;
  }
  if (m_isRefusing && m_queued <= m_options.queueLimit / 2) m_isRefusing = false;
  m_queue.push_back(std::move(job));
  if (isBounded) ++m_queued;
  const bool sleeps = std::exchange(m_sleeps, false);
  lock.unlock();
  if (sleeps) m_wake.notify_one();
  return true;
}

void RunnerCore::WakeForCallbacks() {
  if (m_callbacksWait.exchange(true) || IsOwnThread()) return;
  {
    const Lock lock(m_mutex);
    if (!std::exchange(m_sleeps, false)) return;
  }
  m_wake.notify_one();
}

void RunnerCore::Fill(Statistics* statistics) const {
  m_figures.Fill(statistics);
  if (IsOfAnotherProcess()) return;
  VRefCountedPointer<EnvironmentVariable> timers;
  {
    const Lock lock(m_mutex);
    timers = m_timers;
    statistics->state = m_state;
    statistics->queued = m_queued;
    statistics->lastError = m_lastError;
    statistics->lastErrorTime = m_lastErrorTime;
    statistics->cpu = m_pastCpu;
    if (m_memory != nullptr) {
      statistics->bufferBytes = m_memory->used();
      statistics->bufferLimit = m_memory->limit();
    }
    clockid_t clock{};
    timespec time{};
    if (m_hasThread && m_thread.joinable() &&
        pthread_getcpuclockid(const_cast<std::thread&>(m_thread).native_handle(), &clock) == 0 &&
        clock_gettime(clock, &time) == 0) {
      statistics->cpu = std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
  }
  // Not under the lock: timers come due under their own, and wake the runner.
  if (!timers.is_empty()) statistics->timers = timers->PendingWork().size();
}

_VNLog* RunnerCore::GetLogger() {
  {
    const std::lock_guard<std::mutex> lock(m_loggerMutex);
    if (m_logger != nullptr) return m_logger;
  }
  _VNLog* const created = vlog_create(stderr, 1);
  _VNLog* kept = nullptr;
  {
    const std::lock_guard<std::mutex> lock(m_loggerMutex);
    if (m_logger == nullptr) m_logger = created;
    kept = m_logger;
  }
  // Another thread was faster.
  if (kept != created) vlog_close(created);
  return kept;
}

void RunnerCore::Log(int level, const std::string& message, const char* module, const ScriptError& error) {
  if (!m_options.log) {
    const std::string name = m_options.name.empty() ? "" : m_options.name + ": ";
    vlog_write(GetLogger(), module, level, "%s%s", name.c_str(), message.c_str());
    return;
  }
  try {
    m_options.log({m_options.name, module, level, message, error});
  } catch (...) {
    // There is no other log to tell it.
  }
}

void RunnerCore::SetLastError(const ScriptError& error) {
  const Lock lock(m_mutex);
  m_lastError = error;
  m_lastErrorTime = std::chrono::system_clock::now();
}

void RunnerCore::CallHost(const char* what, const std::function<void()>& function) {
  std::string problem;
  try {
    function();
    return;
  } catch (const ScriptError& error) {
    problem = error.message;
  } catch (const VornException& error) {
    problem = error.msg();
  } catch (const std::exception& error) {
    problem = error.what();
  } catch (...) {
    problem = "something that is no exception";
  }
  ++m_figures.failures;
  Log(3, std::string(what) + " of the host has thrown: " + problem, "runner");
}

// --- The thread -------------------------------------------------------------------------------------------------

void RunnerCore::Run() {
  m_threadId = std::this_thread::get_id();
  set_thread_name(m_options.name.empty() ? "vorn/runner" : m_options.name.c_str());
  while (WaitForWork()) {
    try {
      if (HasRequest()) {
        BeginScript();
      } else {
        DoWork();
      }
    } catch (const std::bad_alloc&) {
      Log(3, GetVornError(-2), "runner");
    }
  }
  Finish();
}

/// False when the runner is to stop.
bool RunnerCore::WaitForWork() {
  Lock lock(m_mutex);
  const bool hasScript = m_environment != nullptr;
  const auto hasWork = [&] {
    return m_stopping || !m_requests.empty() ||
           (hasScript && (m_nextInBatch < m_batch.size() || !m_queue.empty() || m_callbacksWait));
  };
  if (!hasWork()) {
    if (m_queue.capacity() > kKeptJobs) std::vector<Job>().swap(m_queue);
    m_batch.clear();
    m_nextInBatch = 0;
    if (m_batch.capacity() > kKeptJobs) std::vector<Job>().swap(m_batch);
    do {
      m_sleeps = true;
      m_wake.wait(lock);
    } while (!hasWork());
  }
  m_sleeps = false;
  return !m_stopping;
}

void RunnerCore::BeginScript() {
  std::shared_ptr<Request> request;
  {
    const Lock lock(m_mutex);
    // It may be Stop that came since.
    m_hasRequest = m_stopping;
    if (m_requests.empty()) return;
    request = m_requests.front();
    m_requests.pop_front();
    request->begun = true;
    m_cutShort = false;
    m_hasRequest = m_stopping || !m_requests.empty();
  }
  m_changed.notify_all();
  EndScript(request->end);
  ScriptError error = StartScript();
  {
    const Lock lock(m_mutex);
    request->error = std::move(error);
    request->done = true;
  }
  m_changed.notify_all();
}

ScriptError RunnerCore::StartScript() {
  SetState(State::kStarting);
  std::string code;
  std::string source;
  ScriptError error = MakeEnvironment(&code, &source);
  if (error) {
    ++m_figures.runs;
    ++m_figures.failures;
    SetLastError(error);
    Log(3, error.message, "runner", error);
  } else {
    const RunnerEnvironment::Turn turn(m_environment.get());
    m_figures.Begin();
    error = m_environment->Start(code, source, m_options.startLimit);
    m_figures.Ended();
    Publish();
  }
  if (error) {
    LeaveScript(State::kFailed);
  } else if (m_environment->HasEnded()) {
    LeaveScript(State::kEnded);
  } else {
    SetState(State::kRunning);
  }
  return error;
}

ScriptError RunnerCore::MakeEnvironment(std::string* code, std::string* source) {
  bool isFile = false;
  {
    const Lock lock(m_mutex);
    isFile = m_isFile;
    *code = m_code;
    *source = m_source;
  }
  try {
    if (isFile) {
      source->swap(*code);
      struct stat status {};
      if (stat(source->c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return HostError("Failed to open file: " + *source + " is a folder");
      }
      *code = ReadFile(source->c_str());
      if (source->empty()) return HostError("There is no file to start");
    }
    m_environment = std::make_unique<RunnerEnvironment>(this, ++lastEnvironment, &m_definitions);
  } catch (const VornException& e) {
    return HostError(e.msg());
  }
  const Lock lock(m_mutex);
  m_visible = m_environment.get();
  m_memory = m_environment->GetMemoryBudget();
  return {};
}

void RunnerCore::DoWork() {
  {
    const RunnerEnvironment::Turn turn(m_environment.get());
    m_figures.Begin();
    while (!HasRequest() && !m_environment->HasEnded()) {
      if (m_callbacksWait.load(std::memory_order_relaxed) && m_callbacksWait.exchange(false)) {
        m_environment->RunCallbacks();
        continue;
      }
      Job* const job = NextJob();
      if (job == nullptr) break;
      m_figures.Began(job->queued);
      m_environment->Do(*job);
      m_figures.Ended();
      job->what = std::monostate();
    }
    Publish();
  }
  if (m_environment->HasEnded()) LeaveScript(State::kEnded);
}

/// Inside a turn: what other threads see of the script's figures.
void RunnerCore::Publish() {
  m_environment->MeasureHeap();
  // Made with the first timer, and only there before it is shown.
  if (!m_timers.is_empty()) return;
  const VRefCountedPointer<EnvironmentVariable> timers = m_environment->GetTimers();
  const Lock lock(m_mutex);
  m_timers = timers;
}

/// Null when there is none.
Job* RunnerCore::NextJob() {
  if (m_nextInBatch == m_batch.size()) {
    m_batch.clear();
    m_nextInBatch = 0;
    const Lock lock(m_mutex);
    m_batch.swap(m_queue);
    if (m_batch.empty()) return nullptr;
  }
  Job* const job = &m_batch[m_nextInBatch++];
  if (!IsSettlement(*job)) --m_queued;
  return job;
}

/// Returns how many are gone that somebody wanted to be done.
size_t RunnerCore::DropQueue() {
  size_t dropped = 0;
  while (const Job* const job = NextJob()) dropped += IsSettlement(*job) ? 0 : 1;
  m_batch.clear();
  m_nextInBatch = 0;
  m_figures.dropped += dropped;
  return dropped;
}

void RunnerCore::EndScript(Clock::time_point end) {
  if (m_environment == nullptr) return;
  {
    const RunnerEnvironment::Turn turn(m_environment.get());
    if (!m_environment->HasEnded()) m_environment->CallStopHandlers(end);
  }
  EndEnvironment();
}

void RunnerCore::EndEnvironment() {
  VRefCountedPointer<EnvironmentVariable> timers;
  {
    const Lock lock(m_mutex);
    m_visible = nullptr;
    timers = m_timers;
    m_timers = nullptr;
    m_memory = nullptr;
  }
  m_environment.reset();
  m_callbacksWait = false;
}

/// The script has ended by itself, one way or the other.
void RunnerCore::LeaveScript(State state) {
  if (m_environment != nullptr) EndEnvironment();
  bool isOver = false;
  {
    const Lock lock(m_mutex);
    isOver = m_requests.empty();
    if (isOver) m_isOpen = false;
  }
  if (isOver) DropQueue();
  SetState(state);
}

void RunnerCore::SetState(State state) {
  {
    const Lock lock(m_mutex);
    m_state = state;
  }
  if (m_options.onState) CallHost("onState", [&] { m_options.onState(state); });
}

void RunnerCore::Finish() {
  Clock::time_point end;
  {
    const Lock lock(m_mutex);
    m_stopBegun = true;
    m_cutShort = false;
    m_hasRequest = false;
    end = m_stopEnd;
    for (const auto& request : m_requests) {
      request->begun = request->done = true;
      request->error = StoppedError();
    }
    m_requests.clear();
  }
  m_changed.notify_all();
  EndScript(end);
  const size_t dropped = DropQueue();
  m_definitions.Clear();
  Log(1, dropped == 0 ? "Stopped" : "Stopped; " + std::to_string(dropped) + " that waited were dropped",
      "runner");
  SetState(State::kStopped);
  {
    const Lock lock(m_mutex);
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    m_pastCpu = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::seconds(time.tv_sec) +
                                                                      std::chrono::nanoseconds(time.tv_nsec));
    m_threadId = std::thread::id();
    m_hasThread = m_stopping = m_stopBegun = m_hasRequest = m_cutShort = false;
    ++m_ends;
  }
  m_changed.notify_all();
}

}  // namespace detail

bool FunctionHandle::Post(Value* arguments, size_t count) {
  const std::shared_ptr<detail::RunnerCore> core = m_core.lock();
  return core != nullptr && core->PushCall(m_environment, {shared_from_this(), {arguments, count}});
}

}  // namespace vnjs
