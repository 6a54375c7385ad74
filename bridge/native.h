#pragma once

#include <v8.h>
#include <vnjs/environment.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <new>
#include <string>
#include <string_view>
#include <tuple>

namespace vnjs {

/// The environment of an isolate, or null: a host's own isolate, or one whose environment has ended.
inline Environment* GetEnvironment(v8::Isolate* isolate) {
  return static_cast<Environment*>(isolate->GetData(0));
}

/// The context for a conversion: the one that is entered, or else the environment's own for as long as this lives.
/// Hosts that have only locked and entered the isolate convert as well. Empty without either.
class ConversionContext {
 public:
  explicit ConversionContext(v8::Isolate* isolate) {
    if (isolate->InContext()) {
      m_context = isolate->GetCurrentContext();
      return;
    }
    Environment* const environment = GetEnvironment(isolate);
    if (environment != nullptr) m_context = environment->GetContext();
    m_entered = !m_context.IsEmpty();
    if (m_entered) m_context->Enter();
  }
  ~ConversionContext() {
    if (m_entered) m_context->Exit();
  }
  ConversionContext(const ConversionContext&) = delete;
  ConversionContext& operator=(const ConversionContext&) = delete;

  bool IsEmpty() const { return m_context.IsEmpty(); }
  v8::Local<v8::Context> get() const { return m_context; }

 private:
  v8::Local<v8::Context> m_context;
  bool m_entered = false;
};

/// For natives that take long: whether the script that has called is to end. The guard around the native ends it.
bool IsInterrupted(Environment* environment);

/// Ends the script that has called the native which calls this, if it is to end. The engine itself looks where a loop
/// turns, and not each time.
void EndIfInterrupted(v8::Isolate* isolate);

/// GetString for code of ours. Throws std::bad_alloc for a text that is larger than all buffers of the environment may
/// be: a script makes half a gigabyte of text in one step. A megabyte is always allowed.
std::string GetText(v8::Local<v8::Value> value);

using NativeCallback = void (*)(const v8::FunctionCallbackInfo<v8::Value>&);

template <typename Signature>
struct NativeGuard;

template <typename... Arguments>
struct NativeGuard<void (*)(Arguments...)> {
  template <void (*native)(Arguments...)>
  static void Call(Arguments... arguments) {
    const auto& info = std::get<sizeof...(Arguments) - 1>(std::tie(arguments...));
    v8::Isolate* const isolate = info.GetIsolate();
    if (GetEnvironment(isolate) == nullptr) return;
    try {
      native(arguments...);
    } catch (const VornException& e) {
      ThrowException(isolate, e.msg());
    } catch (const std::bad_alloc&) {
      ThrowException(isolate, GetVornError(-2));
    } catch (const std::exception& e) {
      ThrowException(isolate, e.what());
    }
    EndIfInterrupted(isolate);
  }
};

/// The guard around every native that scripts call, functions, accessors and interceptors alike:
/// `Native<&Core::Exit>`.
///
/// The engine's frames cannot be unwound, so no native exception may pass: each becomes a script `Error` with
/// its message. Without an environment the native does nothing and returns undefined; inside, GetEnvironment
/// is never null.
template <auto native>
constexpr auto Native = &NativeGuard<decltype(native)>::template Call<native>;

/// One line of an extension's table of natives.
struct NativeEntry {
  enum Kind { kFunction, kConstructor };

  const char* name;
  NativeCallback callback;
  Kind kind = kFunction;

  /// What the native finds as its callback data.
  bool data = false;
};

/// The template of the native called `name`, or an empty handle. Only constructors have a `prototype`. `data`,
/// where given, is what every native of the table finds as its callback data.
template <size_t size>
v8::Local<v8::FunctionTemplate> FindNative(v8::Isolate* isolate, const NativeEntry (&table)[size],
                                           const std::string& name, v8::Local<v8::Value> data = {}) {
  for (const NativeEntry& entry : table) {
    if (name != entry.name) continue;
    if (data.IsEmpty()) data = v8::Boolean::New(isolate, entry.data);
    const v8::Local<v8::FunctionTemplate> result = v8::FunctionTemplate::New(isolate, entry.callback, data);
    if (entry.kind == NativeEntry::kFunction) result->RemovePrototype();
    return result;
  }
  return {};
}

/// A script string; an empty handle, with a RangeError pending, when the engine cannot hold a string of that
/// size.
v8::MaybeLocal<v8::String> NewString(v8::Isolate* isolate, std::string_view text);

/// The same for names and messages of our own, which are short.
v8::Local<v8::String> NewName(v8::Isolate* isolate, const char* text);

/// What functions of a template are called, and what `Object.prototype.toString` says of their objects.
void NameClass(v8::Isolate* isolate, v8::Local<v8::FunctionTemplate> function, const char* name);

/// Adds a data property to an object that a native has just made. False, with something pending, when the
/// script is being terminated.
bool SetProperty(v8::Local<v8::Context> context, v8::Local<v8::Object> object, const char* name,
                 v8::Local<v8::Value> value);

}  // namespace vnjs
