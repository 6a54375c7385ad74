#pragma once

#include <v8.h>

#include <string>

namespace vnjs {

/// The text that stands for an exception when the engine was told to terminate a script.
constexpr char kInterrupted[] = "Script execution was interrupted";

/// The engine's text for what was thrown, such as "Uncaught Error: x".
std::string MessageText(const v8::TryCatch& caught);

/// The stack trace of what was thrown, or `otherwise` when it has none. A script can make its stack anything.
std::string StackText(v8::Local<v8::Context> context, const v8::TryCatch& caught,
                      const std::string& otherwise);

}  // namespace vnjs
