#include "tests/support/script_test.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace vnjs::testing {

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vnjs-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
  m_path = pattern + "/";
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

void TemporaryFolder::Write(const std::string& name, const std::string& content) const {
  std::ofstream(m_path + name, std::ios::binary) << content;
}

std::string TemporaryFolder::Read(const std::string& name) const {
  std::ostringstream text;
  text << std::ifstream(m_path + name, std::ios::binary).rdbuf();
  return text.str();
}

bool WaitUntilTrue(bool (*condition)(void*), void* data) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition(data)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

Inside::Inside(Environment* environment)
    : isolate(environment->GetIsolate()),
      m_locker(isolate),
      m_isolateScope(isolate),
      m_handleScope(isolate),
      context(environment->GetContext()),
      m_contextScope(context) {}

v8::Local<v8::Value> Inside::Eval(const std::string& code) const {
  const v8::Local<v8::String> text = v8::String::NewFromUtf8(isolate, code.c_str()).ToLocalChecked();
  return v8::Script::Compile(context, text).ToLocalChecked()->Run(context).ToLocalChecked();
}

void AtOnce(int threads, const std::function<void(int)>& function) {
  std::vector<std::thread> running;
  running.reserve(static_cast<size_t>(threads));
  for (int i = 0; i < threads; ++i) running.emplace_back(function, i);
  for (std::thread& thread : running) thread.join();
}

void OnStack(size_t bytes, std::function<void()> function) {
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

ScriptTest::ScriptTest() {
  std::filesystem::create_directory(dir() + "storage");
  automation = std::make_unique<Automation>(dir().c_str());
  automation->SetLogger(NewLogger("test"));
}

ScriptTest::~ScriptTest() = default;

void ScriptTest::MakeAgain(size_t heapBytes, size_t bufferBytes) {
  constexpr size_t kDefault = 64 << 20;
  Automation::SetLimits(heapBytes, bufferBytes);
  automation = std::make_unique<Automation>(dir().c_str());
  automation->SetLogger(NewLogger("test"));
  Automation::SetLimits(kDefault, kDefault);
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

void ScriptTest::RunAll(const std::vector<Case>& cases) {
  for (const Case& test : cases) {
    EXPECT_EQ(automation->Run(test.code, "test.js").result(), test.expected) << test.code;
  }
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
