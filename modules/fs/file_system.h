#pragma once

#include <vnjs/module.h>

#include <string>

namespace vnjs {

/// "vorn/fs": the global object `fs`, a read-only view of the files under the storage directory.
class FileSystem : public Module {
 public:
  FileSystem();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

  /// Whether a path stays inside its base, with '/' and '\' as separators. The first character of the path
  /// belongs to no segment; every segment that is a beginning of "..", "." too, is a step up.
  static bool ValidateRelativePath(const char* path);

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;

  static void Stat(const Info& info);
  static void List(const Info& info);
  static void LoadJSON(const Info& info);
  static void Load(const Info& info);
  static void LoadText(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

}  // namespace vnjs
