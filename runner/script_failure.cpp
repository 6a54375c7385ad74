#include "runner/script_failure.h"

#include <vnjs/value.h>

#include <new>

#include "bridge/native.h"

namespace vnjs {

namespace {

/// Where an `Error` keeps the place that a native has thrown it with.
v8::Local<v8::Private> PlaceKey(v8::Isolate* isolate) {
  return v8::Private::ForApi(isolate, NewName(isolate, "vnjs/place"));
}

/// What does not fit into a string of the engine's has no text.
v8::Local<v8::String> Text(v8::Isolate* isolate, const std::string& text) {
  const v8::TryCatch caught(isolate);
  return NewString(isolate, text).FromMaybe(v8::String::Empty(isolate));
}

v8::Local<v8::Value> Member(v8::Local<v8::Context> context, v8::Local<v8::Object> object, const char* name) {
  v8::Local<v8::Value> member;
  if (!object->Get(context, NewName(context->GetIsolate(), name)).ToLocal(&member)) return {};
  return member;
}

void ReadPlace(v8::Local<v8::Context> context, v8::Local<v8::Object> thrown, ScriptError* error) {
  v8::Local<v8::Value> kept;
  if (!thrown->GetPrivate(context, PlaceKey(context->GetIsolate())).ToLocal(&kept) || !kept->IsObject())
    return;
  const auto place = kept.As<v8::Object>();
  error->source = GetText(Member(context, place, "source"));
  const auto number = [&](const char* name) {
    const v8::Local<v8::Value> member = Member(context, place, name);
    return member.IsEmpty() ? 0 : member->Int32Value(context).FromMaybe(0);
  };
  error->line = number("line");
  error->column = number("column");
}

/// Without the engine's word in front.
std::string WithoutUncaught(std::string text) {
  constexpr char kUncaught[] = "Uncaught ";
  if (text.rfind(kUncaught, 0) == 0) text.erase(0, sizeof kUncaught - 1);
  return text;
}

void Describe(v8::Local<v8::Context> context, v8::Local<v8::Value> thrown, v8::Local<v8::Message> message,
              ScriptError* error) {
  if (!message.IsEmpty()) {
    error->source = GetText(message->GetScriptResourceName());
    error->line = message->GetLineNumber(context).FromMaybe(0);
    error->column = error->line == 0 ? 0 : message->GetStartColumn() + 1;
    error->message = WithoutUncaught(GetText(message->Get()));
  }
  if (thrown.IsEmpty()) return;
  if (!thrown->IsNativeError()) {
    if (error->message.empty()) error->message = GetText(thrown);
    return;
  }
  const auto object = thrown.As<v8::Object>();
  const v8::Local<v8::Value> text = Member(context, object, "message");
  if (!text.IsEmpty() && text->IsString()) {
    const std::string own = GetText(text);
    if (!own.empty()) error->message = own;
  }
  const v8::Local<v8::Value> stack = Member(context, object, "stack");
  if (!stack.IsEmpty() && stack->IsString()) error->stack = GetText(stack);
  ReadPlace(context, object, error);
}

}  // namespace

ScriptError DescribeFailure(v8::Local<v8::Context> context, ErrorKind kind, v8::Local<v8::Value> thrown,
                            v8::Local<v8::Message> message) {
  ScriptError error;
  error.kind = kind;
  const v8::TryCatch caught(context->GetIsolate());
  try {
    Describe(context, thrown, message, &error);
  } catch (const std::bad_alloc&) {
    error.message = GetVornError(-2);
  }
  return error;
}

void ThrowScriptError(v8::Local<v8::Context> context, const ScriptError& error) {
  v8::Isolate* const isolate = context->GetIsolate();
  // An exception in its place would let the script catch its own end.
  if (isolate->IsExecutionTerminating()) return;
  const v8::Local<v8::Value> thrown = v8::Exception::Error(Text(isolate, error.message));
  if (error.line != 0 || !error.source.empty()) {
    const v8::Local<v8::Object> place = v8::Object::New(isolate);
    if (!SetProperty(context, place, "source", Text(isolate, error.source)) ||
        !SetProperty(context, place, "line", v8::Integer::New(isolate, error.line)) ||
        !SetProperty(context, place, "column", v8::Integer::New(isolate, error.column)) ||
        !thrown.As<v8::Object>()->SetPrivate(context, PlaceKey(isolate), place).FromMaybe(false)) {
      return;
    }
  }
  isolate->ThrowException(thrown);
}

std::string FailureText(const ScriptError& error) {
  if (!error.stack.empty()) return error.stack;
  if (error.line == 0) return error.message;
  return error.message + " at " + error.source + ':' + std::to_string(error.line) + ':' +
         std::to_string(error.column);
}

}  // namespace vnjs
