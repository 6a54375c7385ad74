#include "runner/promise_state.h"

#include <exception>
#include <utility>

#include "runner/runner_core.h"

namespace vnjs {

namespace detail {

PromiseState::~PromiseState() {
  try {
    if (!m_listeners.empty()) Settle({true, "The host has dropped the promise"});
  } catch (const std::exception&) {
    // There is no memory to tell it.
  }
}

bool PromiseState::Settle(Outcome outcome) {
  std::vector<Listener> listeners;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_settled) return false;
    m_settled = true;
    m_outcome = outcome;
    listeners.swap(m_listeners);
  }
  // Before the native returns there is none yet.
  bool isHeard = listeners.empty();
  for (const Listener& listener : listeners) {
    const std::shared_ptr<RunnerCore> core = listener.core.lock();
    isHeard |= core != nullptr && core->PushSettlement({listener.environment, listener.number, outcome});
  }
  return isHeard;
}

bool PromiseState::IsSettled(const std::weak_ptr<RunnerCore>& core, uint64_t environment, uint64_t number,
                             Outcome* outcome) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_settled) {
    *outcome = m_outcome;
  } else {
    m_listeners.push_back({core, environment, number});
  }
  return m_settled;
}

}  // namespace detail

Promise::Promise() : m_state(std::make_shared<detail::PromiseState>()) {}

bool Promise::Resolve(Value value) const {
  return m_state != nullptr && m_state->Settle({false, std::move(value)});
}

bool Promise::Reject(std::string message) const {
  return m_state != nullptr && m_state->Settle({true, Value(std::move(message))});
}

}  // namespace vnjs
