#include "modules/console/describe.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "bridge/native.h"

namespace vnjs {
namespace {

constexpr size_t kDeepest = 3;
constexpr size_t kMostEntries = 100;
constexpr size_t kLongest = 10000;

std::string DateText(double milliseconds) {
  if (std::isnan(milliseconds)) return "Invalid Date";
  const double seconds = std::floor(milliseconds / 1000);
  const auto time = static_cast<time_t>(seconds);
  tm parts{};
  gmtime_r(&time, &parts);
  char text[80];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(milliseconds - seconds * 1000));
  return text;
}

/// Builds the text of one value. What it asks objects for runs no script, except where the engine itself does: for the
/// stack of an error, and for an accessor in a NameValueDictionary.
class Description {
 public:
  explicit Description(v8::Isolate* isolate)
      : m_isolate(isolate), m_context(isolate->GetCurrentContext()), m_caught(isolate) {}

  void Add(v8::Local<v8::Value> value) {
    if (IsFull()) return;
    if (value->IsString()) {
      AddQuoted(GetText(value));
    } else if (value->IsSymbol()) {
      m_text += "Symbol(" + GetText(value.As<v8::Symbol>()->Description(m_isolate)) + ")";
    } else if (value->IsBigInt()) {
      m_text += GetText(value) + "n";
    } else if (value->IsObject()) {
      AddObject(value.As<v8::Object>());
    } else if (value->IsNullOrUndefined()) {
      m_text += value->IsNull() ? "null" : "undefined";
    } else if (value->SameValue(v8::Number::New(m_isolate, -0.0))) {
      m_text += "-0";
    } else {
      m_text += GetText(value);
    }
  }

  std::string Take() {
    if (!IsFull()) return std::move(m_text);
    size_t end = std::min(m_text.size(), kLongest);
    while (end > 0 && end < m_text.size() && (m_text[end] & 0xC0) == 0x80) --end;
    return m_text.substr(0, end) + "…";
  }

 private:
  void AddQuoted(const std::string& text) {
    m_text += '\'';
    for (const char c : text.substr(0, kLongest)) {
      if (c == '\'' || c == '\\') m_text += '\\';
      if (c == '\n') {
        m_text += "\\n";
      } else {
        m_text += c;
      }
    }
    m_text += '\'';
  }

  void AddObject(v8::Local<v8::Object> object) {
    const std::string name = object->IsProxy() ? "Proxy" : GetText(object->GetConstructorName());
    if (AddAtom(object, name)) return;
    if (std::find(m_around.begin(), m_around.end(), object) != m_around.end()) {
      m_text += "[Circular]";
    } else if (m_around.size() == kDeepest) {
      m_text += "[" + name + "]";
    } else {
      m_around.push_back(object);
      AddParts(object, name);
      m_around.pop_back();
    }
  }

  /// Whether the object is one of those that have no parts to show.
  bool AddAtom(v8::Local<v8::Object> object, const std::string& name) {
    if (object->IsProxy()) {
      m_text += "[Proxy]";
    } else if (object->IsFunction()) {
      const std::string debugName = GetText(object.As<v8::Function>()->GetDebugName());
      m_text += "[Function" + (debugName.empty() ? "" : ": " + debugName) + "]";
    } else if (object->IsDate()) {
      m_text += DateText(object.As<v8::Date>()->ValueOf());
    } else if (object->IsRegExp()) {
      AddRegExp(object.As<v8::RegExp>());
    } else if (object->IsNativeError()) {
      const std::string stack = OwnText(object, "stack");
      m_text += stack.empty() ? name + ": " + OwnText(object, "message") : stack;
    } else if (object->IsPromise()) {
      AddPromise(object.As<v8::Promise>());
    } else if (object->IsArrayBuffer() || object->IsSharedArrayBuffer()) {
      m_text += name + " {}";
    } else {
      const v8::Local<v8::Value> primitive = Unwrap(object);
      if (primitive.IsEmpty()) return false;
      m_text += "[" + name + ": ";
      Add(primitive);
      m_text += "]";
    }
    return true;
  }

  /// What an object of `new Number(1)` and its like stands for; empty for all others.
  v8::Local<v8::Value> Unwrap(v8::Local<v8::Object> object) const {
    if (object->IsStringObject()) return object.As<v8::StringObject>()->ValueOf();
    if (object->IsSymbolObject()) return object.As<v8::SymbolObject>()->ValueOf();
    if (object->IsBigIntObject()) return object.As<v8::BigIntObject>()->ValueOf();
    if (object->IsNumberObject()) return v8::Number::New(m_isolate, object.As<v8::NumberObject>()->ValueOf());
    if (object->IsBooleanObject())
      return v8::Boolean::New(m_isolate, object.As<v8::BooleanObject>()->ValueOf());
    return {};
  }

  void AddRegExp(v8::Local<v8::RegExp> expression) {
    m_text += "/" + GetText(expression->GetSource()) + "/";
    constexpr std::pair<int, char> kFlags[] = {{v8::RegExp::kHasIndices, 'd'}, {v8::RegExp::kGlobal, 'g'},
                                               {v8::RegExp::kIgnoreCase, 'i'}, {v8::RegExp::kMultiline, 'm'},
                                               {v8::RegExp::kDotAll, 's'},     {v8::RegExp::kUnicode, 'u'},
                                               {v8::RegExp::kSticky, 'y'}};
    for (const auto& [flag, letter] : kFlags) {
      if ((expression->GetFlags() & flag) != 0) m_text += letter;
    }
  }

  void AddPromise(v8::Local<v8::Promise> promise) {
    if (m_around.size() == kDeepest) {
      m_text += "[Promise]";
      return;
    }
    m_around.push_back(promise);
    m_text += "Promise {";
    if (promise->State() == v8::Promise::kPending) {
      m_text += "<pending>";
    } else {
      if (promise->State() == v8::Promise::kRejected) m_text += "<rejected> ";
      Add(promise->Result());
    }
    m_text += "}";
    m_around.pop_back();
  }

  void AddParts(v8::Local<v8::Object> object, const std::string& name) {
    const bool isList = object->IsArray() || object->IsTypedArray();
    if (name != (object->IsArray() ? "Array" : "Object")) m_text += name + " ";
    m_text += isList ? "[" : "{";
    size_t shown = 0;
    if (isList) AddElements(object, shown);
    if (object->IsMap() || object->IsSet()) AddEntries(object, shown);
    AddProperties(object, isList ? v8::IndexFilter::kSkipIndices : v8::IndexFilter::kIncludeIndices, shown);
    m_text += isList ? "]" : "}";
  }

  void AddElements(v8::Local<v8::Object> list, size_t& shown) {
    const size_t length =
        list->IsArray() ? list.As<v8::Array>()->Length() : list.As<v8::TypedArray>()->Length();
    for (uint32_t i = 0; i < length; ++i) {
      if (!Next(shown, length - i)) return;
      AddOwn(list, Name(std::to_string(i).c_str()), "<empty>");
    }
  }

  void AddEntries(v8::Local<v8::Object> collection, size_t& shown) {
    bool isMap = false;
    v8::Local<v8::Array> entries;
    if (!collection->PreviewEntries(&isMap).ToLocal(&entries)) return;
    for (uint32_t i = 0; i < entries->Length(); ++i) {
      if (!Next(shown, (entries->Length() - i) / (isMap ? 2 : 1))) return;
      Add(entries->Get(m_context, i).FromMaybe(Undefined()));
      if (!isMap) continue;
      m_text += " => ";
      Add(entries->Get(m_context, ++i).FromMaybe(Undefined()));
    }
  }

  void AddProperties(v8::Local<v8::Object> object, v8::IndexFilter indices, size_t& shown) {
    v8::Local<v8::Array> names;
    const auto filter = static_cast<v8::PropertyFilter>(v8::ONLY_ENUMERABLE | v8::SKIP_SYMBOLS);
    if (object->IsTypedArray() || !object
                                       ->GetPropertyNames(m_context, v8::KeyCollectionMode::kOwnOnly, filter,
                                                          indices, v8::KeyConversionMode::kConvertToString)
                                       .ToLocal(&names)) {
      return;
    }
    for (uint32_t i = 0; i < names->Length(); ++i) {
      if (!Next(shown, names->Length() - i)) return;
      const v8::Local<v8::Value> name = names->Get(m_context, i).FromMaybe(Undefined());
      AddName(GetText(name));
      AddOwn(object, name.As<v8::Name>(), "undefined");
    }
  }

  void AddName(const std::string& name) {
    const bool isPlain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
      return isalnum(c) != 0 || c == '_' || c == '$' || c >= 0x80;
    });
    if (isPlain && !name.empty()) {
      m_text += name;
    } else {
      AddQuoted(name);
    }
    m_text += ": ";
  }

  /// An own property without asking its getter.
  void AddOwn(v8::Local<v8::Object> object, v8::Local<v8::Name> name, const char* missing) {
    v8::Local<v8::Value> found;
    if (!object->GetOwnPropertyDescriptor(m_context, name).ToLocal(&found) || !found->IsObject()) {
      m_text += missing;
      return;
    }
    const auto descriptor = found.As<v8::Object>();
    const v8::Local<v8::String> value = Name("value");
    if (descriptor->HasOwnProperty(m_context, value).FromMaybe(false)) {
      Add(descriptor->Get(m_context, value).FromMaybe(Undefined()));
    } else {
      m_text += "[Getter]";
    }
  }

  /// An own property that is a text.
  std::string OwnText(v8::Local<v8::Object> object, const char* name) {
    v8::Local<v8::Value> descriptor;
    if (!object->GetOwnPropertyDescriptor(m_context, Name(name)).ToLocal(&descriptor) ||
        !descriptor->IsObject()) {
      return {};
    }
    const v8::Local<v8::Value> value =
        descriptor.As<v8::Object>()->Get(m_context, Name("value")).FromMaybe(Undefined());
    return value->IsString() ? GetText(value) : "";
  }

  /// Between two parts of an object. False when the rest is left out.
  bool Next(size_t& shown, size_t left) {
    if (shown > 0) m_text += ", ";
    if (shown++ < kMostEntries && !IsFull()) return true;
    m_text += "… " + std::to_string(left) + " more";
    return false;
  }

  bool IsFull() const { return m_text.size() >= kLongest || m_isolate->IsExecutionTerminating(); }

  v8::Local<v8::String> Name(const char* text) const {
    return v8::String::NewFromUtf8(m_isolate, text).ToLocalChecked();
  }
  v8::Local<v8::Value> Undefined() const { return v8::Undefined(m_isolate); }

  v8::Isolate* m_isolate;
  v8::Local<v8::Context> m_context;
  v8::TryCatch m_caught;
  std::vector<v8::Local<v8::Object>> m_around;
  std::string m_text;
};

}  // namespace

std::string Describe(v8::Isolate* isolate, v8::Local<v8::Value> value) {
  const v8::HandleScope handles(isolate);
  Description description(isolate);
  description.Add(value);
  return description.Take();
}

}  // namespace vnjs
