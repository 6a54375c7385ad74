#pragma once

#include <vnjs/convert.h>
#include <vnjs/export.h>
#include <vnjs/promise.h>
#include <vnjs/script_value.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

/// What Runner::Define makes of a callable: nothing here is called by hosts themselves.
namespace vnjs::detail {

/// One call of a native by a script. On the runner's thread, for as long as the native runs.
///
/// Failures: each operation throws what is wrong with the argument, which becomes the script's error.
class VNJS_API NativeCall {
 public:
  NativeCall(const NativeCall&) = delete;
  NativeCall& operator=(const NativeCall&) = delete;

  size_t size() const { return m_size; }
  [[noreturn]] void RefuseMissing(size_t index) const;
  [[noreturn]] void RefuseArgument(size_t index, const Mismatch& mismatch) const;
  [[noreturn]] void RefuseArgument(size_t index, const ScriptError& error) const;

  /// Whether it was not given, or as undefined or null.
  bool IsNothing(size_t index) const;

  /// @{ An argument, as what the native takes.
  bool Boolean(size_t index) const;
  double Number(size_t index) const;
  int64_t Signed(size_t index, int64_t least, int64_t most) const;
  std::string Text(size_t index) const;
  Value Get(size_t index) const;
  /// @}

  /// @{ The result; undefined when none of these is called.
  void Return(bool result);
  void Return(double result);
  void Return(const std::string& result);
  void Return(const Value& result);
  void Return(const Promise& result);
  /// @}

 protected:
  NativeCall(size_t size, const void* info) : m_size(size), m_info(info) {}

  const size_t m_size;
  const void* const m_info;
};

/// A callable of the host's, behind its types.
class VNJS_API NativeFunction {
 public:
  NativeFunction() = default;
  NativeFunction(const NativeFunction&) = delete;
  NativeFunction& operator=(const NativeFunction&) = delete;
  virtual ~NativeFunction();
  virtual void Call(NativeCall& call) = 0;
};

/// The types of a callable, in TypeScript.
struct NativeSignature {
  struct Parameter {
    std::string type;
    bool isOptional;
  };

  std::vector<Parameter> parameters;
  std::string result;
};

template <typename T>
std::string TypeName() {
  if constexpr (std::is_void_v<T>) {
    return "void";
  } else if constexpr (std::is_same_v<T, bool>) {
    return "boolean";
  } else if constexpr (std::is_integral_v<T> && sizeof(T) >= sizeof(int64_t)) {
    return "number | bigint";
  } else if constexpr (std::is_arithmetic_v<T>) {
    return "number";
  } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, const char*> ||
                       std::is_same_v<T, std::string_view>) {
    return "string";
  } else if constexpr (std::is_same_v<T, Promise>) {
    return "Promise<any>";
  } else if constexpr (IsOptional<T>::value) {
    return TypeName<typename T::value_type>() + " | undefined";
  } else if constexpr (IsVector<T>::value) {
    return "Array<" + TypeName<typename T::value_type>() + ">";
  } else if constexpr (IsMap<T>::value) {
    return "Record<string, " + TypeName<typename T::mapped_type>() + ">";
  } else {
    return "any";
  }
}

template <typename T>
T ReadArgument(const NativeCall& call, size_t index) {
  static_assert(!std::is_same_v<T, Promise>, "a native can return a promise, but is given none");
  static_assert(!std::is_pointer_v<T>, "a native takes its text as a std::string");
  if constexpr (IsOptional<T>::value) {
    if (call.IsNothing(index)) return std::nullopt;
    return ReadArgument<typename T::value_type>(call, index);
  } else if constexpr (std::is_same_v<T, Value>) {
    return call.Get(index);
  } else if constexpr (std::is_same_v<T, bool>) {
    return call.Boolean(index);
  } else if constexpr (std::is_same_v<T, double>) {
    return call.Number(index);
  } else if constexpr (std::is_integral_v<T> && (sizeof(T) < sizeof(int64_t) || std::is_signed_v<T>)) {
    return static_cast<T>(call.Signed(index, static_cast<int64_t>(std::numeric_limits<T>::min()),
                                      static_cast<int64_t>(std::numeric_limits<T>::max())));
  } else if constexpr (std::is_same_v<T, std::string>) {
    return call.Text(index);
  } else {
    const Value value = call.Get(index);
    try {
      return FromValue<T>(value);
    } catch (const Mismatch& mismatch) {
      call.RefuseArgument(index, mismatch);
    } catch (const ScriptError& error) {
      call.RefuseArgument(index, error);
    }
  }
}

template <typename T>
void ReturnResult(NativeCall& call, T&& result) {
  using Type = std::decay_t<T>;
  if constexpr (std::is_same_v<Type, bool>) {
    call.Return(static_cast<bool>(result));
  } else if constexpr (std::is_arithmetic_v<Type> &&
                       (std::is_same_v<Type, double> || std::is_same_v<Type, float> ||
                        (std::is_integral_v<Type> && sizeof(Type) < sizeof(int64_t)))) {
    call.Return(static_cast<double>(result));
  } else if constexpr (std::is_same_v<Type, std::string> || std::is_same_v<Type, Promise>) {
    call.Return(static_cast<const Type&>(result));
  } else {
    call.Return(static_cast<const Value&>(ToValue(std::forward<T>(result))));
  }
}

template <typename Function, typename Result, typename... Parameters>
class TypedNative final : public NativeFunction {
 public:
  explicit TypedNative(Function function) : m_function(std::move(function)) {}

  void Call(NativeCall& call) override { Invoke(call, std::index_sequence_for<Parameters...>()); }

  static NativeSignature Signature() {
    return {{NativeSignature::Parameter{TypeName<std::decay_t<Parameters>>(),
                                        IsOptional<std::decay_t<Parameters>>::value}...},
            TypeName<std::decay_t<Result>>()};
  }

 private:
  template <size_t... index>
  void Invoke(NativeCall& call, std::index_sequence<index...>) {
    // All arguments are there before the first is read, because reading may run script code.
    (Require<std::decay_t<Parameters>>(call, index), ...);
    std::tuple<std::decay_t<Parameters>...> arguments{ReadArgument<std::decay_t<Parameters>>(call, index)...};
    if constexpr (std::is_void_v<Result>) {
      m_function(static_cast<Parameters&&>(std::get<index>(arguments))...);
    } else {
      ReturnResult(call, m_function(static_cast<Parameters&&>(std::get<index>(arguments))...));
    }
  }

  template <typename Parameter>
  static void Require(const NativeCall& call, size_t index) {
    if (!IsOptional<Parameter>::value && index >= call.size()) call.RefuseMissing(index);
  }

  Function m_function;
};

/// @{ Which TypedNative belongs to a callable. A lambda with `auto` parameters has no one type, and none here.
template <typename Function, typename Member>
struct NativeOfMember;
template <typename Function, typename Class, typename Result, typename... Parameters>
struct NativeOfMember<Function, Result (Class::*)(Parameters...)> {
  using Type = TypedNative<Function, Result, Parameters...>;
};
template <typename Function, typename Class, typename Result, typename... Parameters>
struct NativeOfMember<Function, Result (Class::*)(Parameters...) const> {
  using Type = TypedNative<Function, Result, Parameters...>;
};
template <typename Function, typename Class, typename Result, typename... Parameters>
struct NativeOfMember<Function, Result (Class::*)(Parameters...) noexcept> {
  using Type = TypedNative<Function, Result, Parameters...>;
};
template <typename Function, typename Class, typename Result, typename... Parameters>
struct NativeOfMember<Function, Result (Class::*)(Parameters...) const noexcept> {
  using Type = TypedNative<Function, Result, Parameters...>;
};

template <typename Function>
struct NativeOf : NativeOfMember<Function, decltype(&Function::operator())> {};
template <typename Result, typename... Parameters>
struct NativeOf<Result (*)(Parameters...)> {
  using Type = TypedNative<Result (*)(Parameters...), Result, Parameters...>;
};
template <typename Result, typename... Parameters>
struct NativeOf<Result (*)(Parameters...) noexcept> {
  using Type = TypedNative<Result (*)(Parameters...), Result, Parameters...>;
};
/// @}

}  // namespace vnjs::detail
