#include "bridge/json.h"

#include <vnjs/value.h>

#include "bridge/native.h"

namespace vnjs {

namespace {

v8::Local<v8::String> Key(v8::Isolate* isolate, const char* text) {
  return v8::String::NewFromUtf8(isolate, text, v8::NewStringType::kInternalized)
      .FromMaybe(v8::String::Empty(isolate));
}

/// Replaces whatever a getter threw by a message of ours. A termination goes on by itself: thrown again, it would be the
/// value null, which scripts can catch.
void Refuse(v8::Isolate* isolate, v8::TryCatch& caught, const char* message) {
  if (caught.HasTerminated()) return;
  caught.Reset();
  ThrowException(isolate, message);
  caught.ReThrow();
}

/// The script's `JSON` and its `stringify`, both read anew each time: the script may have put its own in their
/// places, or getters. False, with an exception pending, when there is no function to call; `terminated` tells of
/// the one kind of exception that does not reach a TryCatch around this when no script is running.
bool FindStringify(v8::Local<v8::Context> context, v8::Local<v8::Object> global,
                   v8::Local<v8::String> jsonKey, v8::Local<v8::String> stringifyKey,
                   v8::Local<v8::Object>* json, v8::Local<v8::Value>* stringify, bool* terminated) {
  v8::Isolate* const isolate = context->GetIsolate();
  v8::TryCatch caught(isolate);
  v8::Local<v8::Value> found;
  if (!global->Get(context, jsonKey).ToLocal(&found) || !found->ToObject(context).ToLocal(json)) {
    *terminated = caught.HasTerminated();
    Refuse(isolate, caught, "No JSON object found in global scope");
    return false;
  }
  if (!(*json)->Get(context, stringifyKey).ToLocal(stringify) || !(*stringify)->IsFunction()) {
    *terminated = caught.HasTerminated();
    Refuse(isolate, caught, "No stringify function found in JSON object");
    return false;
  }
  return true;
}

v8::Local<v8::Value> CallStringify(v8::Local<v8::Context> context, v8::Local<v8::Object> json,
                                   v8::Local<v8::Value> stringify, v8::Local<v8::Value> value) {
  return stringify.As<v8::Function>()->Call(context, json, 1, &value).FromMaybe(v8::Local<v8::Value>());
}

}  // namespace

void JsonStringifier::Prepare(v8::Local<v8::Context> context) {
  v8::Isolate* const isolate = context->GetIsolate();
  m_json.Reset(isolate, Key(isolate, "JSON"));
  m_stringify.Reset(isolate, Key(isolate, "stringify"));
  v8::Local<v8::Object> json;
  v8::Local<v8::Value> stringify;
  bool terminated = false;
  const v8::TryCatch caught(isolate);
  // A function that has a script is the work of somebody else's extension.
  if (FindStringify(context, context->Global(), m_json.Get(isolate), m_stringify.Get(isolate), &json,
                    &stringify, &terminated) &&
      stringify.As<v8::Function>()->ScriptId() == v8::UnboundScript::kNoScriptId) {
    m_original.Reset(isolate, stringify);
  }
}

v8::Local<v8::Value> JsonStringifier::Stringify(v8::Local<v8::Context> context, v8::Local<v8::Value> value,
                                                bool* terminated) const {
  v8::Isolate* const isolate = context->GetIsolate();
  v8::Local<v8::Object> json;
  v8::Local<v8::Value> stringify;
  if (!FindStringify(context, context->Global(), m_json.Get(isolate), m_stringify.Get(isolate), &json,
                     &stringify, terminated)) {
    return {};
  }
  if (m_original != stringify) return CallStringify(context, json, stringify, value);

  // An integer's JSON is its own text.
  if (value->IsInt32()) return value;
  v8::Local<v8::String> text;
  if (!v8::JSON::Stringify(context, value).ToLocal(&text)) return {};
  // What JSON cannot say comes as the bare word; a string of that text would be quoted.
  if (text->Length() == 9 && text->StringEquals(NewName(isolate, "undefined"))) return v8::Undefined(isolate);
  return text;
}

void JsonStringifier::Clear() {
  m_json.Reset();
  m_stringify.Reset();
  m_original.Reset();
}

v8::Local<v8::Value> JSON_stringify(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  Environment* const environment = GetEnvironment(isolate);
  const ConversionContext conversion(isolate);
  const v8::Local<v8::Context> context = conversion.get();
  if (context.IsEmpty()) return {};
  const v8::Local<v8::Object> global = environment == nullptr || environment->GetContext().IsEmpty()
                                           ? context->Global()
                                           : environment->GetGlobal();
  v8::Local<v8::Object> json;
  v8::Local<v8::Value> stringify;
  bool terminated = false;
  if (!FindStringify(context, global, Key(isolate, "JSON"), Key(isolate, "stringify"), &json, &stringify,
                     &terminated)) {
    return {};
  }
  return CallStringify(context, json, stringify, value);
}

v8::Local<v8::Value> JSON_parse(v8::Isolate* isolate, v8::Local<v8::String> text) {
  const ConversionContext context(isolate);
  if (context.IsEmpty()) return {};
  return v8::JSON::Parse(context.get(), text).FromMaybe(v8::Local<v8::Value>());
}

}  // namespace vnjs
