// The engine starts once per process, so each way of starting it takes a process of its own; the argument names it.
#include <libplatform/libplatform.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_host.h"

namespace {

using vnjs::Automation;

int wrong = 0;
void Expect(bool right, const std::string& what) {
  if (!right) printf("WRONG: %s\n", what.c_str());
  wrong += right ? 0 : 1;
}

/// Several threads build the first environments of the process at once.
void Race() {
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (Automation("/").Run("typeof setTimeout", "").result() == "\"function\"") ++right;
    });
  }
  for (std::thread& thread : threads) thread.join();
  Expect(right == 8, "an environment");
}

enum Failure { kNone, kSource, kNative } failure;

/// An extension whose source uses the natives before the environment is ready, and fails; or its native cannot be made.
struct Failing : vnjs::Module {
  Failing() : Module("test/failing", kCode, 2, needed, -1) {}
  v8::Local<v8::FunctionTemplate> GetFunction(vnjs::Environment* env, v8::Isolate* isolate,
                                              std::string name) override {
    if (failure == kNative) throw std::bad_alloc();
    return v8::FunctionTemplate::New(isolate, [](const v8::FunctionCallbackInfo<v8::Value>& info) {
      // The state of the environment has to be ready for this, too.
      vnjs::JSON_stringify(info.GetIsolate(), info.This());
      info.GetReturnValue().Set(failure == kSource);
    });
  }
  static constexpr char kCode[] =
      "native function fails();"
      "if (fails()) {"
      "  setTimeout(function () {}, 20); setTimeout(function () {}, 0); processPendingCallbacks();"
      "  debugPrint('made a logger'); try { executeJS('1+1'); } catch (e) { debugPrint(e.message); }"
      "  throw 1;"
      "}";
  static inline const char* needed[] = {"vorn/core", "vorn/timers"};
};

/// Nothing is left behind of an environment that cannot be made, and the next one works.
void FailingModule() {
  { const Automation first("/"); }
  v8::RegisterExtension(std::make_unique<Failing>());
  const int loggers = vnjs::testing::OpenLoggers();
  for (const Failure way : {kSource, kNative, kSource}) {
    failure = way;
    std::string message;
    try {
      const Automation failing("/");
    } catch (const vnjs::VornException& e) {
      message = e.msg();
    } catch (const std::bad_alloc&) {
      message = "passed through the engine";
    }
    Expect(message == "Cannot create script context", message);
    usleep(60000);  // long enough for a timer thread that is left over to touch what is gone
    failure = kNone;
    Expect(Automation("/").Run("executeJS('1+1')", "").result() == "\"2\"", "the next environment");
  }
  Expect(vnjs::testing::OpenLoggers() == loggers, "a logger is left");
  Expect(!vnjs::testing::LinesOf("default").empty(), "nothing was logged");
}

/// The host has started the engine itself, with an isolate and contexts of its own: nothing of it may be disturbed, and
/// the extensions that are enabled in its contexts must be harmless there. With debugging on, environments take the
/// thread's current isolate, one at a time; objects of one that has ended do nothing in the next.
void StartedByHost() {
  const std::unique_ptr<v8::Platform> platform = v8::platform::NewDefaultPlatform();
  v8::V8::InitializePlatform(platform.get());
  v8::V8::Initialize();
  v8::Isolate::CreateParams parameters;
  parameters.array_buffer_allocator_shared.reset(v8::ArrayBuffer::Allocator::NewDefaultAllocator());
  v8::Isolate* const isolate = v8::Isolate::New(parameters);
  {
    const v8::Locker locker(isolate);
    const v8::Isolate::Scope isolateScope(isolate);
    const v8::HandleScope scope(isolate);
    const auto run = [&](v8::Local<v8::Context> context, const char* code) {
      const v8::Context::Scope contextScope(context);
      const v8::Local<v8::String> text = v8::String::NewFromUtf8(isolate, code).ToLocalChecked();
      return v8::Script::Compile(context, text).ToLocalChecked()->Run(context).ToLocalChecked();
    };
    Automation::m_debug = true;
    v8::Local<v8::Value> old;
    {
      const Automation first("/");
      Expect(first.GetEnvironment()->GetIsolate() == isolate, "the current isolate is not taken");
      Expect(Automation("/").GetEnvironment()->GetIsolate() != isolate, "two environments in an isolate");
      old = run(first.GetEnvironment()->GetContext(), R"(
        var doc = new VXmlDocument('<r a="1"><s>t</s></r>'), node = doc.root, {attributes} = node;
        ({doc, node, attributes, dictionary: new NameValueDictionary({a: 1}), VXmlDocument, setTimeout}))");
    }
    {
      Automation next("/");
      const v8::Local<v8::Context> context = next.GetEnvironment()->GetContext();
      context->Global()->Set(context, v8::String::NewFromUtf8Literal(isolate, "old"), old).Check();
      const char* const code = R"(
        const {doc, node, attributes} = old;
        node.text = 'x'; attributes.a = 2; new VXmlDocument('<other/>');
        [doc.toString(), doc.root, doc.findOne('//r'), node.name, node.text, node.attributes, node.children, node.parent,
         node.insertChild({name: 'x'}), node.removeChild(0), node.findAll('.'), delete attributes.a,
         Object.keys(attributes), new old.VXmlDocument('<a/>').root, old.dictionary.A,
         old.setTimeout(function () {}, 1) > 0].map(v => String(v)).filter(v => v != 'undefined').join())";
      Expect(next.Run(code, "").result() == "\"false,a,1,true\"", "objects of the environment before");
    }
    Automation::m_debug = false;
    Expect(Automation("/").GetEnvironment()->GetIsolate() != isolate, "the host's isolate is taken");
    Expect(v8::Isolate::GetCurrent() == isolate, "the current isolate");
    const char* const natives =
        R"([setTimeout(function () {}, 0), exit(), executeJS('1'), vornVersion].join())";
    const v8::String::Utf8Value results(isolate, run(v8::Context::New(isolate), natives));
    Expect(std::string(*results) == ",,,", "natives without an environment");
  }
  isolate->Dispose();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string way = argv[argc - 1];
  way == "race" ? Race() : way == "failing_module" ? FailingModule() : StartedByHost();
  return wrong == 0 ? 0 : 1;
}
