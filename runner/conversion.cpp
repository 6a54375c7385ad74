#include "runner/conversion.h"

#include <vnjs/value.h>

#include <algorithm>
#include <utility>

#include "bridge/native.h"
#include "bridge/stack_limit.h"
#include "runner/function_handle.h"
#include "runner/payload.h"
#include "runner/wire.h"

namespace vnjs {

using detail::ArrayPayload;
using detail::BigIntPayload;
using detail::FunctionPayload;
using detail::ObjectPayload;
using detail::TextPayload;
using detail::ValueAccess;

namespace {

constexpr char kTooDeep[] = "it is nested too deeply";

template <typename T>
v8::Local<T> Checked(v8::MaybeLocal<T> value) {
  v8::Local<T> result;
  if (!value.ToLocal(&result)) throw PendingException();
  return result;
}

/// Adds the place of a part to what is refused of it.
template <typename Function, typename Place>
auto AtPlace(const Function& function, const Place& place) {
  try {
    return function();
  } catch (Refusal& refusal) {
    refusal.path.insert(0, place());
    throw;
  }
}

std::string IndexText(size_t index) { return '[' + std::to_string(index) + ']'; }

/// What has contents that neither its members nor JSON show; null for all other objects.
const char* OpaqueKind(v8::Local<v8::Value> value) {
  if (value->IsPromise()) return "a promise";
  if (value->IsMap()) return "a Map";
  if (value->IsSet()) return "a Set";
  if (value->IsRegExp()) return "a regular expression";
  if (value->IsWeakMap()) return "a WeakMap";
  if (value->IsWeakSet()) return "a WeakSet";
  if (value->IsSymbolObject()) return "a symbol";
  return nullptr;
}

/// As `Array.isArray` has it.
bool IsArray(v8::Local<v8::Value> value) {
  while (value->IsProxy()) value = value.As<v8::Proxy>()->GetTarget();
  return value->IsArray();
}

}  // namespace

bool Conversion::Prepare(v8::Local<v8::Context> context) {
  v8::Local<v8::Value> constructor;
  v8::Local<v8::Value> keys;
  if (!context->Global()->Get(context, NewName(m_isolate, "Object")).ToLocal(&constructor) ||
      !constructor.As<v8::Object>()->Get(context, NewName(m_isolate, "keys")).ToLocal(&keys)) {
    return false;
  }
  m_objectKeys.Reset(m_isolate, keys.As<v8::Function>());
  return true;
}

const char* DescribeScriptValue(v8::Local<v8::Value> value) {
  if (value->IsSymbol()) return "a symbol";
  if (const char* const kind = OpaqueKind(value)) return kind;
  Value::Type type = Value::Type::kObject;
  if (value->IsUndefined()) type = Value::Type::kUndefined;
  if (value->IsNull()) type = Value::Type::kNull;
  if (value->IsBoolean()) type = Value::Type::kBoolean;
  if (value->IsNumber()) type = Value::Type::kNumber;
  if (value->IsBigInt()) type = Value::Type::kBigInt;
  if (value->IsString()) type = Value::Type::kString;
  if (value->IsFunction()) type = Value::Type::kFunction;
  if (IsArray(value)) type = Value::Type::kArray;
  return DescribeType(type);
}

std::string Conversion::ReadText(v8::Local<v8::String> text) const {
  const auto length = static_cast<size_t>(text->Length());
  // In bytes it can be three times as long.
  const auto require = [this](size_t bytes) {
    if (bytes > m_mostBytes)
      throw Refusal{{}, "a text is larger than all that buffers may take (bufferBytes)"};
  };
  require(length);
  std::string result;
  if (!text->IsOneByte()) {
    const auto bytes = static_cast<size_t>(text->Utf8Length(m_isolate));
    require(bytes);
    result.resize(bytes);
    text->WriteUtf8(m_isolate, result.data(), static_cast<int>(bytes), nullptr,
                    v8::String::NO_NULL_TERMINATION | v8::String::HINT_MANY_WRITES_EXPECTED);
    return result;
  }
  result.resize(length);
  text->WriteOneByte(m_isolate, reinterpret_cast<uint8_t*>(result.data()), 0, static_cast<int>(length),
                     v8::String::NO_NULL_TERMINATION);
  if (IsAscii(result.data(), length)) return result;
  // Latin-1, whose upper half takes two bytes each. From behind, so that nothing is overwritten that is still needed.
  const auto wide = static_cast<size_t>(std::count_if(
      result.begin(), result.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }));
  require(length + wide);
  result.resize(length + wide);
  for (size_t from = length, to = length + wide; from != to;) {
    const auto c = static_cast<unsigned char>(result[--from]);
    result[--to] = static_cast<char>(c < 0x80 ? c : 0x80 | (c & 0x3F));
    if (c >= 0x80) result[--to] = static_cast<char>(0xC0 | c >> 6);
  }
  return result;
}

v8::Local<v8::String> Conversion::MakeText(std::string_view text, v8::NewStringType type) const {
  if (text.size() > static_cast<size_t>(v8::String::kMaxLength)) {
    throw Refusal{{}, "a text is too long for a script"};
  }
  const int size = static_cast<int>(text.size());
  v8::MaybeLocal<v8::String> made;
  switch (KindOf(text)) {
    case TextKind::kAscii:
      made = v8::String::NewFromOneByte(m_isolate, reinterpret_cast<const uint8_t*>(text.data()), type, size);
      break;
    case TextKind::kUtf8:
      made = v8::String::NewFromUtf8(m_isolate, text.data(), type, size);
      break;
    case TextKind::kWithSurrogates: {
      const std::u16string units = ToUtf16(text);
      made = v8::String::NewFromTwoByte(m_isolate, reinterpret_cast<const uint16_t*>(units.data()), type,
                                        static_cast<int>(units.size()));
      break;
    }
    case TextKind::kInvalid:
      throw Refusal{{}, "a text is not UTF-8"};
  }
  return Checked(made);
}

Value Conversion::ToHost(v8::Local<v8::Context> context, v8::Local<v8::Value> value) {
  const uint64_t bytes = std::exchange(m_bytes, 0);
  std::vector<v8::Local<v8::Object>> path;
  path.swap(m_path);
  struct Restore {
    ~Restore() {
      conversion->m_bytes = bytes;
      conversion->m_path.swap(path);
    }
    Conversion* conversion;
    uint64_t bytes;
    std::vector<v8::Local<v8::Object>>& path;
  };
  const Restore restore{this, bytes, path};
  return Read(context, value);
}

void Conversion::Count(uint64_t bytes) {
  m_bytes += bytes;
  if (m_bytes > m_mostBytes) throw Refusal{{}, "it is larger than all that buffers may take (bufferBytes)"};
}

Value Conversion::Read(v8::Local<v8::Context> context, v8::Local<v8::Value> value) {
  Count(sizeof(Value));
  if (value->IsString()) {
    Value text = vnjs::MakeText(ReadText(value.As<v8::String>()));
    Count(text.size());
    return text;
  }
  if (value->IsNumber()) return value.As<v8::Number>()->Value();
  if (value->IsUndefined()) return {};
  if (value->IsNull()) return nullptr;
  if (value->IsBoolean()) return value->IsTrue();
  if (value->IsObject()) return ReadObject(context, value.As<v8::Object>());
  if (value->IsBigInt()) {
    const auto number = value.As<v8::BigInt>();
    int count = number->WordCount();
    Count(static_cast<uint64_t>(count) * sizeof(uint64_t));
    std::vector<uint64_t> words(static_cast<size_t>(count));
    int isNegative = 0;
    number->ToWordsArray(&isNegative, &count, words.data());
    return MakeBigInt(isNegative != 0, std::move(words));
  }
  throw Refusal{{}, std::string(DescribeScriptValue(value)) + " cannot be given to the host"};
}

Value Conversion::ReadObject(v8::Local<v8::Context> context, v8::Local<v8::Object> object) {
  if (object->IsFunction()) return ReadFunction(object);
  if (object->IsArrayBufferView() || object->IsArrayBuffer() || object->IsSharedArrayBuffer())
    return ReadBytes(object);
  if (object->IsNumberObject()) return object.As<v8::NumberObject>()->ValueOf();
  if (object->IsStringObject()) return Read(context, object.As<v8::StringObject>()->ValueOf());
  if (object->IsBooleanObject()) return object.As<v8::BooleanObject>()->ValueOf();
  if (object->IsBigIntObject()) return Read(context, object.As<v8::BigIntObject>()->ValueOf());
  if (object->IsDate()) return Value::FromJson(ReadText(Checked(v8::JSON::Stringify(context, object))));
  if (const char* const kind = OpaqueKind(object)) {
    throw Refusal{{}, std::string(kind) + " cannot be given to the host"};
  }
  if (std::find(m_path.begin(), m_path.end(), object) != m_path.end())
    throw Refusal{{}, "it contains itself"};
  if (m_path.size() > kMostLevels || IsStackUsedUp()) throw Refusal{{}, kTooDeep};
  m_path.push_back(object);
  Value result = IsArray(object)           ? ReadArray(context, object)
                 : object->IsNativeError() ? ReadError(context, object)
                                           : ReadMembers(context, object, Value::Object());
  m_path.pop_back();
  return result;
}

Value Conversion::ReadMembers(v8::Local<v8::Context> context, v8::Local<v8::Object> object, Value result) {
  const v8::HandleScope scope(m_isolate);
  v8::Local<v8::Value> argument = object;
  const v8::Local<v8::Function> keys = m_objectKeys.Get(m_isolate);
  const auto names = Checked(keys->Call(context, v8::Undefined(m_isolate), 1, &argument)).As<v8::Array>();
  const uint32_t count = names->Length();
  auto& payload = ValueAccess::Get<ObjectPayload>(result);
  payload.members.reserve(payload.members.size() + count);
  for (uint32_t i = 0; i < count;) {
    // Handles of some members at a time: a scope for each would take a part of the time.
    constexpr uint32_t kAtOnce = 32;
    const v8::HandleScope memberScope(m_isolate);
    for (const uint32_t end = std::min(count, i + kAtOnce); i < end; ++i) {
      const v8::Local<v8::Value> key = Checked(names->Get(context, i));
      std::string name = ReadText(key.As<v8::String>());
      Count(sizeof(std::string) + name.size());
      const v8::Local<v8::Value> member = Checked(object->Get(context, key));
      Value value = AtPlace([&] { return Read(context, member); }, [&] { return '.' + name; });
      payload.Append(std::move(name), std::move(value));
    }
  }
  return result;
}

Value Conversion::ReadArray(v8::Local<v8::Context> context, v8::Local<v8::Object> array) {
  uint64_t length = 0;
  if (array->IsArray()) {
    length = array.As<v8::Array>()->Length();
  } else {
    const v8::Local<v8::Value> given = Checked(array->Get(context, NewName(m_isolate, "length")));
    int64_t number = 0;
    if (!given->IntegerValue(context).To(&number)) throw PendingException();
    length = static_cast<uint64_t>(std::clamp<int64_t>(number, 0, UINT32_MAX));
  }
  // Before there is room for them: a script makes millions of holes with one line.
  const uint64_t before = m_bytes;
  Count(length * sizeof(Value));
  m_bytes = before;
  auto payload = std::make_unique<ArrayPayload>();
  payload->elements.reserve(static_cast<size_t>(length));
  for (uint32_t i = 0; i < length; ++i) {
    const v8::HandleScope scope(m_isolate);
    const v8::Local<v8::Value> element = Checked(array->Get(context, i));
    payload->elements.push_back(
        AtPlace([&] { return Read(context, element); }, [i] { return IndexText(i); }));
  }
  return ValueAccess::Make(Value::Type::kArray, payload.release());
}

Value Conversion::ReadBytes(v8::Local<v8::Object> object) {
  std::string bytes;
  if (object->IsArrayBufferView()) {
    const auto view = object.As<v8::ArrayBufferView>();
    Count(view->ByteLength());
    bytes.resize(view->ByteLength());
    view->CopyContents(bytes.data(), bytes.size());
  } else {
    const std::shared_ptr<v8::BackingStore> store =
        object->IsArrayBuffer() ? object.As<v8::ArrayBuffer>()->GetBackingStore()
                                : object.As<v8::SharedArrayBuffer>()->GetBackingStore();
    Count(store->ByteLength());
    if (store->ByteLength() > 0) bytes.assign(static_cast<const char*>(store->Data()), store->ByteLength());
  }
  return ValueAccess::Make(Value::Type::kBytes, new TextPayload(std::move(bytes)));
}

Value Conversion::ReadError(v8::Local<v8::Context> context, v8::Local<v8::Object> error) {
  Value result = Value::Object();
  for (const char* const name : {"name", "message", "stack"}) {
    const v8::Local<v8::Value> member = Checked(error->Get(context, NewName(m_isolate, name)));
    if (member->IsString()) result.Set(name, Read(context, member));
  }
  // One of these may also be there as an ordinary member.
  const Value own = ReadMembers(context, error, Value::Object());
  for (const auto& [name, member] : ValueAccess::Get<ObjectPayload>(own).members) result.Set(name, member);
  return result;
}

Value Conversion::ReadFunction(v8::Local<v8::Object> function) {
  auto payload = std::make_unique<FunctionPayload>();
  payload->handle =
      std::make_shared<FunctionHandle>(m_core, m_environment, SafeValue::New(m_isolate, function));
  return ValueAccess::Make(Value::Type::kFunction, payload.release());
}

v8::Local<v8::Value> Conversion::ToScript(v8::Local<v8::Context> context, const Value& value) const {
  // The engine's own reader has to be worth making.
  constexpr size_t kMany = 8;
  std::string wire;
  const bool isLarge =
      (value.type() == Value::Type::kObject || value.type() == Value::Type::kArray) && value.size() >= kMany;
  if (!isLarge || !WriteWire(value, &wire)) return Make(context, value, 0);
  v8::ValueDeserializer reader(m_isolate, reinterpret_cast<const uint8_t*>(wire.data()), wire.size());
  if (!reader.ReadHeader(context).FromMaybe(false)) throw PendingException();
  return Checked(reader.ReadValue(context));
}

v8::Local<v8::Value> Conversion::Make(v8::Local<v8::Context> context, const Value& value, int level) const {
  switch (value.type()) {
    case Value::Type::kUndefined:
      break;
    case Value::Type::kNull:
      return v8::Null(m_isolate);
    case Value::Type::kBoolean:
      return v8::Boolean::New(m_isolate, ValueAccess::Number(value) != 0);
    case Value::Type::kNumber:
      return v8::Number::New(m_isolate, ValueAccess::Number(value));
    case Value::Type::kBigInt: {
      const auto& number = ValueAccess::Get<BigIntPayload>(value);
      return Checked(v8::BigInt::NewFromWords(context, number.isNegative ? 1 : 0,
                                              static_cast<int>(number.words.size()), number.words.data()));
    }
    case Value::Type::kString:
      return MakeText(ValueAccess::Get<TextPayload>(value).text);
    case Value::Type::kBytes:
      return MakeBytes(value);
    case Value::Type::kArray:
      return MakeArray(context, value, level);
    case Value::Type::kObject:
      return MakeObject(context, value, level);
    case Value::Type::kFunction: {
      const FunctionHandle& handle = *ValueAccess::Get<FunctionPayload>(value).handle;
      if (handle.environment() != m_environment) throw Refusal{{}, "a function belongs to another script"};
      return handle.function()->GetValue();
    }
  }
  return v8::Undefined(m_isolate);
}

v8::Local<v8::Value> Conversion::MakeObject(v8::Local<v8::Context> context, const Value& value,
                                            int level) const {
  if (level > kMostLevels || IsStackUsedUp()) throw Refusal{{}, kTooDeep};
  v8::EscapableHandleScope scope(m_isolate);
  const v8::Local<v8::Object> object = v8::Object::New(m_isolate);
  for (const auto& [name, member] : ValueAccess::Get<ObjectPayload>(value).members) {
    const v8::HandleScope memberScope(m_isolate);
    const auto add = [&, &name = name, &member = member] {
      const v8::Local<v8::String> key = MakeText(name, v8::NewStringType::kInternalized);
      return object->CreateDataProperty(context, key, Make(context, member, level + 1));
    };
    if (AtPlace(add, [&name = name] { return '.' + name; }).IsNothing()) throw PendingException();
  }
  return scope.Escape(object);
}

v8::Local<v8::Value> Conversion::MakeArray(v8::Local<v8::Context> context, const Value& value,
                                           int level) const {
  if (level > kMostLevels || IsStackUsedUp()) throw Refusal{{}, kTooDeep};
  v8::EscapableHandleScope scope(m_isolate);
  std::vector<v8::Local<v8::Value>> elements;
  elements.reserve(value.size());
  for (const Value& element : ValueAccess::Get<ArrayPayload>(value).elements) {
    elements.push_back(AtPlace([&] { return Make(context, element, level + 1); },
                               [&] { return IndexText(elements.size()); }));
  }
  return scope.Escape(v8::Array::New(m_isolate, elements.data(), elements.size()));
}

v8::Local<v8::Value> Conversion::MakeBytes(const Value& value) const {
  const std::string& bytes = ValueAccess::Get<TextPayload>(value).text;
  if (bytes.size() > v8::TypedArray::kMaxLength) throw Refusal{{}, "there are too many bytes for a script"};
  const v8::Local<v8::Value> buffer =
      ByteArray::toJS(m_isolate, reinterpret_cast<const unsigned char*>(bytes.data()),
                      static_cast<unsigned int>(bytes.size()));
  return v8::Uint8Array::New(buffer.As<v8::ArrayBuffer>(), 0, bytes.size());
}

}  // namespace vnjs
