#include "modules/core/name_value_dictionary.h"

#include <cstring>
#include <new>
#include <string>

#include "bridge/native.h"
#include "modules/core/core.h"
// What a dictionary needs outlives exit(), which other extensions' state does not.
#include "engine/environment_impl.h"

namespace vnjs {

namespace {

constexpr char kVariable[] = "vorn/core/NVDictionary";
constexpr char kClassName[] = "NameValueDictionary";

/// The internal fields of a dictionary. The first is undefined at birth; later null, or an object that maps
/// spellings which scripts asked for to those of the entries. To list all names for each such question takes
/// ten times as long. The second counts them.
enum Field { kSpellings, kSpellingCount, kFieldCount };

/// A script that keeps asking in new spellings shall not fill the memory.
constexpr int kMostSpellings = 4096;

/// A longer name is no header's. Several copies of it are made.
constexpr int kLongestName = 1 << 20;

/// Sets `text` to what names are compared by: UTF-8 up to the first zero, with small ASCII letters. Halves of surrogate
/// pairs stay apart. Throws VornException for a name that is too long.
void Fold(v8::Isolate* isolate, v8::Local<v8::String> name, std::string& text) {
  if (name->Length() > kLongestName) throw VornException("Name is too long");
  text.resize(3 * static_cast<size_t>(name->Length()));
  const int size = name->WriteUtf8(isolate, text.data(), static_cast<int>(text.size()), nullptr,
                                   v8::String::NO_NULL_TERMINATION);
  text.resize(strnlen(text.data(), static_cast<size_t>(size)));
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

/// The first of the dictionary's enumerable names that is `wanted` when folded, or an empty handle.
v8::MaybeLocal<v8::String> Search(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary,
                                  const std::string& wanted) {
  v8::Isolate* const isolate = context->GetIsolate();
  v8::Local<v8::Array> names;
  if (!dictionary
           ->GetOwnPropertyNames(context,
                                 static_cast<v8::PropertyFilter>(v8::ONLY_ENUMERABLE | v8::SKIP_SYMBOLS),
                                 v8::KeyConversionMode::kConvertToString)
           .ToLocal(&names)) {
    return {};
  }
  std::string text;
  for (uint32_t i = 0; i < names->Length(); ++i) {
    v8::Local<v8::Value> candidate;
    if (!names->Get(context, i).ToLocal(&candidate)) return {};
    Fold(isolate, candidate.As<v8::String>(), text);
    if (text == wanted) return candidate.As<v8::String>();
  }
  return {};
}

v8::MaybeLocal<v8::Value> Recall(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary,
                                 v8::Local<v8::String> name) {
  const v8::Local<v8::Value> spellings = dictionary->GetInternalField(kSpellings);
  if (!spellings->IsObject()) return {};
  return spellings.As<v8::Object>()->GetRealNamedProperty(context, name);
}

void Remember(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary, v8::Local<v8::String> name,
              v8::Local<v8::String> spelling) {
  v8::Isolate* const isolate = context->GetIsolate();
  v8::Local<v8::Value> spellings = dictionary->GetInternalField(kSpellings);
  int count = 0;
  if (spellings->IsObject()) count = dictionary->GetInternalField(kSpellingCount).As<v8::Int32>()->Value();
  if (count == 0 || count == kMostSpellings) {
    // Without a prototype: only what was put in is found.
    spellings = v8::Object::New(isolate, v8::Null(isolate), nullptr, nullptr, 0);
    dictionary->SetInternalField(kSpellings, spellings);
    count = 0;
  }
  spellings.As<v8::Object>()->CreateDataProperty(context, name, spelling).FromMaybe(false);
  dictionary->SetInternalField(kSpellingCount, v8::Integer::New(isolate, count + 1));
}

void Forget(v8::Isolate* isolate, v8::Local<v8::Object> dictionary) {
  if (dictionary->GetInternalField(kSpellings)->IsObject()) {
    dictionary->SetInternalField(kSpellings, v8::Null(isolate));
  }
}

/// The same as Search, from memory where possible. What was found stays right while names are added, as they
/// come after it in the order of the search; Forget is for all other changes.
v8::MaybeLocal<v8::String> FindSpelling(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary,
                                        v8::Local<v8::String> name) {
  v8::Local<v8::Value> known;
  if (Recall(context, dictionary, name).ToLocal(&known)) return known.As<v8::String>();
  v8::Isolate* const isolate = context->GetIsolate();
  std::string wanted;
  Fold(isolate, name, wanted);
  v8::Local<v8::String> found;
  if (!Search(context, dictionary, wanted).ToLocal(&found)) return {};
  // A name that ends at a zero may stand for an index, and those come and go without our knowledge.
  if (wanted.size() == static_cast<size_t>(name->Utf8Length(isolate)))
    Remember(context, dictionary, name, found);
  return found;
}

/// The engine walks the history of an object's shape at each interception, and every new name makes that
/// longer. An object that has lost a property has no such history.
void DropShape(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary) {
  v8::Isolate* const isolate = context->GetIsolate();
  const v8::Local<v8::Private> passing = v8::Private::New(isolate);
  dictionary->SetPrivate(context, passing, v8::Undefined(isolate)).FromMaybe(false);
  dictionary->DeletePrivate(context, passing).FromMaybe(false);
  dictionary->SetInternalField(kSpellings, v8::Null(isolate));
}

bool HasExactly(v8::Local<v8::Context> context, v8::Local<v8::Object> dictionary, v8::Local<v8::Name> name) {
  return dictionary->HasRealNamedProperty(context, name).FromMaybe(false);
}

}  // namespace

VRefCountedPointer<NameValueDictionary::Env> NameValueDictionary::GetEnv(Environment* env) {
  // Also while it is terminating, when it shows and takes no variables: each template made anew would stay in the heap.
  auto* const implementation = static_cast<EnvironmentImpl*>(env);
  const VRefCountedPointer<EnvironmentVariable> variable = implementation->FindVariable(kVariable);
  if (!variable.is_empty()) return static_cast<Env*>(variable.get_ptr());
  const VRefCountedPointer<Env> made(new Env);
  implementation->KeepVariable(kVariable, made.get_ptr());
  return made;
}

v8::MaybeLocal<v8::Object> NameValueDictionary::New(v8::Isolate* isolate, Environment* env) {
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const VRefCountedPointer<Env> state = GetEnv(env);
  v8::Local<v8::FunctionTemplate> made = state->m_template.Get(isolate);
  if (made.IsEmpty()) {
    made = NewTemplate(isolate);
    state->m_template.Reset(isolate, made);
    // Deliberately kept: from here on the global name is a function that makes empty dictionaries and knows
    // no initial entries.
    v8::Local<v8::Function> function;
    if (!made->GetFunction(context).ToLocal(&function) ||
        context->Global()->Set(context, NewName(isolate, kClassName), function).IsNothing()) {
      return {};
    }
  }
  return made->InstanceTemplate()->NewInstance(context);
}

v8::Local<v8::FunctionTemplate> NameValueDictionary::NewTemplate(v8::Isolate* isolate) {
  const v8::Local<v8::FunctionTemplate> result = v8::FunctionTemplate::New(isolate);
  NameClass(isolate, result, kClassName);
  const v8::Local<v8::ObjectTemplate> instance = result->InstanceTemplate();
  instance->SetInternalFieldCount(kFieldCount);
  instance->SetHandler(v8::NamedPropertyHandlerConfiguration(
      Native<&Get>, Native<&Set>, Native<&Query>, Native<&Del>, nullptr, Native<&Define>, nullptr,
      v8::Local<v8::Value>(), v8::PropertyHandlerFlags::kOnlyInterceptStrings));
  instance->Set(isolate, "toString", v8::FunctionTemplate::New(isolate, ToString), v8::DontEnum);
  return result;
}

void NameValueDictionary::Get(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Value>& info) {
  const v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  const v8::Local<v8::Object> dictionary = info.Holder();
  v8::Local<v8::Name> spelling = name;
  if (HasExactly(context, dictionary, name)) {
    // The engine finds the same property by itself, and faster. Only an entry's getter could tell the
    // difference, when it is reached through another object.
    if (info.This() == dictionary) return;
  } else if (!FindSpelling(context, dictionary, name.As<v8::String>()).ToLocal(&spelling)) {
    // Names that live on the prototype chain alone are not to be seen either.
    info.GetReturnValue().SetUndefined();
    return;
  }
  v8::Local<v8::Value> value;
  if (dictionary->GetRealNamedProperty(context, spelling).ToLocal(&value)) info.GetReturnValue().Set(value);
}

void NameValueDictionary::Set(v8::Local<v8::Name> name, v8::Local<v8::Value> value,
                              const v8::PropertyCallbackInfo<v8::Value>& info) {
  const v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  const v8::Local<v8::Object> dictionary = info.Holder();
  if (HasExactly(context, dictionary, name)) return;
  if (dictionary->GetInternalField(kSpellings)->IsUndefined()) DropShape(context, dictionary);
  // By way of Del, this removes an entry that is spelled differently. Then the engine adds the new one.
  dictionary->Delete(context, name).FromMaybe(false);
}

void NameValueDictionary::Query(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Integer>& info) {
  const v8::Local<v8::Context> context = info.GetIsolate()->GetCurrentContext();
  if (HasExactly(context, info.Holder(), name) ||
      !FindSpelling(context, info.Holder(), name.As<v8::String>()).IsEmpty()) {
    info.GetReturnValue().Set(v8::None);
  }
}

void NameValueDictionary::Del(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Boolean>& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const v8::Local<v8::Object> dictionary = info.Holder();
  if (HasExactly(context, dictionary, name)) {
    Forget(isolate, dictionary);
    return;
  }
  v8::Local<v8::String> spelling;
  const bool found = FindSpelling(context, dictionary, name.As<v8::String>()).ToLocal(&spelling);
  info.GetReturnValue().Set(found && dictionary->Delete(context, spelling).FromMaybe(false));
}

void NameValueDictionary::Define(v8::Local<v8::Name>, const v8::PropertyDescriptor&,
                                 const v8::PropertyCallbackInfo<v8::Value>& info) {
  Forget(info.GetIsolate(), info.Holder());
}

void NameValueDictionary::ToString(const v8::FunctionCallbackInfo<v8::Value>& info) {
  info.GetReturnValue().Set(NewName(info.GetIsolate(), "[object NameValueDictionary]"));
}

void Core::NameValueDictionary(const Info& info) {
  if (!info.IsConstructCall()) throw VornException("Should be called as constructor");
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  v8::Local<v8::Object> dictionary;
  if (!vnjs::NameValueDictionary::New(isolate, GetEnvironment(isolate)).ToLocal(&dictionary)) return;
  if (info[0]->IsObject()) {
    const v8::Local<v8::Object> initial = info[0].As<v8::Object>();
    v8::Local<v8::Array> names;
    if (!initial->GetOwnPropertyNames(context).ToLocal(&names)) return;
    for (uint32_t i = 0; i < names->Length(); ++i) {
      const v8::HandleScope handleScope(isolate);
      v8::Local<v8::Value> name;
      v8::Local<v8::Value> value;
      if (!names->Get(context, i).ToLocal(&name) || !initial->Get(context, name).ToLocal(&value) ||
          dictionary->Set(context, name, value).IsNothing()) {
        return;
      }
    }
  }
  info.GetReturnValue().Set(dictionary);
}

}  // namespace vnjs
