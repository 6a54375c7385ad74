#pragma once

#include <vnjs/module.h>

#include <string>

namespace vnjs {

/// "vorn/console": what scripts write with the engine's `console` goes to the environment's log too, `log`, `info` and
/// `debug` as information, `warn` and `error` as errors. The other functions of `console` stay as they are.
class Console : public Module {
 public:
  Console();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void HasLog(const Info& info);
  static void Write(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

}  // namespace vnjs
