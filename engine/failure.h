#pragma once

#include <v8.h>
#include <vnjs/result.h>

#include <string>

namespace vnjs {

/// What stands for an exception when a script was ended.
constexpr char kInterruptedText[] = "Script execution was interrupted";
constexpr char kTimeoutText[] = "Script took longer than it may";
constexpr char kOutOfMemoryText[] = "Script ran out of memory";

/// The same with its place, where one is known.
std::string StoppedText(const RunResult& stopped);

/// The engine's text for what was thrown, such as "Uncaught Error: x".
std::string MessageText(const v8::TryCatch& caught);

/// The stack trace of what was thrown, or `otherwise` when it has none. A script can make its stack anything.
std::string StackText(v8::Local<v8::Context> context, const v8::TryCatch& caught,
                      const std::string& otherwise);

}  // namespace vnjs
