#include "bench/support/raw_environment.h"

#include <libplatform/libplatform.h>

#include "tests/support/inside.h"

namespace vnjs::bench {
namespace {

/// The library's default: how often a heap is collected depends on how large it may become.
constexpr size_t kHeapLimit = size_t{64} * 1024 * 1024;

std::string TextOf(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  const v8::String::Utf8Value text(isolate, value);
  return *text == nullptr ? "" : std::string(*text, text.length());
}

}  // namespace

void StartEngine() {
  // Never destroyed: the engine's own threads use it until the process ends.
  v8::V8::InitializePlatform(v8::platform::NewDefaultPlatform().release());
  v8::V8::Initialize();
}

RawEnvironment::RawEnvironment() {
  static const std::shared_ptr<v8::ArrayBuffer::Allocator> allocator(
      v8::ArrayBuffer::Allocator::NewDefaultAllocator());
  v8::Isolate::CreateParams parameters;
  parameters.array_buffer_allocator_shared = allocator;
  parameters.constraints.ConfigureDefaultsFromHeapSize(0, kHeapLimit);
  m_isolate = v8::Isolate::New(parameters);
  const v8::Locker locker(m_isolate);
  const v8::Isolate::Scope isolateScope(m_isolate);
  const v8::HandleScope handleScope(m_isolate);
  m_context.Reset(m_isolate, v8::Context::New(m_isolate));
}

RawEnvironment::~RawEnvironment() {
  {
    const v8::Locker locker(m_isolate);
    m_context.Reset();
  }
  m_isolate->Dispose();
}

std::string RawEnvironment::Run(const char* code, const char* source) {
  const testing::Inside inside(this);
  const v8::TryCatch tryCatch(m_isolate);

  v8::ScriptOrigin origin(m_isolate, v8::String::NewFromUtf8(m_isolate, source).ToLocalChecked());
  v8::Local<v8::Script> script;
  v8::Local<v8::Value> result;
  v8::Local<v8::String> json;
  if (!v8::Script::Compile(inside.context, v8::String::NewFromUtf8(m_isolate, code).ToLocalChecked(), &origin)
           .ToLocal(&script) ||
      !script->Run(inside.context).ToLocal(&result) ||
      !v8::JSON::Stringify(inside.context, result).ToLocal(&json)) {
    return "failed: " + TextOf(m_isolate, tryCatch.Exception());
  }
  return TextOf(m_isolate, json);
}

}  // namespace vnjs::bench
