#pragma once

#include <v8.h>
#include <vnjs/export.h>
#include <vnjs/refcount.h>

#include <string>
#include <vector>

namespace vnjs {

class Environment;

/// Base of every script-visible extension: script source that declares its natives with
/// `native function name();`, and a table that maps each name to a function template.
///
/// Owner:    made once per process and passed to v8::RegisterExtension before the first environment that
///           shall have it. It is enabled in every context of the process from then on.
/// Threads:  the hooks run on the thread that creates a context.
/// Failures: source that throws or does not parse keeps every later environment from being made.
class VNJS_API Module : public v8::Extension {
 public:
  /// `name`, `source` and `deps` must live as long as the module. A `sourceLength` of -1 takes the length of
  /// the NUL-terminated text.
  Module(const char* name, const char* source, int depCount, const char** deps, int sourceLength);
  ~Module() override;

  /// The engine's hook. Answers with a function that does nothing when the isolate has no environment or the
  /// name is not known, because the engine cannot take an empty handle.
  v8::Local<v8::FunctionTemplate> GetNativeFunctionTemplate(v8::Isolate* isolate,
                                                            v8::Local<v8::String> name) override;

  /// The same for the current isolate; empty when there is none.
  virtual v8::Local<v8::FunctionTemplate> GetNativeFunction(v8::Local<v8::String> name);

  /// The template of one native, or an empty handle. `env` is the environment that the context is made for.
  virtual v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                                      std::string name) = 0;
};

/// Base of what an extension keeps for one environment, stored under a name with Environment::SetVariable.
///
/// Ending:   the environment lets go of it under the isolate's lock, after OnEnvironmentEnd; somebody else who
///           holds a reference may drop the last one later and elsewhere.
class VNJS_API EnvironmentVariable : public VRefCountedObject {
 public:
  ~EnvironmentVariable() override;

  /// True while this state will lead to script work by itself, as a waiting timer does. Any thread.
  virtual bool HasPendingWork() const { return false; }

  /// The environment ends, and no script runs in it again. Called once, under the isolate's lock: the last
  /// moment to reset the engine's handles.
  virtual void OnEnvironmentEnd() {}

  /// What HasPendingWork means, for people to read, one line for each piece of work. Any thread.
  virtual std::vector<std::string> PendingWork() const { return {}; }
};

}  // namespace vnjs
