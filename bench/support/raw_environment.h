#pragma once

#include <v8.h>

#include <memory>
#include <string>

namespace vnjs::bench {

/// Starts the engine as a plain program does. Once per process, and not after the library has started it.
void StartEngine();

/// What a program without the library has instead of an environment: an isolate with one context.
class RawEnvironment {
 public:
  RawEnvironment();
  ~RawEnvironment();
  RawEnvironment(const RawEnvironment&) = delete;
  RawEnvironment& operator=(const RawEnvironment&) = delete;

  /// Compiles and runs a script, with all the scopes around it that any thread needs. Returns the result as
  /// JSON text, and the text of an exception after "failed: ".
  std::string Run(const char* code, const char* source);

  v8::Isolate* GetIsolate() const { return m_isolate; }

  /// Needs the isolate's scopes, as testing::Inside has them.
  v8::Local<v8::Context> GetContext() const { return m_context.Get(m_isolate); }

 private:
  v8::Isolate* m_isolate;
  v8::Global<v8::Context> m_context;
};

}  // namespace vnjs::bench
