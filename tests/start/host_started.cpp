// A host that has started the engine itself, with an isolate and contexts of its own: nothing of it may be
// disturbed, and the extensions that are enabled in its contexts must be harmless there.
#include <libplatform/libplatform.h>
#include <vnjs/vnjs.h>

#include <cstdio>
#include <memory>

namespace {

bool HostScript(v8::Isolate* isolate, const char* code) {
  const v8::HandleScope scope(isolate);
  const v8::Local<v8::Context> context = v8::Context::New(isolate);
  if (context.IsEmpty()) return false;
  const v8::Context::Scope contextScope(context);
  v8::Local<v8::String> text = v8::String::NewFromUtf8(isolate, code).ToLocalChecked();
  v8::Local<v8::Value> value;
  return v8::Script::Compile(context, text).ToLocalChecked()->Run(context).ToLocal(&value) && value->IsTrue();
}

}  // namespace

int main() {
  const std::unique_ptr<v8::Platform> platform = v8::platform::NewDefaultPlatform();
  v8::V8::InitializePlatform(platform.get());
  v8::V8::Initialize();
  v8::Isolate::CreateParams params;
  const std::unique_ptr<v8::ArrayBuffer::Allocator> allocator(
      v8::ArrayBuffer::Allocator::NewDefaultAllocator());
  params.array_buffer_allocator = allocator.get();
  v8::Isolate* const isolate = v8::Isolate::New(params);

  bool right = true;
  {
    const v8::Locker locker(isolate);
    const v8::Isolate::Scope isolateScope(isolate);
    right = HostScript(isolate, "typeof setTimeout === 'undefined'");
    {
      vnjs::Automation automation("/");
      right = right && automation.GetEnvironment()->GetIsolate() != isolate;
      right = right && automation.Run("[typeof setTimeout, 1+1]", "").result() == "[\"function\",2]";
      right = right && v8::Isolate::GetCurrent() == isolate;
    }
    right = right && HostScript(isolate,
                                "setTimeout(function () {}, 0) === undefined && exit() === undefined &&"
                                "executeJS('1') === undefined && vornVersion === undefined");
  }
  isolate->Dispose();
  puts(right ? "right" : "wrong");
  return right ? 0 : 1;
}
