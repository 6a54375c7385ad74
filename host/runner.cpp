#include "host/runner.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "host/excerpt.h"

namespace vnjs::host {
namespace {

/// How often the user has asked for the end.
std::atomic<int> stopSignals{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

constexpr std::chrono::milliseconds kGrace(1000);
constexpr std::chrono::milliseconds kStep(20);

extern "C" void RequestStop(int) {
  // What cannot be interrupted still ends when the signal comes once more.
  if (++stopSignals == 1) return;
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
}

}  // namespace

bool Report(const RunResult& result, const std::string& source, bool asked) {
  if (!result.isException()) return true;
  if (asked && result.result() == "Script execution was interrupted") return true;
  const ScriptPosition position = result.position();
  std::string text = source;
  if (!position.source.empty()) {
    text = position.source;
    if (position.line > 0) text += ':' + std::to_string(position.line);
    if (position.line > 0 && position.column > 0) text += ':' + std::to_string(position.column);
  }
  const std::string excerpt = Excerpt(text);
  text = Visible(text + ": " + result.result() + '\n' + excerpt);
  fwrite(text.data(), 1, text.size(), stderr);
  return false;
}

Runner::Runner(const std::string& storageDir, LogLevel level, bool threaded, double timeout, FileWatch& files)
    : m_files(files), m_automation(storageDir.c_str()) {
  m_automation.SetLogger(vlog_create(stderr, level));
  if (threaded) m_automation.StartThread();
  m_watcher = std::thread(&Runner::Watch, this, timeout);
}

Runner::~Runner() {
  // While somebody still interrupts what the worker runs.
  m_automation.StopThread();
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_done = true;
  }
  m_ended.notify_one();
  m_watcher.join();
}

void Runner::StopOnSignals() {
  struct sigaction action {};
  action.sa_handler = RequestStop;
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void Runner::Watch(double timeout) {
  auto lastWithoutSignal = std::chrono::steady_clock::now();
  for (std::unique_lock<std::mutex> lock(m_mutex); !m_done; m_ended.wait_for(lock, kStep)) {
    const auto now = std::chrono::steady_clock::now();
    if (stopSignals == 0) lastWithoutSignal = now;
    if (Elapsed() >= timeout) m_timedOut = true;
    const bool hasChanged = m_files.HasChanged();
    // More than once: when one script has ended, a callback may be the next that does not.
    const bool isLate = Elapsed() > m_pumpEnd + std::chrono::duration<double>(kGrace).count();
    if (m_timedOut || hasChanged || isLate || stopSignals > 1 || now - lastWithoutSignal > kGrace)
      m_automation.Interrupt();
  }
}

void Runner::WaitForDebugger() {
  constexpr unsigned int kPoll = 100;
  while (!IsStopped() && !m_automation.WaitForDebugger(kPoll)) {
  }
}

bool Runner::RunFile(const std::string& path) {
  const RunResult result = m_automation.RunFile(path.c_str());
  return Report(result, path, stopSignals > 0 || m_files.HasChanged());
}

bool Runner::Evaluate(const std::string& code) {
  KeepSource("eval", code);
  const RunResult result = m_automation.Run(code.c_str(), "eval");
  return Report(result, "eval", stopSignals > 0) && PrintText(result.result() + '\n');
}

void Runner::Pump(double seconds) {
  m_pumpEnd = seconds;
  while (m_automation.HasPendingWork() && !IsStopped() && Elapsed() < seconds) {
    const bool processed = !m_automation.IsThreaded() && m_automation.ProcessPendingCallbacks();
    if (!processed) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool Runner::WaitForChange() const {
  while (!m_files.HasChanged() && stopSignals == 0) std::this_thread::sleep_for(kStep);
  return stopSignals == 0;
}

bool Runner::IsStopped() const {
  return stopSignals > 0 || m_timedOut || m_files.HasChanged() || m_automation.IsTerminating() || IsFull();
}

double Runner::Elapsed() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}

bool PrintText(const std::string& text) {
  const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (written && fflush(stdout) == 0) return true;
  fprintf(stderr, "vnjs: cannot write to standard output: %s\n", strerror(errno));
  return false;
}

}  // namespace vnjs::host
