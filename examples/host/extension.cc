// A host that gives scripts functions of its own: one that acts, and one that calls them back for what happens
// elsewhere, here on a thread that stands for a motion detector.
#include <vnjs/vnjs.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

namespace {

vnjs::Environment* GetEnvironment(v8::Isolate* isolate) {
  return static_cast<vnjs::Environment*>(isolate->GetData(0));
}

/// What the extension keeps for one environment.
class Detector : public vnjs::EnvironmentVariable {
 public:
  explicit Detector(const vnjs::VRefCountedPointer<vnjs::SafeValue>& listener) : listener(listener) {}

  /// Keeps a host that asks Automation::HasPendingWork from ending too early.
  bool HasPendingWork() const override { return motionsLeft > 0; }

  const vnjs::VRefCountedPointer<vnjs::SafeValue> listener;
  std::atomic<int> motionsLeft{3};
};

const char kDetector[] = "house/detector";

/// One motion, on its way to the script.
class Motion : public vnjs::CallbackBase {
 public:
  using CallbackBase::CallbackBase;

  void Call() override {
    v8::Isolate* const isolate = m_environment->GetIsolate();
    v8::Local<v8::Value> room = v8::String::NewFromUtf8Literal(isolate, "hall");
    const v8::Local<v8::Value> listener = m_callback->GetValue();
    v8::Local<v8::Value> ignored;
    // What the function throws stays pending: the environment logs it.
    if (!listener.As<v8::Function>()->Call(m_environment->GetContext(), listener, 1, &room).ToLocal(&ignored))
      return;
  }
};

/// It must look now and then whether the environment wants to end. It never touches the engine.
int Watch(vnjs::VRefCountedPointer<vnjs::Thread> thread) {
  vnjs::Environment* const environment = thread->GetEnvironment();
  while (!thread->IsTerminating()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto variable = environment->GetVariable(kDetector);
    if (variable.is_empty()) break;
    auto* const detector = static_cast<Detector*>(variable.get_ptr());
    environment->PushCallback(new Motion(environment, detector->listener));
    if (--detector->motionsLeft == 0) break;
  }
  return 0;
}

class House : public vnjs::Module {
 public:
  House() : Module("house", kSource, 0, nullptr, -1) {}

  v8::Local<v8::FunctionTemplate> GetFunction(vnjs::Environment*, v8::Isolate* isolate,
                                              std::string name) override {
    return v8::FunctionTemplate::New(isolate, name == "switchLamp" ? SwitchLamp : OnMotion);
  }

 private:
  // Every context runs this before any script.
  static constexpr char kSource[] = "native function switchLamp(); native function onMotion();";

  static void SwitchLamp(const v8::FunctionCallbackInfo<v8::Value>& info) {
    const std::string room = vnjs::GetString(info[0]);
    if (room.empty()) {
      vnjs::ThrowException(info.GetIsolate(), "switchLamp() needs the name of a room");
      return;
    }
    printf("The lamp in the %s is %s.\n", room.c_str(), vnjs::GetBoolean(info[1], false) ? "on" : "off");
  }

  static void OnMotion(const v8::FunctionCallbackInfo<v8::Value>& info) {
    if (!info[0]->IsFunction()) {
      vnjs::ThrowException(info.GetIsolate(), "onMotion() needs a function");
      return;
    }
    vnjs::Environment* const environment = GetEnvironment(info.GetIsolate());
    environment->SetVariable(kDetector, new Detector(vnjs::SafeValue::New(info.GetIsolate(), info[0])));
    try {
      environment->CreateThread(kDetector, Watch, nullptr);
    } catch (const vnjs::VornException& e) {
      // Nothing native may be thrown through the engine.
      vnjs::ThrowException(info.GetIsolate(), e.msg());
    }
  }
};

}  // namespace

int main() {
  // Before the first environment: this one and all later ones have the functions.
  v8::RegisterExtension(std::make_unique<House>());

  vnjs::Automation automation(".");
  const vnjs::RunResult result = automation.Run(
      "var seen = 0; onMotion(function (room) { switchLamp(room, ++seen % 2 === 1); }); switchLamp('garage', "
      "true)",
      "motion.js");
  if (result.isException()) printf("%s\n", result.result().c_str());
  while (automation.HasPendingWork()) {
    if (!automation.ProcessPendingCallbacks()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return result.isException() ? 1 : 0;
}
