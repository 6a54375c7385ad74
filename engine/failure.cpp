#include "engine/failure.h"

#include "bridge/native.h"

namespace vnjs {

std::string StoppedText(const RunResult& stopped) {
  const ScriptPosition place = stopped.position();
  if (place.line == 0) return stopped.result();
  return stopped.result() + " at " + place.source + ':' + std::to_string(place.line) + ':' +
         std::to_string(place.column);
}

std::string MessageText(const v8::TryCatch& caught) {
  return caught.Message().IsEmpty() ? GetText(caught.Exception()) : GetText(caught.Message()->Get());
}

std::string StackText(v8::Local<v8::Context> context, const v8::TryCatch& caught,
                      const std::string& otherwise) {
  v8::Local<v8::Value> stack;
  if (!caught.StackTrace(context).ToLocal(&stack)) return otherwise;
  const std::string text = GetText(stack);
  return text.empty() ? otherwise : text;
}

}  // namespace vnjs
