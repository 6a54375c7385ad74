// Host functions that take long, and that call back into the library: no lock of an environment is held while one
// runs. In each of them another thread takes all locks there are; it must come back, however busy the library is.
#include <pthread.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>

struct _VNLog {
} theLogger;

namespace {

using vnjs::Automation;
using vnjs::Environment;
using vnjs::VRefCountedPointer;
using Clock = std::chrono::steady_clock;

/// Where host functions look; null while there is no environment.
std::atomic<Automation*> current{nullptr};
std::atomic<bool> slow{false};
std::atomic<bool> interrupts{false};
thread_local bool inside = false;

std::mutex seenMutex;
std::set<std::string> seen;

VRefCountedPointer<vnjs::SafeValue> NewValue(Environment* environment) {
  v8::Isolate* const isolate = environment->GetIsolate();
  const v8::Locker locker(isolate);
  const v8::Isolate::Scope isolateScope(isolate);
  const v8::HandleScope handleScope(isolate);
  return vnjs::SafeValue::New(isolate, v8::Symbol::New(isolate));
}

/// A value to drop: the lock of dropped handles is one of them.
std::mutex valueMutex;
VRefCountedPointer<vnjs::SafeValue> value;

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
  const std::lock_guard<std::mutex> lock(valueMutex);
  value = nullptr;
}

/// Called by each host function. `threads` is false where the environment waits for the function under the lock of its
/// threads.
void Enter(const char* function, bool threads = true) {
  if (inside) return;
  Automation* const automation = current;
  if (automation == nullptr) return;
  {
    const std::lock_guard<std::mutex> lock(seenMutex);
    seen.insert(function);
  }
  inside = true;
  std::packaged_task<void()> task([&] { TakeLocks(automation, threads); });
  std::future<void> done = task.get_future();
  std::thread other(std::move(task));
  if (done.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    fprintf(stderr, "a lock is held in %s\n", function);
    _exit(1);
  }
  other.join();
  TakeLocks(automation, threads);
  if (slow) usleep(20000);
  inside = false;
}

struct Callback : vnjs::CallbackBase {
  explicit Callback(Environment* env) : CallbackBase(env, VRefCountedPointer<vnjs::SafeValue>()) {}
  ~Callback() override { Enter("callback's destructor"); }
  void Call() override {
    Enter("callback");
    m_environment->Run("1", "callback");
  }
};

struct Variable : vnjs::EnvironmentVariable {
  ~Variable() override { Enter("variable's destructor"); }
  bool HasPendingWork() const override {
    Enter("HasPendingWork");
    return false;
  }
  void OnEnvironmentEnd() override { Enter("OnEnvironmentEnd"); }
};

/// A script run from a logger, now and then.
std::atomic<int> runs{0};
void RunInside() {
  Automation* const automation = current;
  if (automation == nullptr || inside || runs++ % 10 != 0) return;
  inside = true;
  automation->Run("1", "host function");
  inside = false;
}

}  // namespace

extern "C" {
_VNLog* vlog_create(FILE*, int) {
  Enter("vlog_create");
  return &theLogger;
}
void vlog_write(_VNLog*, const char*, int, const char*, ...) {
  Enter("vlog_write");
  RunInside();
}
void vlog_close(_VNLog*) { Enter("vlog_close"); }
void* _vassert(void* pointer, const char*) { return pointer; }
uint64_t get_local_time_ms(void) {
  Enter("get_local_time_ms");
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}
void set_thread_name(const char* name) { Enter("set_thread_name", strcmp(name, "vorn/core") == 0); }
char* sys_last_err_string(void) {
  Enter("sys_last_err_string");
  return strdup("no reason");
}
}

namespace {

void Fail(const std::string& what) {
  fprintf(stderr, "%s\n", what.c_str());
  _exit(1);
}

int Wait(VRefCountedPointer<vnjs::Thread> thread) {
  while (!thread->IsTerminating()) usleep(1000);
  return 0;
}

/// Has every host function called, and more than once.
void Use(bool worker) {
  Automation automation("/nowhere");
  Environment* const environment = automation.GetEnvironment();
  current = &automation;
  automation.GetLogger();
  if (worker) automation.StartThread();
  const char* const script =
      "var n = 0; setTimeout(() => { n++ }, 1); setTimeout(() => { n++; throw 1 }, 0); Promise.reject(1);"
      "debugPrint('text'); try { executeFile('nothing') } catch (e) { debugPrint(e) } 1";
  for (int round = 0; round < 3; ++round) {
    {
      const auto made = NewValue(environment);
      const std::lock_guard<std::mutex> lock(valueMutex);
      value = made;
    }
    environment->SetVariable("variable", new Variable);
    environment->CreateThread("thread " + std::to_string(round), Wait, nullptr);
    const std::string result = automation.Run(script, "script").result();
    if (result != "1" && !interrupts) Fail("the script's result is " + result);
    environment->PushCallback(new Callback(environment));
    automation.SetLogger(nullptr);
    automation.GetLogger();
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (automation.Run("n >= 2", "condition").result() != "true" && !interrupts) {
      if (Clock::now() > deadline) Fail("the timers are not called");
      if (!worker) automation.ProcessPendingCallbacks();
    }
    automation.HasPendingWork();
  }
  // Left to the destructor.
  environment->PushCallback(new Callback(environment));
}

}  // namespace

int main() {
  // A deadlock that no host function sees.
  alarm(120);
  for (const bool interrupting : {false, true}) {
    for (const bool isSlow : {false, true}) {
      for (const bool worker : {false, true}) {
        slow = isSlow;
        interrupts = interrupting;
        Use(worker);
        current = nullptr;
      }
    }
  }
  for (const std::string& function : seen) puts(function.c_str());
  return seen.size() == 11 ? 0 : 1;
}
