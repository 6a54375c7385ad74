#pragma once

#include <v8.h>

#include <cstddef>
#include <string>

namespace vnjs {

/// What an environment tells whoever drives it instead of a worker or a host's polling.
///
/// Owner:    whoever makes the environment; outlives it.
/// Threads:  any, where nothing else is said. None of the environment's locks is held, but the isolate's may be, and an
///           extension's.
class EnvironmentObserver {
 public:
  virtual ~EnvironmentObserver() = default;

  /// A callback waits.
  virtual void OnCallbackQueued() = 0;

  /// A debugger's client has sent something while no script runs.
  virtual void OnDebuggerMail() = 0;

  /// A line for the log, which goes nowhere else.
  virtual void OnLog(int level, const std::string& message, const char* module) = 0;

  /// A promise was rejected with that reason, and nobody has handled it when its part ended. `text` describes it. Under
  /// the isolate's lock, inside the context.
  virtual void OnRejection(v8::Local<v8::Value> reason, const std::string& text) = 0;
};

/// How one environment differs from others.
struct EnvironmentSettings {
  /// @{ What its scripts may take, in bytes; 0 for what Automation::SetLimits has said.
  size_t heapBytes = 0;
  size_t bufferBytes = 0;
  /// @}

  /// May be null.
  EnvironmentObserver* observer = nullptr;
};

}  // namespace vnjs
