#pragma once

#include <vnjs/runner.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace vnjs {

/// What a runner counts and measures.
///
/// Threads:  Begin, Began and Ended on the runner's; everything else on any, without locks.
class Figures {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// What is done begins now.
  void Begin() { m_now = std::chrono::steady_clock::now(); }

  /// Something that was queued then has its turn.
  void Began(Time queued);

  /// It has ended, and the next thing begins. One look at the clock for both.
  void Ended();

  /// By the runner's thread, which is the only one that counts them.
  void CountCallback() {
    callbacks.store(callbacks.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }

  /// Everything is 0 again.
  void Clear();

  void Fill(Statistics* statistics) const;

  std::atomic<uint64_t> runs{0};
  std::atomic<uint64_t> callbacks{0};
  std::atomic<uint64_t> failures{0};
  std::atomic<uint64_t> interrupted{0};
  std::atomic<uint64_t> dropped{0};
  std::atomic<size_t> heapBytes{0};
  std::atomic<size_t> heapLimit{0};

 private:
  static constexpr size_t kDelays = 1000;

  Time m_now;

  std::atomic<int64_t> m_longest{0};

  /// In microseconds; each delay takes the place of the one a thousand before.
  std::array<std::atomic<uint32_t>, kDelays> m_delays{};
  std::atomic<uint64_t> m_delayCount{0};
};

}  // namespace vnjs
