// What natives make of the script's values.
#include "bridge/native.h"
#include "fuzz/support.h"

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() {
  const auto text = [](const Info& info) { ReturnBytes(info, GetString(info[0])); };
  const auto truth = [](const Info& info) {
    info.GetReturnValue().Set(GetBoolean(info[0], info[1]->IsTrue()));
  };
  const auto bytes = [](const Info& info) {
    try {
      const ByteArray bytes(info[0]);
      const std::string content{bytes.ptr(), bytes.ptr() + bytes.size()};
      if (content != GetBytes(bytes.toJS(info.GetIsolate()))) Break("bytes change on their way");
      if (!content.empty() && !ByteArray::canBeArray(info[0])) Break("bytes of what cannot be an array");
      ReturnBytes(info, content);
    } catch (const VornException& e) {
      ReturnBytes(info, e.msg());
    }
  };
  const auto real = [](const Info& info) {
    const auto object = info[0].As<v8::Object>();
    info.GetReturnValue().Set(GetRealValue(info.GetIsolate(), object, info[1].As<v8::String>()));
  };
  const auto stringify = [](const Info& info) {
    info.GetReturnValue().Set(JSON_stringify(info.GetIsolate(), info[0]));
  };
  const auto parse = [](const Info& info) {
    info.GetReturnValue().Set(JSON_parse(info.GetIsolate(), info[0].As<v8::String>()));
  };
  return {"/",
          {{"readText", text},
           {"readTruth", truth},
           {"readBytes", bytes},
           {"readReal", real},
           {"stringify", stringify},
           {"parse", parse}},
          {}};
}
