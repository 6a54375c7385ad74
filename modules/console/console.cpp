#include "modules/console/console.h"

#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "engine/registration.h"
#include "modules/console/describe.h"

namespace vnjs {

bool Console::m_registered = false;

// Inside a function, because `native` makes a name in the scope that it stands in. The host's own contexts, which have
// no log, keep the engine's console as it is.
const char Console::kSource[] = R"((function () {
  native function hasLog();
  native function log();
  native function info();
  native function debug();
  native function warn();
  native function error();
  if (hasLog()) Object.assign(console, {log, info, debug, warn, error});
})();
)";

namespace {

constexpr int kInfo = 1;
constexpr int kError = 3;

}  // namespace

Console::Console() : Module("vorn/console", kSource, 0, nullptr, -1) {}

void Console::Register() { RegisterOnce<Console>(m_registered); }

void Console::HasLog(const Info& info) { info.GetReturnValue().Set(true); }

void Console::Write(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  Environment* const environment = GetEnvironment(isolate);
  std::string line;
  for (int i = 0; i < info.Length(); ++i) {
    if (i > 0) line += ' ';
    const int more = info[i]->IsString() ? info[i].As<v8::String>()->Length() : 0;
    RequireMemoryBriefly(environment, line.size() + static_cast<size_t>(more));
    line += info[i]->IsString() ? GetText(info[i]) : Describe(isolate, info[i]);
  }
  const bool isError = info.Data()->BooleanValue(isolate);
  environment->Log(isError ? kError : kInfo, line, nullptr);
}

const NativeEntry Console::kNatives[] = {
    {"hasLog", Native<&Console::HasLog>},
    {"log", Native<&Console::Write>},
    {"info", Native<&Console::Write>},
    {"debug", Native<&Console::Write>},
    {"warn", Native<&Console::Write>, NativeEntry::kFunction, true},
    {"error", Native<&Console::Write>, NativeEntry::kFunction, true},
};

v8::Local<v8::FunctionTemplate> Console::GetFunction(Environment* env, v8::Isolate* isolate,
                                                     std::string name) {
  return FindNative(isolate, kNatives, name);
}

}  // namespace vnjs
