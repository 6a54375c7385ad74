#include "runner/native_call.h"

#include <vnjs/error.h>
#include <vnjs/value.h>

#include <new>

#include "bridge/native.h"
#include "runner/conversion.h"
#include "runner/definitions.h"
#include "runner/payload.h"
#include "runner/runner_environment.h"
#include "runner/script_failure.h"

namespace vnjs {

namespace {

using Info = v8::FunctionCallbackInfo<v8::Value>;

struct Call {
  const Info& info;
  Definition& definition;
};

/// The public class, made by us alone.
class ScriptCall : public detail::NativeCall {
 public:
  explicit ScriptCall(const Call& call) : NativeCall(static_cast<size_t>(call.info.Length()), &call) {}
};

const Call& Of(const void* info) { return *static_cast<const Call*>(info); }

v8::Local<v8::Value> Argument(const void* info, size_t index) {
  return Of(info).info[static_cast<int>(index)];
}

void ThrowTypeError(v8::Isolate* isolate, const std::string& message) {
  if (isolate->IsExecutionTerminating()) return;
  isolate->ThrowException(v8::Exception::TypeError(NewName(isolate, message.c_str())));
}

}  // namespace

namespace detail {

NativeFunction::~NativeFunction() = default;

void NativeCall::RefuseMissing(size_t index) const {
  const Definition& definition = Of(m_info).definition;
  throw ArgumentError{definition.name + ": " + definition.parameters[index] + " is missing"};
}

void NativeCall::RefuseArgument(size_t index, const Mismatch& mismatch) const {
  const Definition& definition = Of(m_info).definition;
  throw ArgumentError{definition.name + ": " + definition.parameters[index] + mismatch.path + " must be " +
                      mismatch.expected + ", not " + mismatch.got};
}

void NativeCall::RefuseArgument(size_t index, const ScriptError& error) const {
  const Definition& definition = Of(m_info).definition;
  throw ArgumentError{definition.name + ": " + definition.parameters[index] + ": " + error.message};
}

bool NativeCall::IsNothing(size_t index) const {
  return index >= m_size || Argument(m_info, index)->IsNullOrUndefined();
}

bool NativeCall::Boolean(size_t index) const {
  const v8::Local<v8::Value> value = Argument(m_info, index);
  if (!value->IsBoolean()) RefuseArgument(index, Mismatch{{}, "a boolean", DescribeScriptValue(value)});
  return value->IsTrue();
}

double NativeCall::Number(size_t index) const {
  const v8::Local<v8::Value> value = Argument(m_info, index);
  if (!value->IsNumber()) RefuseArgument(index, Mismatch{{}, "a number", DescribeScriptValue(value)});
  return value.As<v8::Number>()->Value();
}

int64_t NativeCall::Signed(size_t index, int64_t least, int64_t most) const {
  const v8::Local<v8::Value> value = Argument(m_info, index);
  if (value->IsInt32()) {
    const int32_t number = value.As<v8::Int32>()->Value();
    if (number >= least && number <= most) return number;
  }
  try {
    if (!value->IsNumber() && !value->IsBigInt())
      throw Mismatch{{}, "an integer", DescribeScriptValue(value)};
    return ToSigned(Get(index), least, most);
  } catch (const Mismatch& mismatch) {
    RefuseArgument(index, mismatch);
  }
}

std::string NativeCall::Text(size_t index) const {
  const v8::Local<v8::Value> value = Argument(m_info, index);
  if (!value->IsString()) RefuseArgument(index, Mismatch{{}, "a string", DescribeScriptValue(value)});
  try {
    return Of(m_info).definition.environment->GetConversion().ReadText(value.As<v8::String>());
  } catch (const Refusal& refusal) {
    throw ArgumentError{Of(m_info).definition.name + ": " + Of(m_info).definition.parameters[index] + ": " +
                        refusal.problem};
  }
}

Value NativeCall::Get(size_t index) const {
  const auto& [info, definition] = Of(m_info);
  try {
    return definition.environment->GetConversion().ToHost(info.GetIsolate()->GetCurrentContext(),
                                                          info[static_cast<int>(index)]);
  } catch (const Refusal& refusal) {
    throw ArgumentError{definition.name + ": " + definition.parameters[index] + refusal.path + ": " +
                        refusal.problem};
  }
}

void NativeCall::Return(bool result) { Of(m_info).info.GetReturnValue().Set(result); }
void NativeCall::Return(double result) { Of(m_info).info.GetReturnValue().Set(result); }

void NativeCall::Return(const std::string& result) {
  const auto& [info, definition] = Of(m_info);
  info.GetReturnValue().Set(definition.environment->GetConversion().MakeText(result));
}

void NativeCall::Return(const Value& result) {
  const auto& [info, definition] = Of(m_info);
  const v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  info.GetReturnValue().Set(definition.environment->GetConversion().ToScript(context, result));
}

void NativeCall::Return(const Promise& result) {
  const auto& [info, definition] = Of(m_info);
  const v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  info.GetReturnValue().Set(definition.environment->GetPromises().Add(context, result));
}

}  // namespace detail

void CallNative(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  auto& definition = *static_cast<Definition*>(info.Data().As<v8::External>()->Value());
  const Call call{info, definition};
  try {
    ScriptCall scriptCall(call);
    definition.function->Call(scriptCall);
  } catch (const PendingException&) {
    // It goes on in the script.
  } catch (const ArgumentError& error) {
    ThrowTypeError(isolate, error.message);
  } catch (const Refusal& refusal) {
    ThrowTypeError(isolate, definition.name + ": its result: " + refusal.Text());
  } catch (const ScriptError& error) {
    ThrowScriptError(isolate->GetCurrentContext(), error);
  } catch (const detail::Mismatch& mismatch) {
    ThrowException(isolate, mismatch.got + " is not " + mismatch.expected);
  } catch (const VornException& error) {
    ThrowException(isolate, error.msg());
  } catch (const std::bad_alloc&) {
    ThrowException(isolate, GetVornError(-2));
  } catch (const std::exception& error) {
    ThrowException(isolate, error.what());
  } catch (...) {
    ThrowException(isolate, definition.name + " failed in the host");
  }
  definition.environment->EndIfStopping();
}

}  // namespace vnjs
