#include "fuzz/support.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "bridge/native.h"
#include "engine/failure.h"
#include "tests/support/inside.h"

namespace vnjs::fuzz {
namespace {

std::string input, result;

/// Every descriptor that is left open makes it rise sooner or later.
int LowestFreeDescriptor() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(descriptor);
  return descriptor;
}

/// One environment for many inputs, and another one after so many of them, or when one has ended it.
class Runner {
 public:
  Runner() : m_target(MakeTarget()) {
    // Threads of the engine would make a finding hard to repeat.
    v8::V8::SetFlagsFromString("--single-threaded --expose-gc --allow-natives-syntax");
    m_target.natives.emplace_back("input", [](const Info& info) { ReturnBytes(info, input); });
    m_target.natives.emplace_back("result", [](const Info& info) { ReturnBytes(info, result); });
    m_target.natives.emplace_back("broken", [](const Info& info) { Break(GetString(info[0])); });
    for (const std::string& path : m_target.forbidden) {
      constexpr uint32_t kEvents = IN_OPEN | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVE;
      if (inotify_add_watch(m_watch, path.c_str(), kEvents) < 0) Break("cannot watch " + path);
    }
  }
  ~Runner() { End(); }

  /// Callbacks run in between, as long as the script has more to do.
  void RunInput() {
    if (m_automation == nullptr) Start();
    [[maybe_unused]] const int descriptor = LowestFreeDescriptor();
    result = Require(m_automation->Run("begin(); fuzz()", "input"));
    do m_automation->ProcessPendingCallbacks();
    while (Require(m_automation->Run("goOn()", "input")) == "true");
#ifndef __SANITIZE_THREAD__  // It opens files of its own.
    if (LowestFreeDescriptor() != descriptor) Break("a descriptor is left open");
#endif
    char events[4096];
    if (read(m_watch, events, sizeof events) > 0) Break("somebody was where nobody may be");
    if (m_automation->IsTerminating() || ++m_inputs == 500) End();
  }

 private:
  void Start() {
    m_inputs = 0;
    m_automation = std::make_unique<Automation>(m_target.folder.c_str());
    const testing::Inside inside(m_automation->GetEnvironment());
    for (const auto& [name, native] : m_target.natives) {
      const auto function = v8::Function::New(inside.context, native).ToLocalChecked();
      inside.context->Global()->Set(inside.context, NewName(inside.isolate, name), function).Check();
    }
    for (const char* const script : {"input.js", VNJS_FUZZ_SCRIPT})
      Require(m_automation->RunFile((std::string(VNJS_FUZZ_FOLDER) + script).c_str()));
  }

  /// Values that take more memory than there is, such as the text of an array-like with a huge length, are no fault.
  std::string Require(const RunResult& outcome) const {
    const bool isAllowed = m_automation->IsTerminating() || outcome.result() == kOutOfMemoryText;
    if (outcome.isException() && !isAllowed) Break(outcome.result());
    return outcome.result();
  }

  void End() {
    m_automation.reset();
    m_target.afterEnvironment();
  }

  Target m_target;
  const int m_watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  int m_inputs = 0;
  std::unique_ptr<Automation> m_automation;
};

}  // namespace

void Break(const std::string& what) {
  fprintf(stderr, "BROKEN: %s\n", what.c_str());
  abort();
}

std::string GetBytes(v8::Local<v8::Value> value) {
  const ByteArray bytes(value);
  return {bytes.ptr(), bytes.ptr() + bytes.size()};
}

void ReturnBytes(const Info& info, const std::string& bytes) {
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto size = static_cast<int>(bytes.size());
  info.GetReturnValue().Set(
      v8::String::NewFromOneByte(info.GetIsolate(), data, v8::NewStringType::kNormal, size).ToLocalChecked());
}

}  // namespace vnjs::fuzz

/// Freed memory is overwritten, so that the libraries that are not compiled with the sanitizer stumble over it, too.
/// Of the stacks of allocations, each of which is kept for good, it takes only what is above the script.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1:"
         "max_free_fill_size=65536:free_fill_byte=221:malloc_context_size=8";
}

/// Stands in front of the system's: the isolate, which callbacks leave to others for 10 ms each time, has no others.
extern "C" int usleep(useconds_t microseconds) {
  return getpid() == gettid() ? sched_yield() : poll(nullptr, 0, static_cast<int>(microseconds / 1000));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vnjs::fuzz::Runner runner;
  vnjs::fuzz::input.assign(data, data + size);
  runner.RunInput();
  return 0;
}
