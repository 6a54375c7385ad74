#include <vnjs/callback.h>

#include <utility>

#include "bridge/native.h"
#include "engine/dropped_handles.h"
#include "engine/environment_impl.h"

namespace vnjs {

namespace {

std::shared_ptr<DroppedHandles> DroppedHandlesOf(v8::Isolate* isolate) {
  Environment* const environment = GetEnvironment(isolate);
  return environment == nullptr ? nullptr : static_cast<EnvironmentImpl*>(environment)->GetDroppedHandles();
}

}  // namespace

VRefCountedPointer<SafeValue> SafeValue::New(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  if (value.IsEmpty() || value->IsNullOrUndefined()) return {};
  return new SafeValue(isolate, value);
}

SafeValue::SafeValue(v8::Isolate* isolate, v8::Local<v8::Value> value)
    : m_isolate(isolate), m_dropped(DroppedHandlesOf(isolate)) {
  m_value.emplace_front(isolate, value);
}

SafeValue::~SafeValue() {
  if (m_dropped) m_dropped->Drop(std::move(m_value));
}

v8::Local<v8::Value> SafeValue::GetValue() {
  if (m_dropped && m_dropped->IsClosed()) return {};
  return m_value.front().Get(m_isolate);
}

CallbackBase::CallbackBase(Environment* env, VRefCountedPointer<SafeValue> callback)
    : m_environment(env), m_callback(callback) {}

CallbackBase::~CallbackBase() = default;

void CallbackBase::Release() { VRefCountedObject::Release(); }

CallbackPort::CallbackPort(Environment* environment) {
  if (auto* const ours = dynamic_cast<EnvironmentImpl*>(environment)) m_link = ours->GetLink();
}

bool CallbackPort::Push(VRefCountedPointer<CallbackBase> callback) const {
  if (m_link == nullptr) return false;
  const MutexScope linkLock(m_link->lock);
  if (m_link->environment == nullptr || m_link->environment->IsTerminating()) return false;
  m_link->environment->PushCallback(callback);
  return true;
}

}  // namespace vnjs
