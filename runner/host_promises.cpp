#include "runner/host_promises.h"

#include "bridge/native.h"

namespace vnjs {

v8::Local<v8::Value> HostPromises::Add(v8::Local<v8::Context> context, const Promise& promise) {
  v8::Local<v8::Promise::Resolver> resolver;
  if (!v8::Promise::Resolver::New(context).ToLocal(&resolver)) throw PendingException();
  const std::shared_ptr<detail::PromiseState>& state = detail::PromiseState::Of(promise);
  detail::PromiseState::Outcome outcome{true, "The host has dropped the promise"};
  if (state == nullptr || state->IsSettled(m_core, m_conversion.environment(), ++m_lastNumber, &outcome)) {
    Settle(context, resolver, outcome);
  } else {
    m_waiting[m_lastNumber].Reset(context->GetIsolate(), resolver);
  }
  return resolver->GetPromise();
}

void HostPromises::Settle(v8::Local<v8::Context> context, uint64_t number,
                          const detail::PromiseState::Outcome& outcome) {
  const auto found = m_waiting.find(number);
  if (found == m_waiting.end()) return;
  const v8::Local<v8::Promise::Resolver> resolver = found->second.Get(context->GetIsolate());
  m_waiting.erase(found);
  Settle(context, resolver, outcome);
}

void HostPromises::Settle(v8::Local<v8::Context> context, v8::Local<v8::Promise::Resolver> resolver,
                          const detail::PromiseState::Outcome& outcome) const {
  v8::Isolate* const isolate = context->GetIsolate();
  v8::Local<v8::Value> value;
  bool isRejection = outcome.isRejection;
  try {
    value = m_conversion.ToScript(context, outcome.value);
    if (isRejection) value = v8::Exception::Error(value.As<v8::String>());
  } catch (const Refusal& refusal) {
    isRejection = true;
    value = v8::Exception::TypeError(NewName(isolate, refusal.Text().c_str()));
  }
  const v8::Maybe<bool> done =
      isRejection ? resolver->Reject(context, value) : resolver->Resolve(context, value);
  if (done.IsNothing()) throw PendingException();
}

}  // namespace vnjs
