#pragma once

#include <vnjs/automation.h>

#include <chrono>
#include <string>

#include "host/host_functions.h"

namespace vnjs::host {

/// One environment on the command line: runs scripts, then the work that they left, until it is asked to
/// stop.
///
/// Threads:  the main thread's only. With `threaded`, scripts run on the environment's worker.
/// Failures: a script that fails is reported on standard error, like a compiler does it; see each operation.
/// Ending:   SIGINT and SIGTERM ask it to stop once what is running has ended. A second one of the same kind
///           ends the process as if nobody had cared for it.
class Runner {
 public:
  /// Throws VornException when there can be no context or no worker.
  Runner(const std::string& storageDir, LogLevel level, bool threaded);

  /// Runs one file. False when the script failed. Throws VornException when the file cannot be read.
  bool RunFile(const std::string& path);

  /// Runs a piece of code and prints its result text on standard output. False when it failed or nothing
  /// could be printed.
  bool Evaluate(const std::string& code);

  /// Processes callbacks until nothing is left to do, `seconds` have passed since this object was made, or it
  /// was asked to stop.
  void Pump(double seconds);

  /// Whether a signal or the script's own `exit()` asked for the end.
  bool IsStopped() const;

 private:
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  Automation m_automation;
};

/// Lets SIGINT and SIGTERM stop the process's Runner. The second one of a kind ends the process at once.
void StopOnSignals();

/// Writes all of `text` to standard output. False when that failed, which is reported on standard error.
bool PrintText(const std::string& text);

}  // namespace vnjs::host
