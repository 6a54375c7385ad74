#include "engine/dropped_handles.h"

#include <utility>

namespace vnjs {

void DroppedHandles::Drop(Handle handle) {
  const std::lock_guard<std::mutex> handlesLock(m_handlesMutex);
  if (m_closed) {
    handle.front().Empty();
  } else if (v8::Locker::IsLocked(m_isolate)) {
    handle.front().Reset();
  } else {
    // The list takes it over, the handle stays in its place: moving it would touch the engine's tables.
    m_handles.splice_after(m_handles.before_begin(), handle);
    m_waiting = true;
  }
}

void DroppedHandles::Reset() {
  if (!m_waiting) return;
  Handle handles;
  {
    const std::lock_guard<std::mutex> handlesLock(m_handlesMutex);
    handles.swap(m_handles);
    m_waiting = false;
  }
}

void DroppedHandles::Close() {
  const std::lock_guard<std::mutex> handlesLock(m_handlesMutex);
  m_handles.clear();
  m_closed = true;
}

}  // namespace vnjs
