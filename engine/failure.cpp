#include "engine/failure.h"

#include <new>

#include "bridge/native.h"

namespace vnjs {

namespace {

/// GetText, or the beginning of a text that is too long for it: an author looks for what the script has thrown.
std::string TextOrBeginning(v8::Local<v8::Value> value) {
  try {
    return GetText(value);
  } catch (const std::bad_alloc&) {
    constexpr int kBeginning = 1000;
    if (!value->IsString() || value.As<v8::String>()->Length() <= kBeginning) throw;
    v8::Isolate* const isolate = v8::Isolate::GetCurrent();
    std::u16string units(kBeginning, u'\0');
    const int count =
        value.As<v8::String>()->Write(isolate, reinterpret_cast<uint16_t*>(units.data()), 0, kBeginning);
    const auto beginning = v8::String::NewFromTwoByte(
        isolate, reinterpret_cast<const uint16_t*>(units.data()), v8::NewStringType::kNormal, count);
    return GetString(beginning.FromMaybe(v8::String::Empty(isolate))) + "…";
  }
}

}  // namespace

std::string StoppedText(const RunResult& stopped) {
  const ScriptPosition place = stopped.position();
  if (place.line == 0) return stopped.result();
  return stopped.result() + " at " + place.source + ':' + std::to_string(place.line) + ':' +
         std::to_string(place.column);
}

std::string MessageText(const v8::TryCatch& caught) {
  return caught.Message().IsEmpty() ? TextOrBeginning(caught.Exception())
                                    : TextOrBeginning(caught.Message()->Get());
}

std::string StackText(v8::Local<v8::Context> context, const v8::TryCatch& caught,
                      const std::string& otherwise) {
  v8::Local<v8::Value> stack;
  if (!caught.StackTrace(context).ToLocal(&stack)) return otherwise;
  const std::string text = TextOrBeginning(stack);
  return text.empty() ? otherwise : text;
}

}  // namespace vnjs
