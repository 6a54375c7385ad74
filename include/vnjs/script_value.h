#pragma once

#include <vnjs/export.h>
#include <vnjs/script_error.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vnjs {

namespace detail {
struct Payload;
struct ValueAccess;
}  // namespace detail

/// A copy of a script value, without ties to the engine.
///
/// Copies:   cheap. What is large is shared, and copied by whoever changes it.
/// Threads:  any; one object belongs to one thread at a time, as with a std::string. Copies are independent.
/// Text:     is UTF-8. A lone surrogate of a script's string stands as the three bytes that UTF-8 would have for it; text
///           that is neither is refused where it would go to a script or into JSON.
/// Numbers:  integers beyond 2^53, which a script's number cannot tell apart, are big integers.
/// Nesting:  1,000 levels of arrays and objects go to scripts, to JSON and back; deeper ones are refused.
/// Failures: ScriptError, kind kHost where nothing else is said.
class VNJS_API Value {
 public:
  /// What a value is. Numbers that are whole and fit are kNumber, whatever they were made of.
  enum class Type {
    kUndefined,
    kNull,
    kBoolean,
    kNumber,
    kBigInt,
    kString,
    kBytes,
    kArray,
    kObject,
    kFunction
  };

  /// @{ Undefined, null, and copies of what is given. A null `const char*` is null.
  Value() noexcept : m_number(0) {}
  Value(std::nullptr_t) noexcept : m_type(Type::kNull), m_number(0) {}  // NOLINT(google-explicit-constructor)
  template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
  Value(T value);                // NOLINT(google-explicit-constructor)
  Value(const char* text);       // NOLINT(google-explicit-constructor)
  Value(std::string text);       // NOLINT(google-explicit-constructor)
  Value(std::string_view text);  // NOLINT(google-explicit-constructor)
  /// @}

  /// @{ A copy shares what the other has, until one of them is changed.
  Value(const Value& other) noexcept : m_type(other.m_type), m_number(0) { Share(other); }
  Value(Value&& other) noexcept : m_type(other.m_type), m_number(0) { Take(other); }
  Value& operator=(const Value& other) noexcept { return *this = Value(other); }
  Value& operator=(Value&& other) noexcept {
    if (this == &other) return *this;
    if (HasPayload()) Release(m_payload);
    m_type = other.m_type;
    Take(other);
    return *this;
  }
  /// @}
  ~Value() {
    if (HasPayload()) Release(m_payload);
  }

  /// Parses a text. An integer that a number cannot hold is a big integer; any other number beyond the largest is refused.
  /// Throws kSyntax with line and column.
  static Value FromJson(const std::string& text);

  /// A copy of the bytes; scripts see a Uint8Array.
  static Value Bytes(const void* data, size_t size);

  /// @{ Empty ones.
  static Value Array();
  static Value Object();
  /// @}

  /// What it is.
  Type type() const { return m_type; }

  /// How many elements, members or bytes an array, an object, a string or bytes have; 0 for all else.
  size_t size() const;

  /// @{ An element, a member; undefined when there is none, or no array or object to have it.
  const Value& operator[](size_t index) const;
  const Value& operator[](const std::string& name) const;
  /// @}

  /// @{ Makes undefined an object or an array first. Returns this value. Throws when it is something else already.
  Value& Set(std::string name, Value value);
  Value& Add(Value value);
  /// @}

  /// Of an object's members, in their order; empty for all else.
  std::vector<std::string> Names() const;

  /// The value as a `bool`, a number, a std::string, a std::vector, a std::map or std::optional of them, a Value, or a struct
  /// of the host's (see Convert). Nothing is rounded or cut: throws "a string is not a number", "300 is not from -128 to
  /// 127". `const std::string&` is the text of a string without a copy, and `std::vector<unsigned char>` also takes bytes.
  template <typename T>
  T As() const;

  /// @{ The same, or `otherwise` where As would throw.
  template <typename T>
  T Get(T otherwise) const;
  std::string Get(const char* otherwise) const;
  /// @}

  /// As `JSON.stringify` has it: empty for undefined and functions; members that are one are left out, elements are null, as
  /// are NaN and the infinities. Beyond that, big integers are their digits, bytes an array of numbers, and -0 stays.
  std::string Json() const;

  /// Of a function: queues a call with these arguments on the runner that it comes from. False, and no call, when it is no
  /// function, none can come any more, or the runner's queue is full. Any thread; never waits for a script.
  template <typename... Arguments>
  bool Post(Arguments&&... arguments) const;

 private:
  friend struct detail::ValueAccess;

  bool HasPayload() const { return m_type >= Type::kBigInt; }
  void Share(const Value& other) noexcept {
    if (HasPayload()) {
      m_payload = other.m_payload;
      Retain(m_payload);
    } else {
      m_number = other.m_number;
    }
  }
  void Take(Value& other) noexcept {
    if (HasPayload()) {
      m_payload = other.m_payload;
      other.m_type = Type::kUndefined;
    } else {
      m_number = other.m_number;
    }
  }
  static void Retain(detail::Payload* payload) noexcept;
  static void Release(detail::Payload* payload) noexcept;

  void SetInteger(int64_t value);
  void SetInteger(uint64_t value);
  void SetReal(long double value);
  bool PostCall(Value* arguments, size_t count) const;

  Type m_type = Type::kUndefined;
  union {
    /// A boolean is 0 or 1.
    double m_number;
    detail::Payload* m_payload;
  };
};

template <typename T, std::enable_if_t<std::is_arithmetic_v<T>, int>>
Value::Value(T value) : m_type(Type::kNumber), m_number(0) {
  if constexpr (std::is_same_v<T, bool>) {
    m_type = Type::kBoolean;
    m_number = value ? 1 : 0;
  } else if constexpr (sizeof(T) < sizeof(int64_t) || std::is_same_v<T, double>) {
    m_number = static_cast<double>(value);
  } else if constexpr (std::is_floating_point_v<T>) {
    SetReal(value);
  } else if constexpr (std::is_signed_v<T>) {
    SetInteger(static_cast<int64_t>(value));
  } else {
    SetInteger(static_cast<uint64_t>(value));
  }
}

}  // namespace vnjs

#include <vnjs/convert.h>
