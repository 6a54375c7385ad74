#include <vnjs/script_value.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "runner/function_handle.h"
#include "runner/payload.h"

namespace vnjs {

using detail::ArrayPayload;
using detail::BigIntPayload;
using detail::FunctionPayload;
using detail::ObjectPayload;
using detail::Payload;
using detail::TextPayload;
using detail::ValueAccess;

namespace {

/// Beyond, not every integer is a number of the engine's.
constexpr uint64_t kLargestInteger = uint64_t{1} << 53;

/// With more members than this, an object finds them by their places.
constexpr size_t kFewMembers = 32;

/// Never destroyed: hosts look at values as late as in the destructors of their statics.
const Value& Undefined() {
  static const auto* const undefined = new Value;
  return *undefined;
}

size_t HashOf(std::string_view name) { return std::hash<std::string_view>()(name); }

void GiveUpOne(Value& value, Payload** list) {
  Payload* const payload = ValueAccess::Strip(value);
  if (payload == nullptr || --payload->references > 0) return;
  payload->next = *list;
  *list = payload;
}

/// What was wanted of a value that is something else.
[[noreturn]] void ThrowWrongType(const Value& value, const char* expected) {
  detail::ThrowMismatch({{}, expected, DescribeType(value.type())});
}

std::string Range(const std::string& least, const std::string& most) {
  return "from " + least + " to " + most;
}

}  // namespace

void ArrayPayload::GiveUp(Payload** list) {
  for (Value& element : elements) GiveUpOne(element, list);
}

void ObjectPayload::GiveUp(Payload** list) {
  for (auto& [name, value] : members) GiveUpOne(value, list);
}

Value* ObjectPayload::Find(std::string_view name) {
  if (members.size() <= kFewMembers) {
    for (auto& [ours, value] : members) {
      if (ours == name) return &value;
    }
    return nullptr;
  }
  Places* known = places;
  if (known == nullptr) {
    auto made = std::make_unique<Places>(members.size());
    for (size_t place = 0; place < members.size(); ++place)
      made->emplace(HashOf(members[place].first), place);
    // Another thread may have been faster.
    if (places.compare_exchange_strong(known, made.get())) known = made.release();
  }
  const auto [first, last] = known->equal_range(HashOf(name));
  const auto found =
      std::find_if(first, last, [&](const auto& entry) { return members[entry.second].first == name; });
  return found == last ? nullptr : &members[found->second].second;
}

void ObjectPayload::Append(std::string name, Value value) {
  if (Places* const known = places) known->emplace(HashOf(name), members.size());
  members.emplace_back(std::move(name), std::move(value));
}

void Value::Retain(Payload* payload) noexcept { ++payload->references; }

/// One after the other: values may be nested deeper than the stack is.
void Value::Release(Payload* payload) noexcept {
  if (--payload->references > 0) return;
  while (payload != nullptr) {
    Payload* rest = payload->next;
    payload->GiveUp(&rest);
    delete payload;
    payload = rest;
  }
}

Value::Value(const char* text) : m_number(0) { *this = text == nullptr ? Value(nullptr) : MakeText(text); }
Value::Value(std::string text) : m_number(0) { *this = MakeText(std::move(text)); }
Value::Value(std::string_view text) : m_number(0) { *this = MakeText(std::string(text)); }

void Value::SetInteger(int64_t value) {
  if (value >= 0) return SetInteger(static_cast<uint64_t>(value));
  const uint64_t absolute = 0 - static_cast<uint64_t>(value);
  if (absolute <= kLargestInteger) {
    m_number = static_cast<double>(value);
  } else {
    *this = MakeBigInt(true, {absolute});
  }
}

void Value::SetInteger(uint64_t value) {
  if (value <= kLargestInteger) {
    m_number = static_cast<double>(value);
  } else {
    *this = MakeBigInt(false, {value});
  }
}

void Value::SetReal(long double value) {
  m_number = static_cast<double>(value);
  if (m_number != value && !std::isnan(value)) ThrowHostError("a number has more digits than scripts know");
}

Value MakeBigInt(bool isNegative, std::vector<uint64_t> words) {
  while (!words.empty() && words.back() == 0) words.pop_back();
  auto payload = std::make_unique<BigIntPayload>();
  payload->isNegative = isNegative && !words.empty();
  payload->words = std::move(words);
  return ValueAccess::Make(Value::Type::kBigInt, payload.release());
}

Value Value::Bytes(const void* data, size_t size) {
  return ValueAccess::Make(Type::kBytes, new TextPayload(std::string(static_cast<const char*>(data), size)));
}

Value Value::Array() { return ValueAccess::Make(Type::kArray, new ArrayPayload); }
Value Value::Object() { return ValueAccess::Make(Type::kObject, new ObjectPayload); }

size_t Value::size() const {
  switch (m_type) {
    case Type::kString:
    case Type::kBytes:
      return ValueAccess::Get<TextPayload>(*this).text.size();
    case Type::kArray:
      return ValueAccess::Get<ArrayPayload>(*this).elements.size();
    case Type::kObject:
      return ValueAccess::Get<ObjectPayload>(*this).members.size();
    default:
      return 0;
  }
}

const Value& Value::operator[](size_t index) const {
  return m_type == Type::kArray && index < size() ? ValueAccess::Get<ArrayPayload>(*this).elements[index]
                                                  : Undefined();
}

const Value& Value::operator[](const std::string& name) const {
  const Value* const found =
      m_type == Type::kObject ? ValueAccess::Get<ObjectPayload>(*this).Find(name) : nullptr;
  return found == nullptr ? Undefined() : *found;
}

Value& Value::Set(std::string name, Value value) {
  if (m_type == Type::kUndefined) *this = Object();
  if (m_type != Type::kObject) ThrowWrongType(*this, "an object");
  auto& object = ValueAccess::Own<ObjectPayload>(*this);
  if (Value* const found = object.Find(name)) {
    *found = std::move(value);
  } else {
    object.Append(std::move(name), std::move(value));
  }
  return *this;
}

Value& Value::Add(Value value) {
  if (m_type == Type::kUndefined) *this = Array();
  if (m_type != Type::kArray) ThrowWrongType(*this, "an array");
  ValueAccess::Own<ArrayPayload>(*this).elements.push_back(std::move(value));
  return *this;
}

std::vector<std::string> Value::Names() const {
  std::vector<std::string> names;
  if (m_type != Type::kObject) return names;
  names.reserve(size());
  for (const auto& [name, value] : ValueAccess::Get<ObjectPayload>(*this).members) names.push_back(name);
  return names;
}

std::string Value::Get(const char* otherwise) const {
  return m_type == Type::kString ? ValueAccess::Get<TextPayload>(*this).text : otherwise;
}

bool Value::PostCall(Value* arguments, size_t count) const {
  if (m_type != Type::kFunction) return false;
  return ValueAccess::Get<FunctionPayload>(*this).handle->Post(arguments, count);
}

const char* DescribeType(Value::Type type) {
  constexpr const char* kNames[] = {"undefined", "null",  "a boolean", "a number",  "a big integer",
                                    "a string",  "bytes", "an array",  "an object", "a function"};
  return kNames[static_cast<size_t>(type)];
}

void ThrowHostError(std::string message) { throw ScriptError{ErrorKind::kHost, std::move(message), {}, {}}; }

namespace detail {

bool ToBoolean(const Value& value) {
  if (value.type() != Value::Type::kBoolean) Refuse(value, "a boolean");
  return ValueAccess::Number(value) != 0;
}

double ToNumber(const Value& value) {
  if (value.type() != Value::Type::kNumber) Refuse(value, "a number");
  return ValueAccess::Number(value);
}

float ToFloat(const Value& value) {
  const double number = ToNumber(value);
  constexpr double kMost = std::numeric_limits<float>::max();
  if (std::isfinite(number) && std::abs(number) > kMost) {
    throw Mismatch{{}, Range(NumberText(-kMost), NumberText(kMost)), NumberText(number)};
  }
  return static_cast<float>(number);
}

namespace {

/// The integer that a value is, as its sign and its absolute value. False when it is larger than any of 64 bits.
bool ReadInteger(const Value& value, bool* isNegative, uint64_t* absolute) {
  if (value.type() == Value::Type::kBigInt) {
    const auto& number = ValueAccess::Get<BigIntPayload>(value);
    *isNegative = number.isNegative;
    *absolute = number.words.empty() ? 0 : number.words[0];
    return number.words.size() <= 1;
  }
  if (value.type() != Value::Type::kNumber) Refuse(value, "an integer");
  const double number = ValueAccess::Number(value);
  if (std::trunc(number) != number || std::isinf(number))
    throw Mismatch{{}, "an integer", NumberText(number)};
  *isNegative = number < 0;
  constexpr double kTooLarge = 18446744073709551616.0;
  if (std::abs(number) >= kTooLarge) return false;
  *absolute = static_cast<uint64_t>(std::abs(number));
  return true;
}

std::string TextOf(const Value& value) {
  if (value.type() == Value::Type::kNumber) return NumberText(ValueAccess::Number(value));
  return ValueAccess::Get<BigIntPayload>(value).words.size() > 4 ? DescribeType(value.type()) : value.Json();
}

}  // namespace

int64_t ToSigned(const Value& value, int64_t least, int64_t most) {
  bool isNegative = false;
  uint64_t absolute = 0;
  const bool fits = ReadInteger(value, &isNegative, &absolute);
  // That of the least one is one more than that of the most.
  const uint64_t limit = isNegative ? 0 - static_cast<uint64_t>(least) : static_cast<uint64_t>(most);
  if (!fits || absolute > limit) {
    throw Mismatch{{}, Range(std::to_string(least), std::to_string(most)), TextOf(value)};
  }
  return static_cast<int64_t>(isNegative ? 0 - absolute : absolute);
}

uint64_t ToUnsigned(const Value& value, uint64_t most) {
  bool isNegative = false;
  uint64_t absolute = 0;
  const bool fits = ReadInteger(value, &isNegative, &absolute);
  if (!fits || isNegative || absolute > most)
    throw Mismatch{{}, Range("0", std::to_string(most)), TextOf(value)};
  return absolute;
}

const std::string& ToText(const Value& value) {
  if (value.type() != Value::Type::kString) Refuse(value, "a string");
  return ValueAccess::Get<TextPayload>(value).text;
}

const unsigned char* ToBytes(const Value& value) {
  if (value.type() != Value::Type::kBytes) Refuse(value, "bytes");
  return reinterpret_cast<const unsigned char*>(ValueAccess::Get<TextPayload>(value).text.data());
}

void Refuse(const Value& value, const char* expected) {
  throw Mismatch{{}, expected, DescribeType(value.type())};
}

void ThrowMismatch(const Mismatch& mismatch) {
  const std::string place = mismatch.path.empty() ? "" : mismatch.path + ": ";
  ThrowHostError(place + mismatch.got + " is not " + mismatch.expected);
}

}  // namespace detail

}  // namespace vnjs
