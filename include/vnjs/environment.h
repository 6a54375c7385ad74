#pragma once

#include <v8.h>
#include <vnjs/callback.h>
#include <vnjs/export.h>
#include <vnjs/host.h>
#include <vnjs/module.h>
#include <vnjs/refcount.h>
#include <vnjs/result.h>
#include <vnjs/thread.h>

#include <string>

namespace vnjs {

/// One script environment: an isolate with one context, a storage directory, a logger, a queue of code for
/// the worker thread and a queue of callbacks. Natives find it in the isolate's data slot 0.
///
/// Owner:    the Automation that made it.
/// Threads:  without a worker, one thread makes all calls; with one, Run and RunFile come from any.
///           PushCallback, Log, the named threads and the variables are for any thread as long as the environment is
///           alive: whoever calls them is done before the destructor begins. CallbackPort is for those who may be late.
/// Ending:   once terminating (`exit()`, StopThread, destruction) it refuses callbacks, threads and variables.
class VNJS_API Environment {
 public:
  virtual ~Environment();

  /// Runs a script and returns its result as JSON text, or the text of the exception that ended it. With a
  /// worker the code is queued and the caller waits for at most 10 s. Null `code` gives an empty result; null
  /// `source` an empty source name.
  virtual RunResult Run(const char* code, const char* source) = 0;

  /// Runs a file; its path is the source name. Throws VornException when it cannot be read.
  virtual RunResult RunFile(const char* path) = 0;

  /// Starts the worker; nothing to do when it runs. Throws VornException "Cannot create thread" (and logs it)
  /// when the system has no thread to give; the environment is unthreaded then.
  virtual void StartThread() = 0;

  /// Marks the environment as terminating and waits for the worker's end; nothing to do without a worker.
  virtual void StopThread() = 0;

  /// Whether StartThread was called and StopThread not yet. After `exit()` the worker has ended though it is true: each
  /// Run then waits for its 10 s.
  virtual bool IsThreaded() const = 0;

  /// Whether `exit()`, StopThread or the destructor has begun the end.
  virtual bool IsTerminating() const = 0;

  /// Queues a callback; drops it when the environment is terminating.
  virtual void PushCallback(VRefCountedPointer<CallbackBase> callback) = 0;

  /// Runs the callbacks that are queued now, in order, then leaves the isolate to other threads for 10 ms.
  /// Returns false when there was nothing to run. Takes the isolate's lock where the caller has not.
  virtual bool ProcessPendingCallbacks() = 0;

  /// Always ends in "/".
  virtual std::string StorageDir() const = 0;

  /// The logger; made with `vlog_create(stderr, 1)` when there is none.
  virtual _VNLog* GetLogger() = 0;

  /// Takes over `logger` and closes the one held before, so no other thread may be logging at that moment.
  virtual void SetLogger(_VNLog* logger) = 0;

  /// Writes one line to the host's log. A null `module` means "core".
  virtual void Log(int level, const std::string& message, const char* module);

  /// The environment's own isolate, or the one that was current where the environment was made.
  virtual v8::Isolate* GetIsolate() const = 0;

  /// In the current handle scope; empty while there is no context.
  virtual v8::Local<v8::Context> GetContext() const = 0;

  /// The context's global object, in the current handle scope; empty while there is no context.
  virtual v8::Local<v8::Object> GetGlobal() const = 0;

  /// An extension's state in this environment; an empty pointer when there is none or it is terminating.
  virtual VRefCountedPointer<EnvironmentVariable> GetVariable(std::string name) = 0;

  /// Stores an extension's state; an empty pointer removes it. Nothing is stored while terminating.
  virtual void SetVariable(std::string name, VRefCountedPointer<EnvironmentVariable> value) = 0;

  /// The thread of that name, made when there is none; an empty pointer while terminating. Throws as Thread
  /// does.
  virtual VRefCountedPointer<Thread> CreateThread(std::string name, Thread::Function func, void* data) = 0;

  /// The thread of that name; an empty pointer when there is none or the environment is terminating.
  virtual VRefCountedPointer<Thread> GetThread(std::string name) = 0;
};

}  // namespace vnjs
