#pragma once

#include <vnjs/script_value.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runner/text.h"

namespace vnjs {

class FunctionHandle;

namespace detail {

/// What of a Value is shared by its copies.
struct Payload {
  Payload() = default;
  Payload(const Payload&) {}
  Payload& operator=(const Payload&) = delete;
  virtual ~Payload() = default;

  /// It goes: adds those payloads that nobody else holds to a list.
  virtual void GiveUp(Payload** list) {}

  std::atomic<uint32_t> references{1};
  Payload* next = nullptr;
};

/// Of a string, and of bytes.
struct TextPayload : Payload {
  explicit TextPayload(std::string given) : text(std::move(given)) {}
  std::string text;
};

struct ArrayPayload : Payload {
  void GiveUp(Payload** list) override;
  std::vector<Value> elements;
};

/// Members in their order, and where to find them by name once they are many.
struct ObjectPayload : Payload {
  using Places = std::unordered_multimap<size_t, size_t>;

  ObjectPayload() = default;
  ObjectPayload(const ObjectPayload& other) : Payload(other), members(other.members) {}
  ~ObjectPayload() override { delete places.load(); }
  ObjectPayload& operator=(const ObjectPayload&) = delete;
  void GiveUp(Payload** list) override;

  Value* Find(std::string_view name);

  /// For a name that it does not have.
  void Append(std::string name, Value value);

  std::vector<std::pair<std::string, Value>> members;

  /// Made by whoever looks first: most objects are gone through and never looked up in.
  std::atomic<Places*> places{nullptr};
};

/// Its absolute value in words of 64 bits, the lowest first.
struct BigIntPayload : Payload {
  bool isNegative = false;
  std::vector<uint64_t> words;
};

struct FunctionPayload : Payload {
  std::shared_ptr<FunctionHandle> handle;
};

/// The inside of a Value, for those who make and read them.
struct ValueAccess {
  /// Takes the payload over, which belongs to nobody yet.
  static Value Make(Value::Type type, Payload* payload) {
    Value result;
    result.m_type = type;
    result.m_payload = payload;
    return result;
  }
  template <typename P>
  static P& Get(const Value& value) {
    return *static_cast<P*>(value.m_payload);
  }
  static double Number(const Value& value) { return value.m_number; }

  /// A payload that nobody else sees.
  template <typename P>
  static P& Own(Value& value) {
    if (value.m_payload->references != 1) value = Make(value.m_type, new P(Get<P>(value)));
    return Get<P>(value);
  }

  /// Gives the payload away; null when it has none.
  static Payload* Strip(Value& value) {
    if (!value.HasPayload()) return nullptr;
    value.m_type = Value::Type::kUndefined;
    return value.m_payload;
  }
};

}  // namespace detail

inline Value MakeText(std::string text) {
  return detail::ValueAccess::Make(Value::Type::kString, new detail::TextPayload(std::move(text)));
}

/// Levels of arrays and objects that are followed. It takes some hundred bytes of the stack for each.
constexpr int kMostLevels = 1000;

/// "a string", and so on.
const char* DescribeType(Value::Type type);

/// A big integer of these words; without leading zeros, and zero without a sign.
Value MakeBigInt(bool isNegative, std::vector<uint64_t> words);

/// A number as scripts show it.
std::string NumberText(double number);

[[noreturn]] void ThrowHostError(std::string message);

}  // namespace vnjs
