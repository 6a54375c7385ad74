#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

namespace vnjs {

class RunGuard;

/// Ends what runs longer than it may, in all environments of the process.
///
/// Threads:  any. One of its own sleeps until the nearest deadline, or until there is one; there is none while nothing is
///           watched.
/// Locks:    its own comes before those of the guards.
class Watchdog {
 public:
  using Clock = std::chrono::steady_clock;

  /// Never destroyed: hosts end their environments as late as in the destructors of their statics.
  static Watchdog& Get();

  /// Looks after the guard's deadlines until Leave, which has to come before the guard's end. Throws VornException
  /// "Cannot create thread".
  void Watch(RunGuard* guard);
  void Leave(RunGuard* guard);

  /// A watched guard has got a deadline.
  void Expect(Clock::time_point deadline);

 private:
  static void* ThreadFunc(void* watchdog);
  void Run();
  Clock::time_point EndOverdue();

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::set<RunGuard*> m_guards;
  bool m_running = false;
  bool m_expects = false;

  /// When the thread looks next. Read without the lock.
  std::atomic<Clock::time_point> m_next{Clock::time_point::min()};
};

}  // namespace vnjs
