#pragma once

#include <v8.h>

#include <string>

namespace vnjs::testing {

/// The scopes that a host's own code needs around what it does with script values of an environment, or of what
/// benchmarks have instead of one.
struct Inside {
  template <typename Environment>
  explicit Inside(Environment* environment)
      : isolate(environment->GetIsolate()),
        locker(isolate),
        isolateScope(isolate),
        handleScope(isolate),
        context(environment->GetContext()),
        contextScope(context) {}

  v8::Local<v8::Value> Eval(const std::string& code) const {
    const v8::Local<v8::String> text = v8::String::NewFromUtf8(isolate, code.c_str()).ToLocalChecked();
    return v8::Script::Compile(context, text).ToLocalChecked()->Run(context).ToLocalChecked();
  }

  v8::Isolate* const isolate;
  const v8::Locker locker;
  const v8::Isolate::Scope isolateScope;
  const v8::HandleScope handleScope;
  const v8::Local<v8::Context> context;
  const v8::Context::Scope contextScope;
};

}  // namespace vnjs::testing
