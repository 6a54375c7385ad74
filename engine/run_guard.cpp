#include "engine/run_guard.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "bridge/c_resource.h"
#include "bridge/native.h"
#include "engine/environment_impl.h"
#include "engine/failure.h"
#include "engine/watchdog.h"

namespace vnjs {

namespace {

/// What the heap may grow by while a script that filled it is being ended: the engine ends the process when it
/// reaches a limit within one of its own functions, which cannot be ended half-way. Most of it is never touched.
constexpr size_t kRoomToEnd = size_t{sizeof(void*) == 8 ? 1024 : 256} * 1024 * 1024;

/// The part that has filled the heap, and the next ones, which may let go of what it has left. A collection takes long.
constexpr int kMostCollections = 4;

/// Of a heap that is full for good, a part may take so many parts of its limit more, as long as no more than so many
/// times the limit is used.
constexpr size_t kAllowance = 8;
constexpr size_t kMostFull = 4;

size_t UsedHeap(v8::Isolate* isolate) {
  v8::HeapStatistics statistics;
  isolate->GetHeapStatistics(&statistics);
  return statistics.used_heap_size();
}

std::chrono::nanoseconds ClockTime(clockid_t clock) {
  timespec time{};
  if (clock_gettime(clock, &time) != 0) return {};
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Whether a thread of this process has a processor or waits for one.
bool IsRunnable(int threadId) {
  const std::string path = "/proc/self/task/" + std::to_string(threadId) + "/stat";
  const FilePointer file(fopen(path.c_str(), "re"));
  char text[256] = {};
  if (file == nullptr || fread(text, 1, sizeof text - 1, file.get()) == 0) return false;
  // Behind the name, which can have anything in it.
  const char* const end = strrchr(text, ')');
  return end != nullptr && end[1] == ' ' && end[2] == 'R';
}

ScriptPosition CurrentPlace(v8::Isolate* isolate) {
  const v8::HandleScope scope(isolate);
  const v8::Local<v8::StackTrace> stack = v8::StackTrace::CurrentStackTrace(isolate, 1);
  if (stack->GetFrameCount() == 0) return {};
  const v8::Local<v8::StackFrame> frame = stack->GetFrame(isolate, 0);
  return {GetString(frame->GetScriptNameOrSourceURL()), frame->GetLineNumber(), frame->GetColumn()};
}

}  // namespace

RunGuard::RunGuard(v8::Isolate* isolate) : m_isolate(isolate) {
  isolate->AddNearHeapLimitCallback(OnNearHeapLimit, this);
}

void RunGuard::WatchHeap() {
  m_isolate->RemoveNearHeapLimitCallback(OnNearHeapLimit, 0);
  m_isolate->AddNearHeapLimitCallback(OnNearHeapLimit, this);
}

void RunGuard::Detach() { m_isolate->RemoveNearHeapLimitCallback(OnNearHeapLimit, m_heapLimit); }

void RunGuard::Begin() {
  m_isolate->CancelTerminateExecution();
  m_place = {};
  bool full = false;
  if (m_hopeless) {
    const size_t used = UsedHeap(m_isolate);
    full = used > kMostFull * m_heapLimit;
    m_allowedHeap = used + m_heapLimit / kAllowance;
    // So that what the part lets go of is noticed.
    m_collections = std::max(m_collections, 1);
    m_isolate->AddGCEpilogueCallback(OnCollected, this);
  }
  const Lock lock(this);
  m_running = true;
  m_reason = m_closed ? kInterrupted : full ? kOutOfMemory : kNone;
  if (m_reason != kNone) m_isolate->TerminateExecution();
}

void RunGuard::Limit(std::chrono::nanoseconds time) {
  thread_local const int threadId = static_cast<int>(gettid());
  const std::chrono::nanoseconds threadTime = ClockTime(CLOCK_THREAD_CPUTIME_ID);
  const Time deadline = std::chrono::steady_clock::now() + time;
  {
    const Lock lock(this);
    m_limit = time;
    m_threadId = threadId;
    m_threadTime = threadTime;
    pthread_getcpuclockid(pthread_self(), &m_threadClock);
    // Stop may have been asked for already.
    if (m_deadline <= deadline) return;
    m_deadline = deadline;
    m_deadlineReason = kTimeout;
  }
  Watchdog::Get().Expect(deadline);
}

void RunGuard::InterruptAt(Time time) {
  {
    const Lock lock(this);
    if (!m_running || m_deadline <= time) return;
    m_deadline = time;
    m_deadlineReason = kInterrupted;
  }
  Watchdog::Get().Expect(time);
}

void RunGuard::HoldTime() {
  const Lock lock(this);
  if (m_deadline == kNever) return;
  m_timeLeft = std::max(std::chrono::nanoseconds(1), m_deadline - std::chrono::steady_clock::now());
  m_deadline = kNever;
}

void RunGuard::ReleaseTime() {
  Time deadline = kNever;
  {
    const Lock lock(this);
    if (m_timeLeft.count() == 0) return;
    deadline = std::chrono::steady_clock::now() + m_timeLeft;
    m_timeLeft = std::chrono::nanoseconds(0);
    m_deadline = std::min(m_deadline, deadline);
  }
  Watchdog::Get().Expect(deadline);
}

RunGuard::Time RunGuard::EndOverdue() {
  const Lock lock(this);
  if (m_deadline > std::chrono::steady_clock::now()) return m_deadline;
  const std::chrono::nanoseconds owed = TimeOwed();
  m_deadline = owed.count() > 0 ? std::chrono::steady_clock::now() + owed : kNever;
  if (m_running && owed.count() == 0) Stop(m_deadlineReason);
  return m_deadline;
}

/// Under the lock: how much of its limit the part has not had, because its thread got no processor. Nothing when the
/// thread waits for something else, as in a native.
std::chrono::nanoseconds RunGuard::TimeOwed() const {
  constexpr std::chrono::nanoseconds kNone(0);
  if (!m_running || m_deadlineReason != kTimeout || !IsRunnable(m_threadId)) return kNone;
  const std::chrono::nanoseconds had = ClockTime(m_threadClock) - m_threadTime;
  constexpr std::chrono::nanoseconds kLeast = std::chrono::milliseconds(1);
  return had < m_limit ? std::max(kLeast, m_limit - had) : kNone;
}

void RunGuard::Settle() {
  // The engine drops all microtasks when it ends one.
  if (IsStopping() || m_isolate->IsExecutionTerminating()) m_isolate->TerminateExecution();
  m_isolate->PerformMicrotaskCheckpoint();
  // What ended it stays known: code that tells what it left behind is to end as well.
  if (IsStopping() || m_isolate->IsExecutionTerminating()) m_isolate->CancelTerminateExecution();
  KeepMicrotasks(false);
}

void RunGuard::End() {
  if (std::exchange(m_allowedHeap, 0) != 0) m_isolate->RemoveGCEpilogueCallback(OnCollected, this);
  {
    const Lock lock(this);
    m_running = false;
    m_reason = kNone;
    m_deadline = kNever;
    m_timeLeft = std::chrono::nanoseconds(0);
  }
  m_isolate->CancelTerminateExecution();
  KeepMicrotasks(false);
  if (m_limitRaised) LowerHeapLimit();
}

/// The engine runs those of a script that is ended when its outermost call returns.
void RunGuard::KeepMicrotasks(bool keep) {
  if (keep == m_keepsMicrotasks) return;
  m_keepsMicrotasks = keep;
  if (keep) m_policy = m_isolate->GetMicrotasksPolicy();
  m_isolate->SetMicrotasksPolicy(keep ? v8::MicrotasksPolicy::kExplicit : m_policy);
}

void RunGuard::LowerHeapLimit() {
  const bool filled = std::exchange(m_filled, false);
  if (m_collections > 0) {
    --m_collections;
    m_isolate->LowMemoryNotification();
  }
  const size_t used = UsedHeap(m_isolate);
  m_hopeless = used > 2 * m_heapLimit && (filled ? m_full : m_hopeless.load());
  m_full = used > m_heapLimit && (filled || m_full);
  // The engine lowers the limit no further than to a quarter more than what there is.
  m_limitRaised = used + used / 4 > m_heapLimit;
  if (m_limitRaised && !filled) return;
  m_isolate->RemoveNearHeapLimitCallback(OnNearHeapLimit, m_heapLimit);
  m_isolate->AddNearHeapLimitCallback(OnNearHeapLimit, this);
}

void RunGuard::Interrupt() {
  const Lock lock(this);
  m_interrupted = true;
  if (m_running) Stop(kInterrupted);
}

void RunGuard::StopAgain() {
  const Lock lock(this);
  if (m_running && IsStopping()) Stop(m_reason);
}

void RunGuard::Close() {
  const Lock lock(this);
  m_closed = m_interrupted;
  if (m_closed && m_running) Stop(kInterrupted);
}

void RunGuard::Resume() {
  const Lock lock(this);
  m_interrupted = false;
}

void RunGuard::EndNow(v8::Local<v8::Context> context) {
  if (m_place.line == 0) m_place = CurrentPlace(m_isolate);
  KeepMicrotasks(true);
  m_isolate->TerminateExecution();
  // The engine notices that only where code is entered or loops, so some code is entered.
  v8::Local<v8::Script> nothing;
  v8::Local<v8::Value> ignored;
  if (!v8::Script::Compile(context, v8::String::Empty(m_isolate)).ToLocal(&nothing)) return;
  if (!nothing->Run(context).ToLocal(&ignored)) return;
}

RunResult RunGuard::Stopped() {
  const Lock lock(this);
  if (m_reason == kNone) m_reason = kInterrupted;
  const char* const text = m_reason == kOutOfMemory ? kOutOfMemoryText
                           : m_reason == kTimeout   ? kTimeoutText
                                                    : kInterruptedText;
  return {text, true, m_place};
}

/// Under the lock. Not the engine's own termination at once, because afterwards nobody can tell where it was.
void RunGuard::Stop(Reason reason) {
  if (m_reason == kNone) m_reason = reason;
  m_isolate->RequestInterrupt(OnInterrupt, nullptr);
}

void RunGuard::OnInterrupt(v8::Isolate* isolate, void*) {
  // The request may come late: after its part, or its environment, has ended.
  auto* const environment = static_cast<EnvironmentImpl*>(GetEnvironment(isolate));
  if (environment == nullptr || !environment->GetRunGuard().IsStopping()) return;
  RunGuard& guard = environment->GetRunGuard();
  try {
    if (guard.m_place.line == 0) guard.m_place = CurrentPlace(isolate);
  } catch (const std::bad_alloc&) {
    // Without its place.
  }
  guard.KeepMicrotasks(true);
  isolate->TerminateExecution();
}

/// Inside the collector, as the next one.
void RunGuard::OnCollected(v8::Isolate* isolate, v8::GCType, v8::GCCallbackFlags, void* data) {
  auto* const guard = static_cast<RunGuard*>(data);
  if (UsedHeap(isolate) <= guard->m_allowedHeap) return;
  const Lock lock(guard);
  if (guard->m_running) guard->Stop(kOutOfMemory);
}

/// Inside the collector, where no script can be asked for its place.
size_t RunGuard::OnNearHeapLimit(void* data, size_t current, size_t initial) {
  auto* const guard = static_cast<RunGuard*>(data);
  guard->m_heapLimit = initial;
  guard->m_limitRaised = guard->m_filled = true;
  guard->m_collections = kMostCollections;
  const Lock lock(guard);
  if (guard->m_running) guard->Stop(kOutOfMemory);
  return current + kRoomToEnd;
}

}  // namespace vnjs
