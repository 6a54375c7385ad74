#pragma once

#include <time.h>
#include <v8.h>
#include <vnjs/result.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

namespace vnjs {

/// Ends what an environment runs: because the host wants it to end, or because the heap is full.
///
/// What it ends is always the part that runs now: the outermost script or callback with all that it has called, its
/// microtasks included. A part that ended by itself in the meantime takes the wish with it.
///
/// Threads:  Interrupt, InterruptAt and Close from any thread; everything else under the isolate's lock.
class RunGuard {
 public:
  /// Watches the isolate's heap until Detach.
  explicit RunGuard(v8::Isolate* isolate);
  void Detach();

  /// Goes on watching it, before all others that have begun since.
  void WatchHeap();

  /// A part begins. Nothing that was asked for before is meant for it.
  void Begin();

  /// Gives the part that has begun, on the calling thread, so long; a watchdog has to know this guard. Time in which
  /// the thread waits for a processor does not count: on a busy machine nothing is ended that is not slow itself.
  void Limit(std::chrono::nanoseconds time);

  /// @{ While a debugger has the part paused, its time stands still.
  void HoldTime();
  void ReleaseTime();
  /// @}

  /// For the watchdog: ends the part if its time is over. Returns when it will be, or the end of all times.
  std::chrono::steady_clock::time_point EndOverdue();

  /// The part is over but for what it has left behind: drops its microtasks if it was ended, runs them if not.
  void Settle();

  /// The part is over. Gives the heap its limit back.
  void End();

  /// Ends the part that runs now, if there is one.
  void Interrupt();

  /// The same, if it still runs then; a watchdog has to know this guard.
  void InterruptAt(std::chrono::steady_clock::time_point time);

  /// Only code that a debugger's client ran within the part may have ended: if the part is to end, it still is.
  void StopAgain();

  /// The environment ends. If the host has interrupted something and asked for nothing since, the part that runs is
  /// ended, and none that begins gets anywhere.
  void Close();

  /// The host asks for something new.
  void Resume();

  enum Reason { kNone, kInterrupted, kOutOfMemory, kTimeout };

  bool IsStopping() const { return m_reason != kNone; }

  /// Parts have filled the heap twice, and what they left takes more than twice its limit: those that follow get
  /// little memory, enough to let go of something. Any thread.
  bool IsFull() const { return m_hopeless; }
  /// Why the part is to end. Known until End.
  Reason reason() const { return m_reason; }

  /// Ends the script that has called the native which calls this, as soon as the native returns.
  void EndNow(v8::Local<v8::Context> context);

  /// The engine has ended the part: why, and where it was.
  RunResult Stopped();

 private:
  using Time = std::chrono::steady_clock::time_point;
  static constexpr Time kNever = Time::max();

  /// Requests come from other threads.
  struct Lock : std::lock_guard<std::mutex> {
    explicit Lock(RunGuard* guard) : lock_guard(guard->m_mutex) {}
  };

  void Stop(Reason reason);
  std::chrono::nanoseconds TimeOwed() const;
  void LowerHeapLimit();
  void KeepMicrotasks(bool keep);
  static void OnInterrupt(v8::Isolate* isolate, void*);
  static size_t OnNearHeapLimit(void* guard, size_t current, size_t initial);
  static void OnCollected(v8::Isolate* isolate, v8::GCType, v8::GCCallbackFlags, void* guard);

  v8::Isolate* const m_isolate;

  /// Of the old objects; known once it was reached.
  size_t m_heapLimit = 0;
  bool m_limitRaised = false;

  /// A part has filled the heap, and how often the next ones are asked, by a collection, what they have let go of.
  bool m_filled = false;
  int m_collections = 0;

  /// What outlived a part that filled the heap fills it still, and a second such part has not made it better.
  bool m_full = false;
  std::atomic<bool> m_hopeless{false};

  /// What the heap may hold at a collection before the part is ended; 0 where only the engine's limit counts.
  size_t m_allowedHeap = 0;
  ScriptPosition m_place;
  bool m_keepsMicrotasks = false;
  v8::MicrotasksPolicy m_policy = v8::MicrotasksPolicy::kAuto;

  std::mutex m_mutex;

  /// Changed under the mutex only.
  std::atomic<Reason> m_reason{kNone};
  bool m_running = false;
  bool m_interrupted = false;
  bool m_closed = false;
  Time m_deadline = kNever;
  Reason m_deadlineReason = kTimeout;
  std::chrono::nanoseconds m_limit{0};

  /// The part's thread, and the processor time that it had taken before.
  int m_threadId = 0;
  clockid_t m_threadClock = 0;
  std::chrono::nanoseconds m_threadTime{0};
  std::chrono::nanoseconds m_timeLeft{0};
};

}  // namespace vnjs
