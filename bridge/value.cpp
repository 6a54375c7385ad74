#include <vnjs/host.h>
#include <vnjs/value.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "bridge/memory_budget.h"
#include "bridge/native.h"
#include "bridge/stack_limit.h"

namespace vnjs {

NativeString::NativeString(v8::Local<v8::Value> value) {
  const std::string text = GetString(value);
  if (!text.empty()) m_str = static_cast<char*>(_vassert(strdup(text.c_str()), "strdup"));
}

NativeString::NativeString(const NativeString& other) { *this = other; }

NativeString::~NativeString() { free(m_str); }

NativeString& NativeString::operator=(const NativeString& other) {
  if (this == &other) return *this;
  free(m_str);
  m_str = other.m_str == nullptr ? nullptr : static_cast<char*>(_vassert(strdup(other.m_str), "strdup"));
  return *this;
}

size_t NativeString::length() const { return m_str == nullptr ? 0 : strlen(m_str); }

namespace {

/// Reads a string of plain characters in one copy, up to its first NUL. False for every other string.
bool ReadAscii(v8::Isolate* isolate, v8::Local<v8::String> text, std::string* result) {
  if (!text->IsOneByte()) return false;
  result->resize(static_cast<size_t>(text->Length()));
  text->WriteOneByte(isolate, reinterpret_cast<uint8_t*>(result->data()), 0, text->Length(),
                     v8::String::NO_NULL_TERMINATION);
  unsigned char all = 0;
  for (const char c : *result) all |= static_cast<unsigned char>(c);
  if (all >= 0x80) return false;
  const size_t end = result->find('\0');
  if (end != std::string::npos) result->resize(end);
  return true;
}

}  // namespace

std::string GetString(v8::Local<v8::Value> value) {
  if (value.IsEmpty() || value->IsNullOrUndefined()) return {};
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  std::string ascii;
  if (value->IsString() && ReadAscii(isolate, value.As<v8::String>(), &ascii)) return ascii;
  const ConversionContext context(isolate);
  if (context.IsEmpty() && !value->IsString()) return {};
  // Catches what the conversion throws, a script's own toString included.
  const v8::String::Utf8Value text(isolate, value);
  if (text.length() == 0) return {};
  return *text;
}

std::string GetText(v8::Local<v8::Value> value) {
  if (value.IsEmpty() || value->IsNullOrUndefined()) return {};
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  const v8::TryCatch caught(isolate);
  v8::Local<v8::String> text;
  if (!value->ToString(isolate->GetCurrentContext()).ToLocal(&text)) return {};
  const auto require = [isolate](size_t size) {
    constexpr size_t kFew = 1 << 20;
    if (size > kFew && size > GetMemoryBudget(GetEnvironment(isolate))->limit()) throw std::bad_alloc();
  };
  require(static_cast<size_t>(text->Length()));
  std::string result = GetString(text);
  // In bytes it may be three times as long. An object that was stored so could not be loaded again.
  require(result.size());
  return result;
}

bool GetBoolean(v8::Local<v8::Value> value, bool defaultValue) {
  if (value.IsEmpty() || value->IsNullOrUndefined()) return defaultValue;
  v8::Isolate* const isolate = v8::Isolate::GetCurrent();
  if (value->IsBoolean() || value->IsBooleanObject()) return value->BooleanValue(isolate);
  if (value->IsNumber() || value->IsNumberObject()) {
    const v8::TryCatch caught(isolate);
    const ConversionContext context(isolate);
    double number = 0;
    if (context.IsEmpty() || !value->NumberValue(context.get()).To(&number)) return defaultValue;
    return number != 0.0;
  }
  return defaultValue;
}

v8::Local<v8::Value> GetRealValue(v8::Isolate* isolate, v8::Local<v8::Object> object,
                                  v8::Local<v8::String> property) {
  if (object.IsEmpty() || object->IsNullOrUndefined()) {
    return ThrowException(isolate, "Invalid object argument to GetRealValue");
  }
  if (property.IsEmpty() || property->IsNullOrUndefined()) {
    return ThrowException(isolate, "Invalid prop argument to GetRealValue");
  }
  // An object whose prototype has an interceptor, too, comes back here, and so on along the chain.
  if (IsStackUsedUp()) {
    const v8::Local<v8::String> message = NewName(isolate, "Maximum call stack size exceeded");
    return isolate->ThrowException(v8::Exception::RangeError(message));
  }
  const ConversionContext conversion(isolate);
  const v8::Local<v8::Context> context = conversion.get();
  if (context.IsEmpty()) return {};
  v8::Local<v8::Value> value;
  const v8::Local<v8::Value> prototype = object->GetPrototype();
  if (!prototype.IsEmpty() && prototype->IsObject()) {
    if (!prototype.As<v8::Object>()->Get(context, property).ToLocal(&value)) return {};
    if (!value->IsUndefined()) return value;
  }
  if (!object->HasRealNamedProperty(context, property).FromMaybe(false)) return {};
  return object->GetRealNamedProperty(context, property).FromMaybe(v8::Local<v8::Value>());
}

v8::Local<v8::Value> ThrowException(v8::Isolate* isolate, const char* message) {
  // An exception in its place would let the script catch its own termination and go on.
  if (isolate->IsExecutionTerminating()) return v8::Undefined(isolate);
  const ConversionContext context(isolate);
  if (context.IsEmpty()) return v8::Undefined(isolate);
  return isolate->ThrowException(v8::Exception::Error(NewName(isolate, message)));
}

v8::Local<v8::Value> ThrowException(v8::Isolate* isolate, const std::string& message) {
  return ThrowException(isolate, message.c_str());
}

v8::MaybeLocal<v8::String> NewString(v8::Isolate* isolate, std::string_view text) {
  v8::Local<v8::String> result;
  if (text.size() > static_cast<size_t>(v8::String::kMaxLength) ||
      !v8::String::NewFromUtf8(isolate, text.data(), v8::NewStringType::kNormal,
                               static_cast<int>(text.size()))
           .ToLocal(&result)) {
    isolate->ThrowException(v8::Exception::RangeError(NewName(isolate, "Text is too long for a string")));
    return {};
  }
  return result;
}

v8::Local<v8::String> NewName(v8::Isolate* isolate, const char* text) {
  return v8::String::NewFromUtf8(isolate, text).FromMaybe(v8::String::Empty(isolate));
}

void NameClass(v8::Isolate* isolate, v8::Local<v8::FunctionTemplate> function, const char* name) {
  function->SetClassName(NewName(isolate, name));
  function->PrototypeTemplate()->Set(v8::Symbol::GetToStringTag(isolate), NewName(isolate, name),
                                     static_cast<v8::PropertyAttribute>(v8::ReadOnly | v8::DontEnum));
}

bool SetProperty(v8::Local<v8::Context> context, v8::Local<v8::Object> object, const char* name,
                 v8::Local<v8::Value> value) {
  return object->CreateDataProperty(context, NewName(context->GetIsolate(), name), value).FromMaybe(false);
}

}  // namespace vnjs
