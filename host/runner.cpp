#include "host/runner.h"

#include <semaphore.h>

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

/// Wakes the thread that ends what is running; a signal handler cannot do that itself.
sem_t stopSignalled;

constexpr std::chrono::milliseconds kGrace(1000);
constexpr std::chrono::milliseconds kStep(20);

extern "C" void RequestStop(int signal) {
  stopRequested = true;
  sem_post(&stopSignalled);
}

/// False for a failed script, whose text goes to standard error, after its place as far as that is known.
bool Report(const RunResult& result, const std::string& source) {
  if (!result.isException()) return true;
  if (stopRequested && result.result() == "Script execution was interrupted") return true;
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

Runner::~Runner() {
  if (!m_watcher.joinable()) return;
  // While somebody still interrupts what the worker runs.
  m_automation.StopThread();
  m_done = true;
  sem_post(&stopSignalled);
  m_watcher.join();
}

void Runner::StopOnSignals() {
  sem_init(&stopSignalled, 0, 0);
  m_watcher = std::thread(&Runner::InterruptWhenSignalled, this);
  struct sigaction action {};
  action.sa_handler = RequestStop;
  // Reset: what cannot be interrupted, as a shell command cannot, still ends when the signal is sent again.
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void Runner::InterruptWhenSignalled() {
  while (sem_wait(&stopSignalled) != 0) {
  }
  const auto begin = std::chrono::steady_clock::now();
  for (; !m_done; std::this_thread::sleep_for(kStep)) {
    // More than once: when one script has ended, a callback may be the next that does not.
    if (std::chrono::steady_clock::now() - begin > kGrace) {
      m_automation.GetEnvironment()->GetIsolate()->TerminateExecution();
    }
  }
}

void Runner::WaitForDebugger() {
  constexpr unsigned int kPoll = 100;
  while (!IsStopped() && !m_automation.WaitForDebugger(kPoll)) {
  }
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

bool PrintText(const std::string& text) {
  const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (written && fflush(stdout) == 0) return true;
  fprintf(stderr, "vnjs: cannot write to standard output: %s\n", strerror(errno));
  return false;
}

}  // namespace vnjs::host
