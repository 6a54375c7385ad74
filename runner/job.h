#pragma once

#include <vnjs/script_error.h>
#include <vnjs/script_value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "runner/promise_state.h"

namespace vnjs {

class FunctionHandle;

/// An event for the script's handlers.
struct Event {
  std::string name;
  std::vector<Value> arguments;
};

/// A call of a function that the script has given away.
struct FunctionCall {
  std::shared_ptr<FunctionHandle> function;
  std::vector<Value> arguments;
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
  std::variant<Event, FunctionCall, Evaluation, Work, Settlement> what;
  std::chrono::steady_clock::time_point queued;
};

}  // namespace vnjs
