#pragma once

#include <vnjs/script_error.h>
#include <vnjs/script_value.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "runner/promise_state.h"

namespace vnjs {

class FunctionHandle;

/// What an event or a function is given: a few without memory of their own.
class JobArguments {
 public:
  JobArguments() = default;

  /// Takes the values over.
  JobArguments(Value* values, size_t count) : m_size(count) {
    if (count > kFew) {
      m_many.assign(std::make_move_iterator(values), std::make_move_iterator(values + count));
    } else {
      std::move(values, values + count, m_few.begin());
    }
  }

  const Value* begin() const { return m_size > kFew ? m_many.data() : m_few.data(); }
  const Value* end() const { return begin() + m_size; }
  size_t size() const { return m_size; }

 private:
  static constexpr size_t kFew = 2;
  size_t m_size = 0;
  std::array<Value, kFew> m_few;
  std::vector<Value> m_many;
};

/// An event for the script's handlers.
struct Event {
  std::string name;
  JobArguments arguments;
};

/// A call of a function that the script has given away.
struct FunctionCall {
  std::shared_ptr<FunctionHandle> function;
  JobArguments arguments;
};

/// Code of the host's, and who wants its value.
struct Evaluation {
  std::string code;
  std::string source;
  std::function<void(const Value&, const ScriptError&)> done;
};

/// A function of the host's.
struct Work {
  std::function<void()> function;
};

/// What became of a promise that a native has returned.
struct Settlement {
  uint64_t environment;
  uint64_t number;
  detail::PromiseState::Outcome outcome;
};

/// Something that waits for the runner's thread.
struct Job {
  std::variant<std::monostate, Event, FunctionCall, Evaluation, Work, Settlement> what;
  std::chrono::steady_clock::time_point queued;
};

}  // namespace vnjs
