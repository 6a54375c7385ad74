#pragma once

#include <vnjs/module.h>

#include <string>

namespace vnjs {

/// "vorn/system": `system(command, arguments...)`, which runs a shell command that the file ".syscommands" in
/// the storage directory allows.
///
/// Threads:  blocks the calling thread, which holds the isolate's lock, until the command has ended.
class System : public Module {
 public:
  System();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void SystemCall(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

}  // namespace vnjs
