// A table of timers beside the environment's own, which nobody but the script passes time to.
#include "bridge/native.h"
#include "fuzz/support.h"
#include "modules/timers/timers.h"

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() {
  static VRefCountedPointer<Timers::TimersContext> table;
  const auto renew = [](const Info& info) {
    const uint32_t lastId = info[0].As<v8::Uint32>()->Value();
    table = new Timers::TimersContext(GetEnvironment(info.GetIsolate()), lastId);
  };
  const auto add = [](const Info& info) {
    const int32_t delay = info[1].As<v8::Int32>()->Value();
    info.GetReturnValue().Set(table->Add(info.GetIsolate(), info[0], delay, info[2]->IsTrue()));
  };
  const auto clear = [](const Info& info) {
    info.GetReturnValue().Set(table->Clear(info[0].As<v8::Uint32>()->Value(), info[1]->IsTrue()));
  };
  const auto pass = [](const Info& info) { table->Pass(info[0].As<v8::Int32>()->Value()); };
  const auto isPending = [](const Info& info) { info.GetReturnValue().Set(table->HasPendingWork()); };
  return {
      "/", {{"renew", renew}, {"add", add}, {"clear", clear}, {"pass", pass}, {"isPending", isPending}}, {}};
}
