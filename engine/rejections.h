#pragma once

#include <v8.h>

#include <vector>

namespace vnjs {

class Environment;

/// The promises of one environment that were rejected while nobody handled them. Handlers may still come
/// until the run or callback that left them has ended; then what is left is logged, once.
///
/// Threads:  under the isolate's lock.
class Rejections {
 public:
  /// The engine's hook; finds the environment in the isolate.
  static void OnReject(v8::PromiseRejectMessage message);

  /// Logs each promise that is still unhandled, with its stack, at level 3, and forgets all. Inside the
  /// context.
  void Report(Environment* environment);
  void Clear() { m_entries.clear(); }

 private:
  struct Entry {
    v8::Global<v8::Promise> promise;
    v8::Global<v8::Value> reason;
  };

  void Add(v8::Isolate* isolate, v8::Local<v8::Promise> promise, v8::Local<v8::Value> reason);
  void ForgetHandled();

  std::vector<Entry> m_entries;
  size_t m_sweepAt = 64;

  /// There was no memory to remember them.
  size_t m_lost = 0;
};

}  // namespace vnjs
