// What becomes of scripts' values on their way to a host without the engine, through JSON, and back.
#include "bridge/native.h"
#include "fuzz/support.h"
#include "runner/conversion.h"
#include "runner/payload.h"

namespace {

using vnjs::fuzz::Info;

/// What is refused is the script's error.
template <typename Function>
void Converted(const Info& info, const Function& function) {
  v8::Isolate* const isolate = info.GetIsolate();
  vnjs::Conversion conversion(isolate, {}, 1, 64 << 20);
  if (!conversion.Prepare(isolate->GetCurrentContext())) return;
  try {
    const vnjs::Value value = function(conversion.ToHost(isolate->GetCurrentContext(), info[0]));
    info.GetReturnValue().Set(conversion.ToScript(isolate->GetCurrentContext(), value));
  } catch (const vnjs::Refusal& refusal) {
    vnjs::ThrowException(isolate, refusal.Text());
  } catch (const vnjs::ScriptError& error) {
    vnjs::ThrowException(isolate, error.message);
  } catch (const vnjs::PendingException&) {
    // It goes on in the script.
  }
}

}  // namespace

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() {
  const auto copy = [](const Info& info) { Converted(info, [](const Value& value) { return value; }); };
  const auto json = [](const Info& info) {
    Converted(info, [](const Value& value) {
      const std::string text = value.Json();
      if (!text.empty() && Value::FromJson(text).Json() != text) Break("JSON changes on its way");
      return Value(text);
    });
  };
  const auto parse = [](const Info& info) {
    Converted(info, [](const Value& text) { return Value::FromJson(text.As<std::string>()); });
  };
  // Changes of one copy that the other sees, and places that do not lead to their members.
  const auto change = [](const Info& info) {
    Converted(info, [](const Value& value) {
      Value changed = value;
      const std::string before = value.Json();
      if (value.type() == Value::Type::kArray) changed.Add(value);
      if (value.type() == Value::Type::kObject) changed.Set("changed", value);
      if (value.Json() != before) Break("a copy is changed with the other");
      for (const std::string& name : value.Names()) {
        if (changed[name].type() != value[name].type() && name != "changed") Break("a member is lost");
      }
      return changed;
    });
  };
  return {"/", {{"copy", copy}, {"json", json}, {"parse", parse}, {"change", change}}, {}};
}
