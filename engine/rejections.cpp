#include "engine/rejections.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "bridge/native.h"
#include "engine/environment_impl.h"

namespace vnjs {

namespace {

/// One script can leave any number of rejected promises; the log takes so many of each run and a count.
constexpr size_t kMostLines = 20;

/// An error's stack, or the text of whatever else was thrown. Both can be the work of a script.
std::string Describe(v8::Local<v8::Context> context, v8::Local<v8::Value> reason) {
  const v8::TryCatch caught(context->GetIsolate());
  v8::Local<v8::Value> stack;
  if (reason->IsNativeError() &&
      reason.As<v8::Object>()->Get(context, NewName(context->GetIsolate(), "stack")).ToLocal(&stack)) {
    std::string text = GetText(stack);
    if (!text.empty()) return text;
  }
  return GetText(reason);
}

}  // namespace

void Rejections::OnReject(v8::PromiseRejectMessage message) {
  if (message.GetEvent() != v8::kPromiseRejectWithNoHandler) return;
  v8::Isolate* const isolate = message.GetPromise()->GetIsolate();
  Environment* const environment = GetEnvironment(isolate);
  if (environment == nullptr) return;
  Rejections& rejections = static_cast<EnvironmentImpl*>(environment)->GetRejections();
  try {
    rejections.Add(isolate, message.GetPromise(), message.GetValue());
  } catch (const std::bad_alloc&) {
    // The engine's frames cannot be unwound.
    ++rejections.m_lost;
  }
}

void Rejections::Add(v8::Isolate* isolate, v8::Local<v8::Promise> promise, v8::Local<v8::Value> reason) {
  // A promise that finds its handler a moment later is the ordinary case; a long run must not collect them
  // all.
  if (m_entries.size() >= m_sweepAt) {
    ForgetHandled();
    m_sweepAt = std::max<size_t>(64, 2 * m_entries.size());
  }
  m_entries.push_back({v8::Global<v8::Promise>(isolate, promise), v8::Global<v8::Value>(isolate, reason)});
}

void Rejections::ForgetHandled() {
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  const v8::HandleScope scope(isolate);
  m_entries.erase(
      std::remove_if(m_entries.begin(), m_entries.end(),
                     [isolate](const Entry& entry) { return entry.promise.Get(isolate)->HasHandler(); }),
      m_entries.end());
}

void Rejections::Report(Environment* environment) {
  if (m_entries.empty() && m_lost == 0) return;
  ForgetHandled();
  // Moved out, because describing them can run script code that rejects further ones.
  const std::vector<Entry> entries = std::exchange(m_entries, {});
  const size_t lost = std::exchange(m_lost, 0);
  m_sweepAt = 64;

  v8::Isolate* const isolate = environment->GetIsolate();
  const v8::HandleScope scope(isolate);
  const v8::Local<v8::Context> context = environment->GetContext();
  EnvironmentObserver* const observer = static_cast<EnvironmentImpl*>(environment)->GetObserver();
  size_t lines = 0;
  for (; lines < entries.size() && lines < kMostLines && !IsInterrupted(environment); ++lines) {
    const v8::Local<v8::Value> reason = entries[lines].reason.Get(isolate);
    const std::string text = "Unhandled promise rejection: " + Describe(context, reason);
    if (observer != nullptr) {
      observer->OnRejection(reason, text);
    } else {
      environment->Log(3, text, nullptr);
    }
  }
  const size_t more = lost + entries.size() - lines;
  if (more > 0) {
    environment->Log(3, std::to_string(more) + " more unhandled promise rejections", nullptr);
  }
}

}  // namespace vnjs
