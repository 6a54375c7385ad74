#pragma once

namespace vnjs {

/// Registers the library's extensions with the engine. Harmless when repeated.
void RegisterExtensions();

}  // namespace vnjs
