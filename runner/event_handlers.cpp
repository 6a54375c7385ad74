#include "runner/event_handlers.h"

#include <vnjs/value.h>

#include <algorithm>
#include <utility>

#include "bridge/native.h"
#include "runner/native_call.h"

namespace vnjs {

namespace {

EventHandlers& Self(const v8::FunctionCallbackInfo<v8::Value>& info) {
  return *static_cast<EventHandlers*>(info.Data().As<v8::External>()->Value());
}

v8::Local<v8::Function> ReadHandler(v8::Local<v8::Value> value, const char* function) {
  if (!value->IsFunction()) {
    throw ArgumentError{std::string(function) + ": handler must be a function, not " +
                        DescribeScriptValue(value)};
  }
  return value.As<v8::Function>();
}

/// The guard around the four: what they refuse is the script's error.
template <void (*native)(const v8::FunctionCallbackInfo<v8::Value>&)>
void Guarded(const v8::FunctionCallbackInfo<v8::Value>& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  try {
    native(info);
  } catch (const ArgumentError& error) {
    if (isolate->IsExecutionTerminating()) return;
    isolate->ThrowException(v8::Exception::TypeError(NewName(isolate, error.message.c_str())));
  } catch (const PendingException&) {
    // It goes on in the script.
  } catch (const std::exception&) {
    ThrowException(isolate, GetVornError(-2));
  }
}

}  // namespace

bool EventHandlers::Install(v8::Local<v8::Context> context) {
  v8::Isolate* const isolate = context->GetIsolate();
  const struct {
    const char* name;
    v8::FunctionCallback callback;
    int length;
  } kNatives[] = {
      {"on", Guarded<&EventHandlers::On>, 2},
      {"off", Guarded<&EventHandlers::Off>, 2},
      {"once", Guarded<&EventHandlers::Once>, 1},
      {"onStop", Guarded<&EventHandlers::OnStop>, 1},
  };
  for (const auto& [name, callback, length] : kNatives) {
    v8::Local<v8::Function> function;
    if (!v8::Function::New(context, callback, v8::External::New(isolate, this), length,
                           v8::ConstructorBehavior::kThrow)
             .ToLocal(&function)) {
      return false;
    }
    function->SetName(NewName(isolate, name));
    if (!context->Global()
             ->DefineOwnProperty(context, NewName(isolate, name), function, v8::DontEnum)
             .FromMaybe(false))
      return false;
  }
  return true;
}

std::shared_ptr<const EventHandlers::List> EventHandlers::Find(const std::string& event) {
  const auto found = m_handlers.find(event);
  if (found == m_handlers.end()) return nullptr;
  std::shared_ptr<const List> list = found->second;
  if (list->hasOnce) {
    const auto isOnce = [](const std::shared_ptr<Handler>& handler) { return !handler->once.IsEmpty(); };
    auto rest = std::make_shared<List>();
    std::remove_copy_if(list->handlers.begin(), list->handlers.end(), std::back_inserter(rest->handlers),
                        isOnce);
    if (rest->handlers.empty()) {
      m_handlers.erase(found);
    } else {
      found->second = std::move(rest);
    }
  }
  return list;
}

void EventHandlers::Clear() {
  m_handlers.clear();
  m_stopHandlers.clear();
}

std::string EventHandlers::ReadEvent(const Info& info, const char* function) const {
  if (!info[0]->IsString()) {
    throw ArgumentError{std::string(function) + ": event must be a string, not " +
                        DescribeScriptValue(info[0])};
  }
  try {
    return m_conversion.ReadText(info[0].As<v8::String>());
  } catch (const Refusal& refusal) {
    throw ArgumentError{std::string(function) + ": event: " + refusal.problem};
  }
}

void EventHandlers::Add(const std::string& event, std::shared_ptr<Handler> handler) {
  std::shared_ptr<const List>& list = m_handlers[event];
  auto longer = list == nullptr ? std::make_shared<List>() : std::make_shared<List>(*list);
  longer->hasOnce |= !handler->once.IsEmpty();
  longer->handlers.push_back(std::move(handler));
  list = std::move(longer);
}

/// The one that was added last.
void EventHandlers::Remove(const std::string& event, v8::Local<v8::Value> function) {
  const auto found = m_handlers.find(event);
  if (found == m_handlers.end()) return;
  const auto& handlers = found->second->handlers;
  const auto last = std::find_if(handlers.rbegin(), handlers.rend(),
                                 [&](const auto& handler) { return handler->function == function; });
  if (last == handlers.rend()) return;
  (*last)->removed = true;
  auto shorter = std::make_shared<List>(*found->second);
  shorter->handlers.erase(shorter->handlers.begin() + (handlers.rend() - last - 1));
  if (shorter->handlers.empty()) {
    m_handlers.erase(found);
  } else {
    found->second = std::move(shorter);
  }
}

void EventHandlers::On(const Info& info) {
  EventHandlers& self = Self(info);
  const std::string event = self.ReadEvent(info, "on");
  auto handler = std::make_shared<Handler>();
  handler->function.Reset(info.GetIsolate(), ReadHandler(info[1], "on"));
  self.Add(event, std::move(handler));
}

void EventHandlers::Off(const Info& info) {
  EventHandlers& self = Self(info);
  const std::string event = self.ReadEvent(info, "off");
  self.Remove(event, ReadHandler(info[1], "off"));
}

void EventHandlers::Once(const Info& info) {
  EventHandlers& self = Self(info);
  v8::Isolate* const isolate = info.GetIsolate();
  const std::string event = self.ReadEvent(info, "once");
  v8::Local<v8::Promise::Resolver> resolver;
  if (!v8::Promise::Resolver::New(isolate->GetCurrentContext()).ToLocal(&resolver)) throw PendingException();
  auto handler = std::make_shared<Handler>();
  handler->once.Reset(isolate, resolver);
  self.Add(event, std::move(handler));
  info.GetReturnValue().Set(resolver->GetPromise());
}

void EventHandlers::OnStop(const Info& info) {
  Self(info).m_stopHandlers.emplace_back(info.GetIsolate(), ReadHandler(info[0], "onStop"));
}

}  // namespace vnjs
