#pragma once

#include <v8.h>
#include <vnjs/environment.h>
#include <vnjs/module.h>

namespace vnjs {

/// Script objects that find their properties whatever the letter case of the name, as header names want it.
///
/// The entries are ordinary own properties, spelled as when they were last assigned under a new spelling; the
/// interceptors of the object's template do the rest. Only ASCII letters have a case here.
///
/// Threads:  the thread that holds the isolate.
/// Ending:   a dictionary is collected like any script object; the template goes with the environment.
/// Failures: the interceptors throw nothing of their own; what an entry's own getter throws passes through.
class NameValueDictionary {
 public:
  /// What one environment keeps: the template, empty until the first dictionary.
  class Env : public EnvironmentVariable {
   public:
    void OnEnvironmentEnd() override { m_template.Reset(); }

    v8::Global<v8::FunctionTemplate> m_template;
  };

  /// Never empty.
  static VRefCountedPointer<Env> GetEnv(Environment* env);

  /// A new dictionary without entries. The first one of an environment rebinds the script's global name.
  /// Empty, with an exception pending, when the script is being terminated or that global throws when
  /// assigned.
  static v8::MaybeLocal<v8::Object> New(v8::Isolate* isolate, Environment* env);

 private:
  static v8::Local<v8::FunctionTemplate> NewTemplate(v8::Isolate* isolate);

  static void Get(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Value>& info);
  static void Set(v8::Local<v8::Name> name, v8::Local<v8::Value> value,
                  const v8::PropertyCallbackInfo<v8::Value>& info);
  static void Query(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Integer>& info);
  static void Del(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Boolean>& info);
  static void Define(v8::Local<v8::Name> name, const v8::PropertyDescriptor& descriptor,
                     const v8::PropertyCallbackInfo<v8::Value>& info);
  static void ToString(const v8::FunctionCallbackInfo<v8::Value>& info);
};

}  // namespace vnjs
