#include <unistd.h>
#include <vnjs/error.h>
#include <vnjs/host.h>
#include <vnjs/thread.h>

#include <cerrno>
#include <utility>

#include "engine/environment_impl.h"

namespace vnjs {

namespace {

/// The Thread whose function runs on this thread.
thread_local const Thread* t_current = nullptr;

/// How long a creator may take from making a Thread to taking a reference, the next thing that it does.
constexpr int kCreatorsMs = 1000;

/// A thread does not wait for those that wait for its end.
class HandleLock {
 public:
  HandleLock(pthread_mutex_t* mutex, bool mayWait)
      : m_mutex(mutex), m_isHeld((mayWait ? pthread_mutex_lock(mutex) : pthread_mutex_trylock(mutex)) == 0) {}
  ~HandleLock() {
    if (m_isHeld) pthread_mutex_unlock(m_mutex);
  }
  HandleLock(const HandleLock&) = delete;
  HandleLock& operator=(const HandleLock&) = delete;
  bool isHeld() const { return m_isHeld; }

 private:
  pthread_mutex_t* const m_mutex;
  const bool m_isHeld;
};

std::shared_ptr<EnvironmentLink> LinkOf(Environment* environment) {
  auto* const ours = dynamic_cast<EnvironmentImpl*>(environment);
  return ours == nullptr ? nullptr : ours->GetLink();
}

}  // namespace

void VCreateThread(void* (*func)(void*), void* arg, unsigned long* handle) {
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, func, arg) != 0) throw VornException("Cannot create thread");
  *handle = thread;
}

void VJoinThread(unsigned long* handle) {
  if (handle == nullptr || *handle == 0) return;
  const int error = pthread_join(*handle, nullptr);
  if (error != 0 && error != EINVAL && error != ESRCH) throw VornException("Cannot join thread");
  *handle = 0;
}

void VDetachThread(unsigned long* handle) {
  if (handle == nullptr || *handle == 0) return;
  if (pthread_detach(*handle) != 0) throw VornException("Cannot detach thread");
  *handle = 0;
}

Thread::Thread(Environment* env, std::string name, Function func, void* data)
    : m_environment(env), m_name(std::move(name)), m_function(func), m_data(data), m_link(LinkOf(env)) {
  if (env == nullptr || m_name.empty() || func == nullptr) throw VornException("Invalid args!");
  pthread_mutex_init(&m_startMutex, nullptr);
  pthread_mutex_init(&m_handleMutex, nullptr);
  pthread_cond_init(&m_startCondition, nullptr);

  // The running function's reference, taken here so that it exists before the thread does.
  AddRef();
  unsigned long handle = 0;
  try {
    VCreateThread(ThreadFuncNative, this, &handle);
  } catch (const VornException&) {
    pthread_cond_destroy(&m_startCondition);
    pthread_mutex_destroy(&m_startMutex);
    pthread_mutex_destroy(&m_handleMutex);
    throw;
  }
  pthread_mutex_lock(&m_startMutex);
  while (!m_started) pthread_cond_wait(&m_startCondition, &m_startMutex);
  pthread_mutex_unlock(&m_startMutex);
  m_made = true;
}

Thread::~Thread() {
  SetTerminating();
  try {
    if (t_current == this) {
      // The function's own reference was the last one, and a thread cannot join itself.
      unsigned long handle = m_handle.exchange(0);
      VDetachThread(&handle);
    } else {
      Join();
    }
  } catch (const VornException&) {
    // Nobody is left to be told.
  }
  pthread_cond_destroy(&m_startCondition);
  pthread_mutex_destroy(&m_startMutex);
  pthread_mutex_destroy(&m_handleMutex);
}

void Thread::Join() {
  if (m_detached) return;
  {
    const HandleLock handleLock(&m_handleMutex, t_current != this);
    if (!handleLock.isHeld()) throw VornException("Cannot join thread");
    unsigned long handle = m_handle;
    if (handle == 0) return;
    VJoinThread(&handle);
    m_handle = 0;
  }
  ForgetName();
}

void Thread::Detach() {
  {
    const HandleLock handleLock(&m_handleMutex, t_current != this);
    if (!handleLock.isHeld()) return;
    unsigned long handle = m_handle;
    if (handle == 0) return;
    VDetachThread(&handle);
    m_handle = 0;
    m_detached = true;
  }
  ForgetName();
}

void Thread::ForgetName() {
  if (m_link == nullptr) return;
  const MutexScope linkLock(m_link->lock);
  if (m_link->environment != nullptr) m_link->environment->DeleteThreadRef(m_name, this);
}

void* Thread::ThreadFuncNative(void* self) {
  auto* const thread = static_cast<Thread*>(self);
  t_current = thread;
  // Its own doing: the function may detach the thread before the creator knows the handle.
  thread->m_handle = pthread_self();
  set_thread_name(thread->m_name.c_str());
  pthread_mutex_lock(&thread->m_startMutex);
  thread->m_started = true;
  pthread_cond_signal(&thread->m_startCondition);
  pthread_mutex_unlock(&thread->m_startMutex);

  int result = -1;
  try {
    result = thread->m_function(thread);
  } catch (...) {
    // The result says it.
  }

  // A short function may be done before its creator has put the new Thread into a pointer. Letting go now
  // would hand the creator a deleted object; one that has been dropped already waits for nobody.
  while (!thread->m_made) usleep(1000);
  for (int waited = 0; thread->References() == 1 && waited < kCreatorsMs; ++waited) usleep(1000);
  thread->ReleaseRef();
  return reinterpret_cast<void*>(static_cast<intptr_t>(result));
}

}  // namespace vnjs
