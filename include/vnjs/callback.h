#pragma once

#include <v8.h>
#include <vnjs/export.h>
#include <vnjs/refcount.h>

#include <forward_list>
#include <memory>

namespace vnjs {

class Environment;
class DroppedHandles;
struct EnvironmentLink;

/// One script value, kept alive for as long as somebody holds a pointer to it.
///
/// Threads:  made and read under the isolate's lock; the last reference may drop on any thread, with or
///           without that lock. Without it the handle is handed to the environment, which lets go of it the
///           next time it has the lock.
/// Ending:   one that outlives its environment reads as empty. In an isolate without an environment the last
///           reference must drop under the isolate's lock.
class VNJS_API SafeValue : public VRefCountedObject {
 public:
  /// An empty pointer for an empty handle, undefined and null.
  static VRefCountedPointer<SafeValue> New(v8::Isolate* isolate, v8::Local<v8::Value> value);
  ~SafeValue() override;

  /// The value, in the current handle scope; empty once the environment has ended.
  v8::Local<v8::Value> GetValue();

 private:
  SafeValue(v8::Isolate* isolate, v8::Local<v8::Value> value);

  v8::Isolate* const m_isolate;
  const std::shared_ptr<DroppedHandles> m_dropped;
  std::forward_list<v8::Global<v8::Value>> m_value;
};

/// A unit of script work that was produced outside the script: a timer that came due, a result of another
/// thread. Environment::PushCallback queues it; Call runs later, once, on the thread that holds the isolate.
///
/// Failures: a script exception that Call leaves pending is logged; it must not throw native ones.
/// Ending:   dropped uncalled, perhaps on another thread, when the environment ends first.
class VNJS_API CallbackBase : public VRefCountedObject {
 public:
  /// `env` is not owned. `callback` is what to call, usually a function; it may be empty.
  CallbackBase(Environment* env, VRefCountedPointer<SafeValue> callback);
  ~CallbackBase() override;
  void Release() override;

  /// Runs inside the isolate and its context, with a handle scope open.
  virtual void Call() = 0;

 protected:
  /// Where to run. Not owned.
  Environment* const m_environment;

  /// What to call; may be empty.
  const VRefCountedPointer<SafeValue> m_callback;
};

/// A way into an environment that may be kept and used when it has ended: for threads and libraries of the host whose
/// end nobody waits for. Environment::PushCallback itself must not be called once the destructor has begun.
///
/// Threads:  any, at any time; copies are the same way.
/// Ending:   after the environment's end nothing is queued any more.
class VNJS_API CallbackPort {
 public:
  /// Of an environment that is alive; null, or one that is not ours, gives a port that leads nowhere.
  explicit CallbackPort(Environment* environment);

  /// Queues a callback as PushCallback does. False, and the callback dropped, when the environment has ended or is
  /// terminating.
  bool Push(VRefCountedPointer<CallbackBase> callback) const;

 private:
  std::shared_ptr<EnvironmentLink> m_link;
};

}  // namespace vnjs
