#include "engine/watchdog.h"

#include <pthread.h>
#include <signal.h>
#include <vnjs/host.h>
#include <vnjs/thread.h>

#include <algorithm>

#include "engine/run_guard.h"

namespace vnjs {

Watchdog& Watchdog::Get() {
  static auto* const watchdog = new Watchdog;
  return *watchdog;
}

void Watchdog::Watch(RunGuard* guard) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_guards.insert(guard);
  if (m_running) return;
  // The host's handlers of signals are for its own threads.
  sigset_t all;
  sigset_t mask;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &mask);
  unsigned long handle = 0;
  try {
    VCreateThread(ThreadFunc, this, &handle);
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    m_guards.erase(guard);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  VDetachThread(&handle);
  m_running = true;
}

void Watchdog::Leave(RunGuard* guard) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_guards.erase(guard);
  if (m_guards.empty()) m_changed.notify_all();
}

void Watchdog::Expect(Clock::time_point deadline) {
  // Most deadlines are later than the one before, at which the thread looks anyway.
  if (deadline >= m_next.load()) return;
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_expects = true;
  m_changed.notify_all();
}

void* Watchdog::ThreadFunc(void* watchdog) {
  set_thread_name("vorn/watchdog");
  static_cast<Watchdog*>(watchdog)->Run();
  return nullptr;
}

void Watchdog::Run() {
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_guards.empty()) {
    // Deadlines that come while the guards are asked are told of.
    m_next = Clock::time_point::max();
    m_expects = false;
    const Clock::time_point next = EndOverdue();
    m_next = next;
    // One that came just before that was later than never, and was not told of.
    if (EndOverdue() < next) continue;
    const auto isOver = [this] { return m_expects || m_guards.empty(); };
    if (next == Clock::time_point::max()) {
      m_changed.wait(lock, isOver);
    } else {
      m_changed.wait_until(lock, next, isOver);
    }
  }
  m_running = false;
}

/// Returns the nearest deadline of those that are left.
Watchdog::Clock::time_point Watchdog::EndOverdue() {
  Clock::time_point next = Clock::time_point::max();
  for (RunGuard* const guard : m_guards) next = std::min(next, guard->EndOverdue());
  return next;
}

}  // namespace vnjs
