#pragma once

#include <vnjs/environment.h>

#include <cstddef>
#include <set>
#include <string>

/// What a prompt asks the engine about code that is still being typed. Each waits for the isolate and runs no code of
/// scripts.
namespace vnjs::host {

/// Whether the compiler finds nothing wrong with `code`, but that it ends.
bool EndsTooEarly(Environment* environment, const std::string& code);

struct Completion {
  /// How many bytes of the names stand at the end of the text already.
  size_t typed = 0;
  std::set<std::string> names;
};

/// The names that `text` may go on with: of globals, or after a dot of the properties of an object and its prototypes.
/// Getters and proxies on the way to the object are not asked, nothing is known of what follows them.
Completion Complete(Environment* environment, const std::string& text);

}  // namespace vnjs::host
