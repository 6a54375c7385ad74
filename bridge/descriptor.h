#pragma once

#include <unistd.h>

#include <utility>

namespace vnjs {

/// Owns an open file descriptor, or none.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : m_fd(fd) {}
  ~Descriptor() { Reset(-1); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return m_fd; }
  int Release() { return std::exchange(m_fd, -1); }

  /// Closes what it owns and takes over `fd`.
  void Reset(int fd) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd;
};

}  // namespace vnjs
