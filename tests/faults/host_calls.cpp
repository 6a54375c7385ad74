// Host functions that call back into the library: no lock of an environment is held while one runs. In each of them
// another thread takes all locks there are; it must come back, however busy the library is.
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <set>
#include <string>

struct _VNLog {
} theLogger;

namespace {

using vnjs::Automation;
using vnjs::Environment;
using vnjs::SafeValue;
using vnjs::VRefCountedPointer;

/// Where host functions look; null while there is no environment.
std::atomic<Automation*> current{nullptr};
std::atomic<bool> interrupts{false};
thread_local bool inside = false;

std::mutex mutex;
std::set<std::string> seen;
/// A value to drop: the lock of dropped handles is one of them.
VRefCountedPointer<SafeValue> value;

void Expect(bool right, const std::string& otherwise) {
  if (right) return;
  fprintf(stderr, "%s\n", otherwise.c_str());
  _exit(1);
}

/// Every lock there is but the isolate's. HasPendingWork takes that of the timers as long as nothing is queued.
void TakeLocks(Automation* automation, bool threads) {
  inside = true;
  Environment* const environment = automation->GetEnvironment();
  automation->HasPendingWork();
  automation->GetLogger();
  environment->GetVariable("variable");
  environment->SetVariable("other variable", nullptr);
  if (threads) environment->GetThread("thread");
  if (interrupts) automation->Interrupt();
  const std::lock_guard<std::mutex> lock(mutex);
  value = nullptr;
}

/// Called by each host function. `threads` is false where the environment waits for the function under the lock of its
/// threads.
void Enter(const char* function, bool threads = true) {
  Automation* const automation = current;
  if (inside || automation == nullptr) return;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    seen.insert(function);
  }
  const auto done = std::async(std::launch::async, TakeLocks, automation, threads);
  const bool free = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  Expect(free, std::string("a lock is held in ") + function);
  TakeLocks(automation, threads);
  inside = false;
}

struct Callback : vnjs::CallbackBase {
  explicit Callback(Environment* env) : CallbackBase(env, {}) {}
  ~Callback() override { Enter("callback's destructor"); }
  void Call() override {
    Enter("callback");
    m_environment->Run("1", "callback");
  }
};

struct Variable : vnjs::EnvironmentVariable {
  ~Variable() override { Enter("variable's destructor"); }
  bool HasPendingWork() const override { return Enter("HasPendingWork"), false; }
  void OnEnvironmentEnd() override { Enter("OnEnvironmentEnd"); }
};

}  // namespace

extern "C" {
_VNLog* vlog_create(FILE*, int) { return Enter("vlog_create"), &theLogger; }
void vlog_write(_VNLog*, const char*, int, const char*, ...) { Enter("vlog_write"); }
void vlog_close(_VNLog*) { Enter("vlog_close"); }
void* _vassert(void* pointer, const char*) { return pointer; }
uint64_t get_local_time_ms(void) {
  Enter("get_local_time_ms");
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() /
                               std::chrono::milliseconds(1));
}
void set_thread_name(const char* name) { Enter("set_thread_name", strcmp(name, "vorn/core") == 0); }
char* sys_last_err_string(void) { return Enter("sys_last_err_string"), nullptr; }
}

namespace {

/// Has every host function called, and more than once.
void Use(bool worker) {
  Automation automation("/nowhere");
  Environment* const environment = automation.GetEnvironment();
  current = &automation;
  automation.GetLogger();
  if (worker) automation.StartThread();
  for (int round = 0; round < 3; ++round) {
    {
      v8::Isolate* const isolate = environment->GetIsolate();
      const v8::Locker locker(isolate);
      const v8::Isolate::Scope isolateScope(isolate);
      const v8::HandleScope handleScope(isolate);
      const std::lock_guard<std::mutex> lock(mutex);
      value = SafeValue::New(isolate, v8::Symbol::New(isolate));
    }
    environment->SetVariable("variable", new Variable);
    const auto wait = [](VRefCountedPointer<vnjs::Thread> thread) {
      while (!thread->IsTerminating()) usleep(1000);
      return 0;
    };
    environment->CreateThread("thread " + std::to_string(round), wait, nullptr);
    const char* const script =
        "var n = 0; setTimeout(() => { n++ }, 1); setTimeout(() => { n++; throw 1 }, 0); Promise.reject(1);"
        "debugPrint('text'); try { executeFile('nothing') } catch (e) { debugPrint(e) } 1";
    const std::string result = automation.Run(script, "script").result();
    Expect(result == "1" || interrupts, "the script's result is " + result);
    environment->PushCallback(new Callback(environment));
    while (automation.Run("n >= 2", "condition").result() != "true" && !interrupts) {
      if (!worker) automation.ProcessPendingCallbacks();
    }
    automation.SetLogger(nullptr);
    automation.GetLogger();
    automation.HasPendingWork();
  }
  // Left to the destructor.
  environment->PushCallback(new Callback(environment));
}

}  // namespace

int main() {
  // A deadlock that no host function sees, or timers that are never called.
  alarm(120);
  for (int way = 0; way < 4; ++way) {
    interrupts = way >= 2;
    Use(way % 2 == 1);
    current = nullptr;
  }
  for (const std::string& function : seen) puts(function.c_str());
  return seen.size() == 11 ? 0 : 1;
}
