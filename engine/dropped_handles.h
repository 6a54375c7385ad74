#pragma once

#include <v8.h>

#include <atomic>
#include <forward_list>
#include <mutex>

namespace vnjs {

/// Where SafeValues leave their handles when the thread that drops them does not hold the isolate's lock.
///
/// Owner:    shared by the environment and each of its SafeValues, which may outlive it.
/// Threads:  Drop from any thread; Reset and Close under the isolate's lock.
/// Ending:   once Close was called, a dropped handle is forgotten untouched: its isolate may be gone.
class DroppedHandles {
 public:
  using Handle = std::forward_list<v8::Global<v8::Value>>;

  explicit DroppedHandles(v8::Isolate* isolate) : m_isolate(isolate) {}

  /// Of one handle, without allocating anything: a destructor cannot fail.
  void Drop(Handle handle);

  /// Lets go of all that was dropped.
  void Reset();
  void Close();
  bool IsClosed() const { return m_closed; }

 private:
  v8::Isolate* const m_isolate;
  std::atomic<bool> m_closed{false};
  std::atomic<bool> m_waiting{false};

  std::mutex m_handlesMutex;
  Handle m_handles;
};

}  // namespace vnjs
