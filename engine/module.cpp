#include <vnjs/module.h>

#include "bridge/native.h"
#include "engine/environment_impl.h"

namespace vnjs {

Module::Module(const char* name, const char* source, int depCount, const char** deps, int sourceLength)
    : v8::Extension(name, source, depCount, deps, sourceLength) {
  set_auto_enable(true);
}

Module::~Module() = default;

v8::Local<v8::FunctionTemplate> Module::GetNativeFunctionTemplate(v8::Isolate* isolate,
                                                                  v8::Local<v8::String> name) {
  v8::Local<v8::FunctionTemplate> result;
  if (Environment* const environment = GetEnvironment(isolate)) {
    try {
      result = GetFunction(environment, isolate, GetString(name));
    } catch (...) {
      // The engine's frames cannot be unwound.
      static_cast<EnvironmentImpl*>(environment)->SetIncomplete();
    }
  }
  if (result.IsEmpty()) {
    // With a callback that does nothing; without one, calls would return their receiver.
    result = v8::FunctionTemplate::New(isolate, [](const v8::FunctionCallbackInfo<v8::Value>&) {});
  }
  return result;
}

v8::Local<v8::FunctionTemplate> Module::GetNativeFunction(v8::Local<v8::String> name) {
  v8::Isolate* const isolate = v8::Isolate::TryGetCurrent();
  if (isolate == nullptr) return {};
  return GetNativeFunctionTemplate(isolate, name);
}

EnvironmentVariable::~EnvironmentVariable() = default;

}  // namespace vnjs
