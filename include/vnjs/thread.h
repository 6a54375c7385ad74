#pragma once

#include <pthread.h>
#include <vnjs/export.h>
#include <vnjs/refcount.h>

#include <atomic>
#include <memory>
#include <string>

namespace vnjs {

class Environment;
struct EnvironmentLink;

/// Starts a thread with default attributes. Throws VornException "Cannot create thread".
VNJS_API void VCreateThread(void* (*func)(void*), void* arg, unsigned long* handle);

/// Waits for the thread's end and sets the handle to 0; a null pointer or a 0 handle is nothing to do. A
/// thread that is already gone (EINVAL, ESRCH) is no error; otherwise throws VornException "Cannot join
/// thread".
VNJS_API void VJoinThread(unsigned long* handle);

/// Lets the thread run on without being joined and sets the handle to 0; a null pointer or a 0 handle is
/// nothing to do. Throws VornException "Cannot detach thread".
VNJS_API void VDetachThread(unsigned long* handle);

/// A named native thread that belongs to an environment.
///
/// Owner:    reference counted; the running function holds one reference, so it may outlive its creator's.
///           Whoever makes one with `new` puts it into a VRefCountedPointer at once; one that nobody has taken is
///           gone a second after its function has ended.
/// Threads:  all operations from any thread. Once the constructor has returned, the thread runs and has its
///           name.
/// Ending:   the function polls IsTerminating(); the environment asks every thread that CreateThread has made and joins
///           it at its end. Whoever makes one with `new` ends it before the environment.
class VNJS_API Thread : public VRefCountedObject {
 public:
  /// What runs on the thread. Its result is not used.
  using Function = int (*)(VRefCountedPointer<Thread>);

  /// Throws VornException "Invalid args!" (no environment, no name, no function) or "Cannot create thread".
  /// `data` stays the caller's.
  Thread(Environment* env, std::string name, Function func, void* data);
  ~Thread() override;

  /// Waits for the function's end, also when others wait for it already, and takes the name out of the environment's
  /// table. Nothing to do when it was joined or detached before. Throws VornException "Cannot join thread".
  void Join();

  /// Gives up joining and takes the name out of the environment's table. Throws "Cannot detach thread".
  void Detach();

  /// @{ What the constructor was given.
  Environment* GetEnvironment() const { return m_environment; }
  void* GetData() const { return m_data; }
  /// @}

  /// Whether the function is asked to return.
  bool IsTerminating() const { return m_terminating; }

  /// Asks the function to return; nothing is interrupted.
  void SetTerminating() { m_terminating = true; }

 private:
  static void* ThreadFuncNative(void* self);
  void ForgetName();

  Environment* const m_environment;
  const std::string m_name;
  const Function m_function;
  void* const m_data;
  std::atomic<unsigned long> m_handle{0};
  std::atomic<bool> m_detached{false};
  std::atomic<bool> m_terminating{false};

  /// The constructor touches it no more.
  std::atomic<bool> m_made{false};

  const std::shared_ptr<EnvironmentLink> m_link;

  /// Held while somebody waits for the thread's end.
  pthread_mutex_t m_handleMutex;

  pthread_mutex_t m_startMutex;
  pthread_cond_t m_startCondition;
  bool m_started = false;
};

}  // namespace vnjs
