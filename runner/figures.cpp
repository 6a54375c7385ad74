#include "runner/figures.h"

#include <algorithm>
#include <vector>

namespace vnjs {

namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;

constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace

void Figures::Began(Time queued) {
  const int64_t delay = std::max<int64_t>(0, duration_cast<microseconds>(m_now - queued).count());
  const uint64_t count = m_delayCount.load(kRelaxed);
  m_delays[count % kDelays].store(static_cast<uint32_t>(std::min<int64_t>(delay, UINT32_MAX)), kRelaxed);
  m_delayCount.store(count + 1, kRelaxed);
}

void Figures::Ended() {
  const Time now = std::chrono::steady_clock::now();
  const int64_t taken = duration_cast<microseconds>(now - m_now).count();
  m_now = now;
  if (taken > m_longest.load(kRelaxed)) m_longest.store(taken, kRelaxed);
}

void Figures::Clear() {
  for (auto* const count : {&runs, &callbacks, &failures, &interrupted, &dropped, &m_delayCount}) *count = 0;
  m_longest = 0;
}

void Figures::Fill(Statistics* statistics) const {
  statistics->runs = runs;
  statistics->callbacks = callbacks;
  statistics->failures = failures;
  statistics->interrupted = interrupted;
  statistics->dropped = dropped;
  statistics->heapBytes = heapBytes;
  statistics->heapLimit = heapLimit;
  statistics->longest = microseconds(m_longest);
  std::vector<uint32_t> delays(static_cast<size_t>(std::min<uint64_t>(m_delayCount, kDelays)));
  for (size_t i = 0; i < delays.size(); ++i) delays[i] = m_delays[i].load(kRelaxed);
  if (delays.empty()) return;
  std::sort(delays.begin(), delays.end());
  statistics->delayP50 = microseconds(delays[(delays.size() - 1) / 2]);
  statistics->delayP99 = microseconds(delays[(delays.size() * 99 + 99) / 100 - 1]);
}

}  // namespace vnjs
