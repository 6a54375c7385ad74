#include "host/runner.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

namespace vnjs::host {
namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler writes it");

extern "C" void RequestStop(int signal) { stopRequested = true; }

/// False for a failed script, whose text goes to standard error, after its place as far as that is known.
bool Report(const RunResult& result, const std::string& source) {
  if (!result.isException()) return true;
  const ScriptPosition position = result.position();
  std::string text = source;
  if (!position.source.empty()) {
    text = position.source;
    if (position.line > 0) text += ':' + std::to_string(position.line);
    if (position.line > 0 && position.column > 0) text += ':' + std::to_string(position.column);
  }
  text += ": " + result.result() + '\n';
  fwrite(text.data(), 1, text.size(), stderr);
  return false;
}

}  // namespace

Runner::Runner(const std::string& storageDir, LogLevel level, bool threaded)
    : m_automation(storageDir.c_str()) {
  m_automation.SetLogger(vlog_create(stderr, level));
  if (threaded) m_automation.StartThread();
}

bool Runner::RunFile(const std::string& path) { return Report(m_automation.RunFile(path.c_str()), path); }

bool Runner::Evaluate(const std::string& code) {
  const RunResult result = m_automation.Run(code.c_str(), "eval");
  return Report(result, "eval") && PrintText(result.result() + '\n');
}

void Runner::Pump(double seconds) {
  const auto elapsed = [this] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
  };
  while (m_automation.HasPendingWork() && !IsStopped() && elapsed() < seconds) {
    const bool processed = !m_automation.IsThreaded() && m_automation.ProcessPendingCallbacks();
    if (!processed) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool Runner::IsStopped() const { return stopRequested || m_automation.IsTerminating(); }

void StopOnSignals() {
  struct sigaction action {};
  action.sa_handler = RequestStop;
  // Reset: a script that does not come to its end can still be stopped by sending the signal again.
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool PrintText(const std::string& text) {
  const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (written && fflush(stdout) == 0) return true;
  fprintf(stderr, "vnjs: cannot write to standard output: %s\n", strerror(errno));
  return false;
}

}  // namespace vnjs::host
