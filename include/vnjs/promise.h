#pragma once

#include <vnjs/export.h>
#include <vnjs/script_value.h>

#include <memory>
#include <string>

namespace vnjs {

namespace detail {
class PromiseState;
}  // namespace detail

/// What a native returns whose result comes later: scripts get a promise.
///
/// Copies:   are one promise. When the last one goes and nothing was said, the script's promise is rejected.
/// Threads:  any; nothing waits for a script.
/// Ending:   once the script's environment has ended, Resolve and Reject answer false.
class VNJS_API Promise {
 public:
  Promise();

  /// @{ Settles the script's promise, with a value or with an `Error` of that message. The first call counts: false for
  /// all others, and when no script can hear of it any more.
  bool Resolve(Value value) const;
  bool Reject(std::string message) const;
  /// @}

 private:
  friend class detail::PromiseState;
  std::shared_ptr<detail::PromiseState> m_state;
};

}  // namespace vnjs
