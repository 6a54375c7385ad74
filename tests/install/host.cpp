// A host that knows nothing of this tree but what is installed. It supplies the host functions, and derives
// from every public base class; its casts and its catch need the library's type information.
#include <sys/prctl.h>
#include <vnjs/vnjs.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

struct _VNLog {
  FILE* stream;
};

extern "C" {

_VNLog* vlog_create(FILE* stream, int level) { return new _VNLog{stream}; }

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fprintf(logger->stream, "log: %s %d ", module, level);
  vfprintf(logger->stream, format, arguments);
  fprintf(logger->stream, "\n");
  va_end(arguments);
}

void vlog_close(_VNLog* logger) { delete logger; }

void* _vassert(void* pointer, const char* text) { return pointer; }

uint64_t get_local_time_ms(void) { return static_cast<uint64_t>(time(nullptr)) * 1000; }

void set_thread_name(const char* name) { prctl(PR_SET_NAME, name); }

char* sys_last_err_string(void) { return strdup(strerror(errno)); }

}  // extern "C"

namespace {

/// Calls a script function with what it was given.
class Ring : public vnjs::CallbackBase {
 public:
  using CallbackBase::CallbackBase;

  void Call() override {
    const v8::Local<v8::Context> context = m_environment->GetContext();
    v8::Local<v8::Value> result;
    if (m_callback->GetValue()
            .As<v8::Function>()
            ->Call(context, context->Global(), 0, nullptr)
            .ToLocal(&result)) {
      printf("callback: %s\n", vnjs::GetString(result).c_str());
    }
  }
};

struct Rings : vnjs::EnvironmentVariable {
  int count = 0;
};

/// The script function `ring(f)`, which queues a call of `f`.
class Bell : public vnjs::Module {
 public:
  Bell() : Module("host/bell", "native function ring();", 0, nullptr, -1) {}

  v8::Local<v8::FunctionTemplate> GetFunction(vnjs::Environment* env, v8::Isolate* isolate,
                                              std::string name) override {
    return name == "ring" ? v8::FunctionTemplate::New(isolate, RingLater) : v8::Local<v8::FunctionTemplate>();
  }

 private:
  static void RingLater(const v8::FunctionCallbackInfo<v8::Value>& info) {
    auto* const environment = static_cast<vnjs::Environment*>(info.GetIsolate()->GetData(0));
    environment->PushCallback(new Ring(environment, vnjs::SafeValue::New(info.GetIsolate(), info[0])));
    const vnjs::VRefCountedPointer<vnjs::EnvironmentVariable> rings = environment->GetVariable("rings");
    ++dynamic_cast<Rings&>(*rings.get_ptr()).count;
  }
};

}  // namespace

int main() {
  v8::RegisterExtension(std::make_unique<Bell>());
  vnjs::Automation automation(".");
  automation.SetLogger(vlog_create(stdout, 1));
  automation.GetEnvironment()->SetVariable("rings", new Rings);

  for (const char* code :
       {"[1 + 1, 'two']", "ring(function () { return 'rung'; }); 'ringing'", "nowhere()"}) {
    const vnjs::RunResult result = automation.Run(code, "host.js");
    printf("%s: %s\n", result.isException() ? "exception" : "result", result.result().c_str());
  }
  while (automation.ProcessPendingCallbacks()) {
  }
  const auto rings = automation.GetEnvironment()->GetVariable("rings");
  printf("rings: %d\n", dynamic_cast<Rings*>(rings.get_ptr())->count);

  try {
    automation.RunFile("nowhere.js");
  } catch (const vnjs::VornException& e) {
    printf("caught: %s\n", e.msg().c_str());
  }
  return 0;
}
