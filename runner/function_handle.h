#pragma once

#include <vnjs/callback.h>
#include <vnjs/script_value.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace vnjs {

namespace detail {
class RunnerCore;
}

/// A script function that the host holds.
///
/// Owner:    shared by the Values that are the function.
/// Threads:  any; the function itself is for those who hold its isolate.
/// Ending:   with its environment; then there is nothing to call, and it holds nothing.
class FunctionHandle : public std::enable_shared_from_this<FunctionHandle> {
 public:
  /// `environment` is the number of the function's own.
  FunctionHandle(std::weak_ptr<detail::RunnerCore> core, uint64_t environment,
                 VRefCountedPointer<SafeValue> function)
      : m_core(std::move(core)), m_environment(environment), m_function(std::move(function)) {}

  /// Queues a call, and takes the arguments over. False when none can come.
  bool Post(Value* arguments, size_t count);

  uint64_t environment() const { return m_environment; }
  SafeValue* function() const { return m_function.get_ptr(); }

 private:
  const std::weak_ptr<detail::RunnerCore> m_core;
  const uint64_t m_environment;
  const VRefCountedPointer<SafeValue> m_function;
};

}  // namespace vnjs
