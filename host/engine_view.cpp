#include "host/engine_view.h"

#include <v8.h>

#include <cctype>
#include <cstdint>
#include <vector>

namespace vnjs::host {
namespace {

/// The compiler's part of the stack, less than any thread of this program has.
constexpr uintptr_t kStack = 512 * 1024;

class Entered {
 public:
  explicit Entered(Environment* environment)
      : isolate(environment->GetIsolate()),
        m_locker(isolate),
        m_isolateScope(isolate),
        m_handleScope(isolate),
        context(environment->GetContext()),
        m_contextScope(context),
        m_caught(isolate) {
    isolate->SetStackLimit(reinterpret_cast<uintptr_t>(this) - kStack);
  }
  Entered(const Entered&) = delete;
  Entered& operator=(const Entered&) = delete;

  v8::MaybeLocal<v8::String> String(const std::string& text) const {
    return v8::String::NewFromUtf8(isolate, text.data(), v8::NewStringType::kNormal,
                                   static_cast<int>(text.size()));
  }
  v8::MaybeLocal<v8::Script> Compile(const std::string& code) const {
    v8::Local<v8::String> text;
    return String(code).ToLocal(&text) ? v8::Script::Compile(context, text) : v8::MaybeLocal<v8::Script>();
  }

  v8::Isolate* const isolate;

 private:
  const v8::Locker m_locker;
  const v8::Isolate::Scope m_isolateScope;
  const v8::HandleScope m_handleScope;

 public:
  const v8::Local<v8::Context> context;

 private:
  const v8::Context::Scope m_contextScope;
  const v8::TryCatch m_caught;
};

/// Whether what the compiler complains about reaches to the end of the code.
bool BreaksAtItsEnd(const Entered& in, const std::string& code) {
  const v8::TryCatch caught(in.isolate);
  v8::Local<v8::String> text;
  if (!in.String(code).ToLocal(&text) || !v8::Script::Compile(in.context, text).IsEmpty()) return false;
  return !caught.Message().IsEmpty() && caught.Message()->GetEndPosition() >= text->Length();
}

/// The value of a property that the object itself has and that is no getter's.
v8::MaybeLocal<v8::Value> OwnData(const Entered& in, v8::Local<v8::Value> holder,
                                  v8::Local<v8::String> name) {
  v8::Local<v8::Object> object;
  v8::Local<v8::Value> descriptor;
  v8::Local<v8::String> key;
  if (holder->IsNullOrUndefined() || holder->IsProxy() || !holder->ToObject(in.context).ToLocal(&object) ||
      !object->GetOwnPropertyDescriptor(in.context, name).ToLocal(&descriptor) || !descriptor->IsObject() ||
      !in.String("value").ToLocal(&key)) {
    return {};
  }
  const auto fields = descriptor.As<v8::Object>();
  if (!fields->HasOwnProperty(in.context, key).FromMaybe(false)) return {};
  return fields->Get(in.context, key);
}

/// What a name alone means, if nothing is called to find out.
v8::MaybeLocal<v8::Value> Global(const Entered& in, const std::string& name) {
  v8::Local<v8::String> key;
  if (!in.String(name).ToLocal(&key)) return {};
  for (v8::Local<v8::Value> at = in.context->Global(); at->IsObject();
       at = at.As<v8::Object>()->GetPrototype()) {
    if (at->IsProxy()) return {};
    if (!at.As<v8::Object>()->HasOwnProperty(in.context, key).FromMaybe(true)) continue;
    if (OwnData(in, at, key).IsEmpty()) return {};
    break;
  }
  // What `let`, `const` and `class` declare is no property, and may hide one.
  v8::Local<v8::Script> script;
  return in.Compile(name).ToLocal(&script) ? script->Run(in.context) : v8::MaybeLocal<v8::Value>();
}

bool IsPartOfName(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return isalnum(byte) != 0 || c == '_' || c == '$' || byte >= 0x80;
}

size_t BeginOfName(const std::string& text, size_t end) {
  while (end > 0 && IsPartOfName(text[end - 1])) --end;
  return end;
}

bool IsName(const std::string& text) {
  return !text.empty() && isdigit(static_cast<unsigned char>(text[0])) == 0 &&
         BeginOfName(text, text.size()) == 0;
}

/// The object that is to the left of the last dot; the global object without one.
v8::MaybeLocal<v8::Object> ObjectBefore(const Entered& in, const std::string& text, size_t end) {
  std::vector<std::string> path;
  while (end > 0 && text[end - 1] == '.') {
    const size_t begin = BeginOfName(text, end - 1);
    path.push_back(text.substr(begin, end - 1 - begin));
    if (!IsName(path.back())) return {};
    end = begin;
  }
  if (path.empty()) return in.context->Global();
  v8::Local<v8::Value> value;
  if (!Global(in, path.back()).ToLocal(&value)) return {};
  for (path.pop_back(); !path.empty(); path.pop_back()) {
    v8::Local<v8::String> name;
    if (!in.String(path.back()).ToLocal(&name) || !OwnData(in, value, name).ToLocal(&value)) return {};
  }
  return value->IsNullOrUndefined() ? v8::MaybeLocal<v8::Object>() : value->ToObject(in.context);
}

}  // namespace

bool EndsTooEarly(Environment* environment, const std::string& code) {
  const Entered in(environment);
  // Of a call without its parenthesis the compiler blames the last argument, unless an operator follows it.
  return BreaksAtItsEnd(in, code + '\n') ||
         (in.Compile(code + '\n').IsEmpty() && BreaksAtItsEnd(in, code + "\n+\n"));
}

Completion Complete(Environment* environment, const std::string& text) {
  const Entered in(environment);
  const size_t begin = BeginOfName(text, text.size());
  const std::string typed = text.substr(begin);
  Completion found{typed.size(), {}};
  v8::Local<v8::Object> object;
  if (!ObjectBefore(in, text, begin).ToLocal(&object)) return found;
  for (v8::Local<v8::Value> at = object; at->IsObject() && !at->IsProxy();
       at = at.As<v8::Object>()->GetPrototype()) {
    v8::Local<v8::Array> names;
    if (!at.As<v8::Object>()
             ->GetPropertyNames(in.context, v8::KeyCollectionMode::kOwnOnly, v8::SKIP_SYMBOLS,
                                v8::IndexFilter::kSkipIndices, v8::KeyConversionMode::kConvertToString)
             .ToLocal(&names)) {
      break;
    }
    for (uint32_t i = 0; i < names->Length(); ++i) {
      v8::Local<v8::Value> name;
      if (!names->Get(in.context, i).ToLocal(&name)) break;
      const v8::String::Utf8Value utf8(in.isolate, name);
      const std::string word(*utf8, static_cast<size_t>(utf8.length()));
      if (word.compare(0, typed.size(), typed) == 0 && IsName(word)) found.names.insert(word);
    }
  }
  return found;
}

}  // namespace vnjs::host
