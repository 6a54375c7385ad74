#pragma once

#include <v8.h>
#include <vnjs/script_error.h>

#include <string>

namespace vnjs {

/// What a script has thrown, or rejected a promise with, for the host. Reading it can run script code; what that throws is
/// left out. Inside the context.
ScriptError DescribeFailure(v8::Local<v8::Context> context, ErrorKind kind, v8::Local<v8::Value> thrown,
                            v8::Local<v8::Message> message);

/// Throws an `Error` for what a native has thrown. Its place, where it has one, comes back with DescribeFailure.
void ThrowScriptError(v8::Local<v8::Context> context, const ScriptError& error);

/// For the log: the stack where there is one, with the place of what has none.
std::string FailureText(const ScriptError& error);

}  // namespace vnjs
