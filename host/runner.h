#pragma once

#include <vnjs/automation.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

#include "host/file_watch.h"
#include "host/host_functions.h"

namespace vnjs::host {

/// One environment on the command line: runs scripts, then the work that they left, until it is asked to
/// stop.
///
/// Threads:  the main thread's only. With `threaded`, scripts run on the environment's worker.
/// Changes:  when one of `files` has changed, what is running is interrupted, and nothing begins any more.
/// Failures: a script that fails is reported on standard error, like a compiler does it; see each operation.
/// Ending:   SIGINT and SIGTERM ask it to stop: no further script or callback begins, and what is running is
///           interrupted when it has not ended within a second, or at the second signal. A third one ends the
///           process as if nobody had cared for it.
class Runner {
 public:
  /// What is running after `timeout` seconds is interrupted, and nothing begins any more. Throws VornException when
  /// there can be no context or no worker.
  Runner(const std::string& storageDir, LogLevel level, bool threaded, double timeout, FileWatch& files);

  ~Runner();
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  /// Lets SIGINT and SIGTERM stop this and all later ones from now on.
  static void StopOnSignals();

  /// Waits for a debugger, so that the next script stops at its first statement, or until it was asked to stop.
  void WaitForDebugger();

  /// Runs one file. False when the script failed. Throws VornException when the file cannot be read.
  bool RunFile(const std::string& path);

  /// Runs a piece of code and prints its result text on standard output. False when it failed or nothing
  /// could be printed.
  bool Evaluate(const std::string& code);

  /// Processes callbacks until nothing is left to do, `seconds` have passed since this object was made, or it
  /// was asked to stop. One that runs a second longer is interrupted.
  void Pump(double seconds);

  /// Waits until a file has changed. False when a signal came first.
  bool WaitForChange() const;

  /// Whether a signal, the timeout, a changed file, the script's own `exit()` or its full memory asks for the end.
  bool IsStopped() const;
  bool IsTimedOut() const { return m_timedOut; }

  /// Whether scripts can do no more than let go of what fills their memory.
  bool IsFull() const { return m_automation.IsMemoryFull(); }

 private:
  double Elapsed() const;
  void Watch(double timeout);

  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  std::atomic<bool> m_timedOut{false};
  std::atomic<double> m_pumpEnd{std::numeric_limits<double>::infinity()};
  FileWatch& m_files;
  Automation m_automation;

  /// What wakes the watcher when there is nothing more to watch.
  std::mutex m_mutex;
  std::condition_variable m_ended;
  bool m_done = false;
  std::thread m_watcher;
};

/// False for a failed script, whose text goes to standard error, after its place as far as that is known. That one was
/// interrupted is no failure when the user `asked` for it.
bool Report(const RunResult& result, const std::string& source, bool asked);

/// Writes all of `text` to standard output. False when that failed, which is reported on standard error.
bool PrintText(const std::string& text);

}  // namespace vnjs::host
