#pragma once

#include <pthread.h>
#include <vnjs/export.h>

namespace vnjs {

/// A pthread mutex, recursive when asked. Not copied; destroyed only while nobody holds it.
class VNJS_API MutexLock {
 public:
  /// `recursive`: its owner may enter it again, and leaves it as often.
  explicit MutexLock(bool recursive);
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  virtual ~MutexLock();

  /// Waits until nobody else holds it, and takes it.
  void Enter();

  /// Only for the thread that holds it.
  void Leave();

 private:
  pthread_mutexattr_t m_attributes;
  pthread_mutex_t m_mutex;
};

/// A MutexLock that its owner may enter again.
class VNJS_API ReentrantMutexLock : public MutexLock {
 public:
  ReentrantMutexLock() : MutexLock(true) {}
};

/// Holds a MutexLock for the life of a scope. Scoped locks named after what they guard derive from it.
class MutexScope {
 public:
  /// Enters `lock`, which has to outlive this object.
  explicit MutexScope(MutexLock& lock) : m_lock(lock) { m_lock.Enter(); }
  ~MutexScope() { m_lock.Leave(); }
  MutexScope(const MutexScope&) = delete;
  MutexScope& operator=(const MutexScope&) = delete;

 private:
  MutexLock& m_lock;
};

}  // namespace vnjs
