#include "modules/core/core.h"

#include <sys/stat.h>

#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "engine/registration.h"
#include "version_record.h"
// Nested code runs in the caller's environment, and exit() ends it: both are operations of the
// implementation, not of the interface that other extensions see. No other module includes this.
#include "engine/environment_impl.h"

namespace vnjs {

bool Core::m_registered = false;

// evalPath is a method so that, like the natives, it has no `prototype`.
const char Core::kSource[] = R"(native function exit();

native function debugPrint();

native function processPendingCallbacks();

native function executeJS();

native function executeFile();

native function loadObject();

native function saveObject();

native function $vornVersion();
var vornVersion = $vornVersion();

var evalPath = {
  evalPath(s) {
    var parts = s.split(".");
    var value = global;
    for (var i in parts) {
      if (!value) break;
      if (parts[i]) value = value[parts[i]];
    }
    return value;
  }
}.evalPath;

native function NameValueDictionary();
)";

namespace {

EnvironmentImpl* Implementation(v8::Isolate* isolate) {
  return static_cast<EnvironmentImpl*>(GetEnvironment(isolate));
}

/// Runs code inside the calling script. The script gets the text of the result, or an `Error` with the text
/// of the exception.
void ExecuteNested(const v8::FunctionCallbackInfo<v8::Value>& info, const PendingCode& code) {
  v8::Isolate* const isolate = info.GetIsolate();
  const RunResult result = Implementation(isolate)->Execute(code);
  if (result.isException()) {
    ThrowException(isolate, result.result());
    return;
  }
  v8::Local<v8::String> text;
  if (NewString(isolate, result.result()).ToLocal(&text)) info.GetReturnValue().Set(text);
}

}  // namespace

Core::Core() : Module("vorn/core", kSource, 0, nullptr, -1) {}

void Core::Register() { RegisterOnce<Core>(m_registered); }

void Core::Exit(const Info& info) { Implementation(info.GetIsolate())->SetTerminating(); }

void Core::DebugPrint(const Info& info) {
  if (info.Length() == 0) return;
  Environment* const environment = GetEnvironment(info.GetIsolate());
  std::string text;
  for (int i = 0; i < info.Length(); ++i) {
    if (i > 0) text += ' ';
    const int more = info[i]->IsString() ? info[i].As<v8::String>()->Length() : 0;
    RequireMemoryBriefly(environment, text.size() + static_cast<size_t>(more));
    text += GetText(info[i]);
  }
  environment->Log(1, text, nullptr);
}

void Core::ProcessPendingCallbacks(const Info& info) {
  GetEnvironment(info.GetIsolate())->ProcessPendingCallbacks();
}

void Core::ExecuteJS(const Info& info) {
  const std::string code = GetText(info[0]);
  if (code.empty()) return;
  ExecuteNested(info, PendingCode(code, GetText(info[1])));
}

void Core::ExecuteFile(const Info& info) {
  const std::string name = GetText(info[0]);
  if (name.empty()) return;
  Environment* const environment = GetEnvironment(info.GetIsolate());
  const std::string path = environment->StorageDir() + name;
  struct stat status {};
  // There will be its bytes, its text for the engine and, if it is all one line, that line in the log.
  if (stat(path.c_str(), &status) == 0)
    RequireMemoryBriefly(environment, 3 * static_cast<uint64_t>(status.st_size));
  ExecuteNested(info, PendingCode::FromFile(path.c_str()));
}

void Core::VornVersion(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const v8::Local<v8::Object> version = v8::Object::New(isolate);
  const char* const record[][2] = {
      {"release", VNJS_RELEASE}, {"date", VNJS_BUILD_DATE}, {"commit", VNJS_COMMIT}};
  for (const auto& [name, value] : record) {
    if (!SetProperty(context, version, name, NewName(isolate, value))) return;
  }
  info.GetReturnValue().Set(version);
}

const NativeEntry Core::kNatives[] = {
    {"debugPrint", Native<&Core::DebugPrint>},
    {"executeJS", Native<&Core::ExecuteJS>},
    {"executeFile", Native<&Core::ExecuteFile>},
    {"saveObject", Native<&Core::SaveObject>},
    {"loadObject", Native<&Core::LoadObject>},
    {"exit", Native<&Core::Exit>},
    {"$vornVersion", Native<&Core::VornVersion>},
    {"processPendingCallbacks", Native<&Core::ProcessPendingCallbacks>},
    {"NameValueDictionary", Native<&Core::NameValueDictionary>, NativeEntry::kConstructor},
};

v8::Local<v8::FunctionTemplate> Core::GetFunction(Environment* env, v8::Isolate* isolate, std::string name) {
  return FindNative(isolate, kNatives, name);
}

}  // namespace vnjs
