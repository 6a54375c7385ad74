#pragma once

#include <vnjs/promise.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace vnjs::detail {

class RunnerCore;

/// What all copies of a Promise are.
///
/// Threads:  any. Its lock is held while nothing else is called.
/// Ending:   unsettled, it rejects.
class PromiseState {
 public:
  struct Outcome {
    bool isRejection = false;
    Value value;
  };

  ~PromiseState();

  /// False when it was settled before, or nobody is left to hear of it.
  bool Settle(Outcome outcome);

  /// Whether it is settled, and how. If not, the script of that environment hears of it under that number.
  bool IsSettled(const std::weak_ptr<RunnerCore>& core, uint64_t environment, uint64_t number,
                 Outcome* outcome);

  static const std::shared_ptr<PromiseState>& Of(const Promise& promise) { return promise.m_state; }

 private:
  struct Listener {
    std::weak_ptr<RunnerCore> core;
    uint64_t environment;
    uint64_t number;
  };

  std::mutex m_mutex;
  bool m_settled = false;
  Outcome m_outcome;
  std::vector<Listener> m_listeners;
};

}  // namespace vnjs::detail
