// A host's own extension whose source uses the natives before the environment is ready, and then fails: nothing may be
// left behind, and the next environment must work.
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "tests/support/test_host.h"

namespace {

const char* const kDependencies[] = {"vorn/core", "vorn/timers"};

const char kSource[] =
    "native function mode();"
    "if (mode() === 1) {"
    "  setTimeout(function () {}, 20); setTimeout(function () {}, 0); processPendingCallbacks(); "
    "debugPrint('made a logger');"
    "  try { executeJS('1+1'); } catch (e) { debugPrint(e.message); }"
    "  throw 1;"
    "}";

bool fail = false;

class Failing : public vnjs::Module {
 public:
  Failing() : Module("test/failing", kSource, 2, const_cast<const char**>(kDependencies), -1) {}
  v8::Local<v8::FunctionTemplate> GetFunction(vnjs::Environment* env, v8::Isolate* isolate,
                                              std::string name) override {
    return v8::FunctionTemplate::New(isolate, [](const v8::FunctionCallbackInfo<v8::Value>& info) {
      // The state of the environment has to be ready for this, too.
      vnjs::JSON_stringify(info.GetIsolate(), info.This());
      info.GetReturnValue().Set(fail ? 1 : 0);
    });
  }
};

}  // namespace

int main() {
  { const vnjs::Automation first("/"); }
  v8::RegisterExtension(std::make_unique<Failing>());
  const int loggers = vnjs::testing::OpenLoggers();
  bool right = true;
  for (int i = 0; i < 3; ++i) {
    fail = true;
    try {
      const vnjs::Automation failing("/");
      right = false;
    } catch (const vnjs::VornException& e) {
      right = right && e.msg() == "Cannot create script context";
    }
    usleep(60000);  // long enough for a timer thread that is left over to touch what is gone
    fail = false;
    vnjs::Automation working("/");
    right = right && working.Run("executeJS('1+1')", "").result() == "\"2\"";
  }
  right = right && vnjs::testing::OpenLoggers() == loggers;
  right = right && !vnjs::testing::LinesOf("default").empty();
  puts(right ? "right" : "wrong");
  return right ? 0 : 1;
}
