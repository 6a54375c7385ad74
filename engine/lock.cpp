#include <vnjs/lock.h>

namespace vnjs {

MutexLock::MutexLock(bool recursive) {
  pthread_mutexattr_init(&m_attributes);
  if (recursive) pthread_mutexattr_settype(&m_attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&m_mutex, &m_attributes);
}

MutexLock::~MutexLock() {
  pthread_mutex_destroy(&m_mutex);
  pthread_mutexattr_destroy(&m_attributes);
}

void MutexLock::Enter() { pthread_mutex_lock(&m_mutex); }

void MutexLock::Leave() { pthread_mutex_unlock(&m_mutex); }

}  // namespace vnjs
