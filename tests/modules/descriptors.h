#pragma once

#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <iterator>

namespace vnjs::testing {

/// How many descriptors this process has open.
inline std::ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

/// Whether this process has a child, ended or not, that nobody waited for. Does not wait.
inline bool HasChildren() { return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

/// Interrupts this thread by a signal every so many microseconds, until the end of the scope.
class Interruptions {
 public:
  explicit Interruptions(int microseconds) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &m_before);
    const itimerval often{{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~Interruptions() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &m_before, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  struct sigaction m_before {};
};

/// Leaves this process `count` more descriptors to open until the end of the scope.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int count) {
    getrlimit(RLIMIT_NOFILE, &m_before);
    const int next = dup(STDIN_FILENO);
    close(next);
    rlimit limit = m_before;
    limit.rlim_cur = static_cast<rlim_t>(next) + static_cast<rlim_t>(count);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit m_before{};
};

}  // namespace vnjs::testing
