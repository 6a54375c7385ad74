#pragma once

#include <v8.h>

#include <memory>

namespace vnjs {

/// Passes a new `Extension` to the engine the first time it is called, whichever threads call, and returns
/// when the engine has it. The engine owns it from then on; ours to destroy it is not.
template <typename Extension>
void RegisterOnce(bool& registered) {
  static const bool once = [&registered] {
    v8::RegisterExtension(std::make_unique<Extension>());
    registered = true;
    return true;
  }();
  static_cast<void>(once);
}

}  // namespace vnjs
