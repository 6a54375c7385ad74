#pragma once

#include <vnjs/export.h>
#include <vnjs/script_value.h>

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vnjs {

/// How a struct of the host's becomes a Value and comes back, for all that takes or gives one: natives, Emit, As.
/// Specialise it where the struct is known:
///
///     template <>
///     struct vnjs::Convert<Room> {
///       static vnjs::Value To(const Room& room) { return vnjs::Value::Object().Set("name", room.name); }
///       static Room From(const vnjs::Value& value) { return {value["name"].As<std::string>()}; }
///     };
template <typename T>
struct Convert;

namespace detail {

/// A value of another type than wanted, on its way to where it can be told.
struct VNJS_API Mismatch {
  std::string path;      ///< "[2].name", from the value that was asked for.
  std::string expected;  ///< "a number".
  std::string got;       ///< "a string".
};

/// @{ Throw Mismatch.
VNJS_API bool ToBoolean(const Value& value);
VNJS_API double ToNumber(const Value& value);
VNJS_API float ToFloat(const Value& value);
VNJS_API int64_t ToSigned(const Value& value, int64_t least, int64_t most);
VNJS_API uint64_t ToUnsigned(const Value& value, uint64_t most);
VNJS_API const std::string& ToText(const Value& value);
VNJS_API const unsigned char* ToBytes(const Value& value);
[[noreturn]] VNJS_API void Refuse(const Value& value, const char* expected);
/// @}

/// Throws what a mismatch means for a caller that is no script.
[[noreturn]] VNJS_API void ThrowMismatch(const Mismatch& mismatch);

template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};
template <typename T>
struct IsMap : std::false_type {};
template <typename T>
struct IsMap<std::map<std::string, T>> : std::true_type {};
template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};

template <typename T>
T FromValue(const Value& value);

/// An element or a member, whose place a mismatch tells.
template <typename T, typename Place>
T FromPart(const Value& value, const Place& place) {
  try {
    return FromValue<T>(value);
  } catch (Mismatch& mismatch) {
    mismatch.path.insert(0, place());
    throw;
  }
}

template <typename T>
T FromValue(const Value& value) {
  if constexpr (std::is_same_v<T, Value>) {
    return value;
  } else if constexpr (std::is_same_v<T, bool>) {
    return ToBoolean(value);
  } else if constexpr (std::is_same_v<T, float>) {
    return ToFloat(value);
  } else if constexpr (std::is_floating_point_v<T>) {
    return ToNumber(value);
  } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
    return static_cast<T>(ToSigned(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(ToUnsigned(value, std::numeric_limits<T>::max()));
  } else if constexpr (std::is_same_v<std::remove_cv_t<std::remove_reference_t<T>>, std::string>) {
    return ToText(value);
  } else if constexpr (IsOptional<T>::value) {
    if (value.type() == Value::Type::kUndefined || value.type() == Value::Type::kNull) return std::nullopt;
    return FromValue<typename T::value_type>(value);
  } else if constexpr (IsVector<T>::value) {
    using Element = typename T::value_type;
    if constexpr (std::is_same_v<Element, unsigned char>) {
      if (value.type() == Value::Type::kBytes) return T(ToBytes(value), ToBytes(value) + value.size());
    }
    if (value.type() != Value::Type::kArray) Refuse(value, "an array");
    T result;
    result.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
      result.push_back(FromPart<Element>(value[i], [i] { return '[' + std::to_string(i) + ']'; }));
    }
    return result;
  } else if constexpr (IsMap<T>::value) {
    if (value.type() != Value::Type::kObject) Refuse(value, "an object");
    T result;
    for (std::string& name : value.Names()) {
      auto member = FromPart<typename T::mapped_type>(value[name], [&name] { return '.' + name; });
      result.emplace(std::move(name), std::move(member));
    }
    return result;
  } else {
    return Convert<T>::From(value);
  }
}

template <typename Given>
Value ToValue(Given&& given) {
  using T = std::decay_t<Given>;
  if constexpr (IsOptional<T>::value) {
    return given ? ToValue(*std::forward<Given>(given)) : Value();
  } else if constexpr (IsVector<T>::value) {
    Value result = Value::Array();
    for (auto&& element : given) result.Add(ToValue(static_cast<const typename T::value_type&>(element)));
    return result;
  } else if constexpr (IsMap<T>::value) {
    Value result = Value::Object();
    for (const auto& [name, member] : given) result.Set(name, ToValue(member));
    return result;
  } else if constexpr (std::is_convertible_v<Given, Value>) {
    return std::forward<Given>(given);
  } else {
    return Convert<T>::To(given);
  }
}

}  // namespace detail

template <typename T>
T Value::As() const {
  try {
    return detail::FromValue<T>(*this);
  } catch (const detail::Mismatch& mismatch) {
    detail::ThrowMismatch(mismatch);
  }
}

template <typename T>
T Value::Get(T otherwise) const {
  try {
    return detail::FromValue<T>(*this);
  } catch (const detail::Mismatch&) {
    return otherwise;
  } catch (const ScriptError&) {
    return otherwise;
  }
}

template <typename... Arguments>
bool Value::Post(Arguments&&... arguments) const {
  std::array<Value, sizeof...(Arguments)> values{detail::ToValue(std::forward<Arguments>(arguments))...};
  return PostCall(values.data(), values.size());
}

}  // namespace vnjs
