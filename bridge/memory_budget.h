#pragma once

#include <vnjs/environment.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace vnjs {

/// What one environment's scripts hold outside the engine's heap, in bytes: buffers, trees, timers.
///
/// Owner:    shared by the environment and by all that is counted, some of which may outlive it.
/// Threads:  any; the engine frees buffers on threads of its own.
class MemoryBudget {
 public:
  explicit MemoryBudget(size_t limit) : m_limit(limit) {}
  MemoryBudget(const MemoryBudget&) = delete;
  MemoryBudget& operator=(const MemoryBudget&) = delete;

  bool Fits(uint64_t bytes) const {
    const size_t used = m_used;
    return used <= m_limit && bytes <= m_limit - used;
  }

  /// Counts the bytes. False, and nothing counted, when they do not fit.
  bool Take(size_t bytes) {
    size_t used = m_used;
    do {
      if (used > m_limit || bytes > m_limit - used) return false;
    } while (!m_used.compare_exchange_weak(used, used + bytes));
    return true;
  }

  /// Counts the bytes, whether or not they fit.
  void Add(size_t bytes) { m_used += bytes; }
  void Give(size_t bytes) { m_used -= bytes; }

  size_t limit() const { return m_limit; }
  size_t used() const { return m_used; }

 private:
  const size_t m_limit;
  std::atomic<size_t> m_used{0};
};

/// Some bytes of a budget, given back at the end.
class MemoryCharge {
 public:
  MemoryCharge() = default;

  /// They are counted whether or not they fit.
  MemoryCharge(std::shared_ptr<MemoryBudget> budget, size_t bytes) : m_budget(std::move(budget)) {
    Set(bytes);
  }
  ~MemoryCharge() { Set(0); }
  MemoryCharge(MemoryCharge&& other) noexcept
      : m_budget(std::move(other.m_budget)), m_bytes(std::exchange(other.m_bytes, 0)) {}
  MemoryCharge& operator=(MemoryCharge&& other) noexcept {
    std::swap(m_budget, other.m_budget);
    std::swap(m_bytes, other.m_bytes);
    return *this;
  }

  void Set(size_t bytes) {
    if (m_budget == nullptr) return;
    m_budget->Add(bytes);
    m_budget->Give(std::exchange(m_bytes, bytes));
  }
  size_t bytes() const { return m_bytes; }

 private:
  std::shared_ptr<MemoryBudget> m_budget;
  size_t m_bytes = 0;
};

/// Never null.
std::shared_ptr<MemoryBudget> GetMemoryBudget(Environment* environment);

/// Throws VornException "Bad allocation" when so many more bytes do not fit, though garbage was collected. Under the
/// isolate's lock; nothing may be held that only the collector keeps from being freed.
void RequireMemory(Environment* environment, uint64_t bytes);

/// The same for what is gone soon, such as a line of the log or a command. Less than a megabyte is never refused: it may
/// be what tells that memory is short, or makes it less so.
void RequireMemoryBriefly(Environment* environment, uint64_t bytes);

}  // namespace vnjs
