#include "tests/support/script_test.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

namespace vnjs::testing {

bool WaitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

void AtOnce(int threads, const std::function<void(int)>& function) {
  std::vector<std::thread> running;
  running.reserve(static_cast<size_t>(threads));
  for (int i = 0; i < threads; ++i) running.emplace_back(function, i);
  for (std::thread& thread : running) thread.join();
}

void OnStack(size_t bytes, std::function<void()> function) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer takes too much of a small stack for itself";
#endif
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, bytes);
  pthread_t thread{};
  const auto call = [](void* data) -> void* {
    return (*static_cast<std::function<void()>*>(data))(), nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, call, &function), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

void CollectGarbage(Environment* environment) { Inside(environment).isolate->LowMemoryNotification(); }

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

ScriptTest::ScriptTest() {
  std::filesystem::create_directory(dir() + "storage");
  MakeAgain();
}

ScriptTest::~ScriptTest() = default;

void ScriptTest::MakeAgain(size_t heapBytes, size_t bufferBytes) {
  Automation::SetLimits(heapBytes, bufferBytes);
  automation = std::make_unique<Automation>(dir().c_str());
  automation->SetLogger(NewLogger("test"));
  Automation::SetLimits(kLimit, kLimit);
}

std::string ScriptTest::Run(const std::string& code, const char* source) {
  const RunResult result = automation->Run(code.c_str(), source);
  EXPECT_FALSE(result.isException()) << code << "\nthrew " << result.result();
  return result.result();
}

std::string ScriptTest::Fail(const std::string& code, const char* source) {
  const RunResult result = automation->Run(code.c_str(), source);
  EXPECT_TRUE(result.isException()) << code << "\nresulted in " << result.result();
  return result.result();
}

void ScriptTest::Terminate(const std::string& code) {
  std::thread host([this] {
    EXPECT_TRUE(WaitUntil([this] { return !LogLines().empty(); }));
    environment()->GetIsolate()->TerminateExecution();
  });
  Fail(code);
  host.join();
}

void ScriptTest::RunTable(const std::string& table) {
  std::istringstream lines(table);
  std::string code;
  for (std::string line; std::getline(lines, line);) {
    const size_t arrow = line.find("==>");
    code += line.substr(0, arrow) + '\n';
    if (arrow == std::string::npos) continue;
    const std::string expected = line.substr(std::min(line.find_first_not_of(' ', arrow + 3), line.size()));
    EXPECT_EQ(automation->Run(code.c_str(), "test.js").result(), expected) << code;
    code.clear();
  }
  EXPECT_EQ(code.find_first_not_of(" \n"), std::string::npos) << "no result given for " << code;
}

size_t ScriptTest::UsedHeap() {
  CollectGarbage(environment());
  v8::HeapStatistics statistics;
  Inside(environment()).isolate->GetHeapStatistics(&statistics);
  return statistics.used_heap_size();
}

int64_t ScriptTest::UsedOutside() {
  CollectGarbage(environment());
  return Inside(environment()).isolate->AdjustAmountOfExternalAllocatedMemory(0);
}

void ScriptTest::Push(std::function<void()> function) {
  struct HostCallback : CallbackBase {
    HostCallback(Environment* env, std::function<void()> made)
        : CallbackBase(env, {}), function(std::move(made)) {}
    void Call() override { function(); }
    const std::function<void()> function;
  };
  environment()->PushCallback(new HostCallback(environment(), std::move(function)));
}

void ScriptTest::PumpUntil(const std::string& expression) {
  const bool reached = WaitUntil([&] {
    automation->ProcessPendingCallbacks();
    return automation->Run(("!!(" + expression + ")").c_str(), nullptr).result() == "true";
  });
  EXPECT_TRUE(reached) << "never true: " << expression;
}

std::vector<std::string> ScriptTest::LogLines(int level) const {
  std::vector<std::string> texts;
  for (const LogLine& line : LinesOf("test")) {
    const bool note = line.level == 1 && line.text.rfind("Executing script: ", 0) == 0;
    if (line.level >= level && !note) texts.push_back(line.text);
  }
  return texts;
}

}  // namespace vnjs::testing
