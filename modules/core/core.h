#pragma once

#include <vnjs/module.h>

#include <string>

namespace vnjs {

/// "vorn/core": leaving a script, the host's log, nested code, stored objects, the version record,
/// dotted-path look-up, dictionaries.
class Core : public Module {
 public:
  Core();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

  /// The file that keeps the object called `name`.
  static std::string GetObjectLocation(Environment* env, std::string name);

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void Exit(const Info& info);
  static void DebugPrint(const Info& info);
  static void ProcessPendingCallbacks(const Info& info);
  static void ExecuteJS(const Info& info);
  static void ExecuteFile(const Info& info);
  static void SaveObject(const Info& info);
  static void LoadObject(const Info& info);
  static void VornVersion(const Info& info);
  static void NameValueDictionary(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

}  // namespace vnjs
