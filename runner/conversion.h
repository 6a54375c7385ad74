#pragma once

#include <v8.h>
#include <vnjs/script_value.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vnjs {

namespace detail {
class RunnerCore;
}

/// A value that cannot cross, and which part of it.
struct Refusal {
  std::string path;     ///< ".rooms[2]"
  std::string problem;  ///< "a symbol cannot be given to the host"

  std::string Text() const { return path.empty() ? problem : path + ": " + problem; }
};

/// An exception of the script is pending, or its end.
struct PendingException {};

/// Script values to Values and back, for one environment.
///
/// Threads:  under the isolate's lock, inside the context.
/// Failures: throws Refusal or PendingException, never through the engine's frames.
class Conversion {
 public:
  /// One conversion makes at most so many bytes.
  Conversion(v8::Isolate* isolate, std::weak_ptr<detail::RunnerCore> core, uint64_t environment,
             size_t mostBytes)
      : m_isolate(isolate), m_core(std::move(core)), m_environment(environment), m_mostBytes(mostBytes) {}

  /// Before any script runs. False when there is no memory.
  bool Prepare(v8::Local<v8::Context> context);
  void Clear() { m_objectKeys.Reset(); }

  /// Getters, and the traps of proxies, run. Bytes are those of typed arrays, views and buffers; a Date is what JSON makes
  /// of it; an error has its name, message and stack as members; holes are undefined. Other objects with contents of
  /// their own are refused, as are symbols and promises.
  Value ToHost(v8::Local<v8::Context> context, v8::Local<v8::Value> value);

  v8::Local<v8::Value> ToScript(v8::Local<v8::Context> context, const Value& value) const;

  /// Of a script's string, in one copy.
  std::string ReadText(v8::Local<v8::String> text) const;
  v8::Local<v8::String> MakeText(std::string_view text,
                                 v8::NewStringType type = v8::NewStringType::kNormal) const;

  uint64_t environment() const { return m_environment; }

 private:
  Value Read(v8::Local<v8::Context> context, v8::Local<v8::Value> value);
  Value ReadObject(v8::Local<v8::Context> context, v8::Local<v8::Object> object);
  Value ReadMembers(v8::Local<v8::Context> context, v8::Local<v8::Object> object, Value result);
  Value ReadArray(v8::Local<v8::Context> context, v8::Local<v8::Object> array);
  Value ReadBytes(v8::Local<v8::Object> object);
  Value ReadError(v8::Local<v8::Context> context, v8::Local<v8::Object> error);
  Value ReadFunction(v8::Local<v8::Object> function);
  void Count(uint64_t bytes);

  v8::Local<v8::Value> Make(v8::Local<v8::Context> context, const Value& value, int level) const;
  v8::Local<v8::Value> MakeObject(v8::Local<v8::Context> context, const Value& value, int level) const;
  v8::Local<v8::Value> MakeArray(v8::Local<v8::Context> context, const Value& value, int level) const;
  v8::Local<v8::Value> MakeBytes(const Value& value) const;

  v8::Isolate* const m_isolate;
  const std::weak_ptr<detail::RunnerCore> m_core;
  const uint64_t m_environment;
  const size_t m_mostBytes;

  /// The engine's own `Object.keys`, which is several times faster than what it offers to C++.
  v8::Global<v8::Function> m_objectKeys;

  // Of the conversion that runs; a getter can begin another one within.
  uint64_t m_bytes = 0;
  std::vector<v8::Local<v8::Object>> m_path;
};

/// What stands for a script value in messages: "a string", "a symbol", "a Map".
const char* DescribeScriptValue(v8::Local<v8::Value> value);

}  // namespace vnjs
