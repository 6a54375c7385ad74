#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
