#pragma once

#include <v8.h>

#include "bridge/stack_limit.h"

namespace vnjs {

/// What the engine remembers of each thread that has entered an isolate, for as long as the isolate lives: forgotten
/// at the end of the scope, because hosts may run each script on a thread of its own. Around the Locker. Where the
/// thread has entered some isolate already or holds this one's lock, nothing is forgotten.
class ThreadMemory {
 public:
  explicit ThreadMemory(v8::Isolate* isolate)
      : m_isolate(v8::Isolate::TryGetCurrent() == nullptr && !v8::Locker::IsLocked(isolate) ? isolate
                                                                                            : nullptr) {}
  ~ThreadMemory() {
    if (m_isolate != nullptr) m_isolate->DiscardThreadSpecificMetadata();
  }
  ThreadMemory(const ThreadMemory&) = delete;
  ThreadMemory& operator=(const ThreadMemory&) = delete;

 private:
  v8::Isolate* const m_isolate;
};

/// Everything native code needs around it to touch an isolate: Locker, Isolate::Scope, HandleScope and, when
/// there is a context, Context::Scope. May be nested on one thread; the outermost tells the engine the
/// thread's stack.
class ScriptScope {
 public:
  /// The context may be an empty handle, as before it is made.
  ScriptScope(v8::Isolate* isolate, const v8::Global<v8::Context>& context)
      : m_outermost(v8::Isolate::TryGetCurrent() != isolate),
        m_threadMemory(isolate),
        m_locker(isolate),
        m_isolateScope(isolate),
        m_handleScope(isolate),
        m_context(context.Get(isolate)) {
    if (m_outermost) LimitStack(isolate);
    if (!m_context.IsEmpty()) m_context->Enter();
  }
  ~ScriptScope() {
    if (!m_context.IsEmpty()) m_context->Exit();
  }
  ScriptScope(const ScriptScope&) = delete;
  ScriptScope& operator=(const ScriptScope&) = delete;

  v8::Local<v8::Context> context() const { return m_context; }

 private:
  const bool m_outermost;
  const ThreadMemory m_threadMemory;
  const v8::Locker m_locker;
  const v8::Isolate::Scope m_isolateScope;
  const v8::HandleScope m_handleScope;
  const v8::Local<v8::Context> m_context;
};

}  // namespace vnjs
