#pragma once

#include <v8.h>
#include <vnjs/native_function.h>

#include <string>

namespace vnjs {

/// A script's argument is wrong; becomes its `TypeError`.
struct ArgumentError {
  std::string message;
};

/// The engine's callback of all functions that hosts define; its data is the Definition. Nothing that the host throws
/// goes further.
void CallNative(const v8::FunctionCallbackInfo<v8::Value>& info);

}  // namespace vnjs
