#pragma once

#include <vnjs/module.h>

#include <string>

namespace vnjs {

/// "vorn/core": leaving a script, the host's log, nested code, the version record, dotted-path look-up.
class Core : public Module {
 public:
  Core();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void Exit(const Info& info);
  static void DebugPrint(const Info& info);
  static void ProcessPendingCallbacks(const Info& info);
  static void ExecuteJS(const Info& info);
  static void ExecuteFile(const Info& info);
  static void VornVersion(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

}  // namespace vnjs
