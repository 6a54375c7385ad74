#include "tests/support/script_test.h"

#include <unistd.h>

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

void CollectGarbage(Environment* environment) {
  v8::Isolate* const isolate = environment->GetIsolate();
  const v8::Locker locker(isolate);
  const v8::Isolate::Scope isolateScope(isolate);
  isolate->LowMemoryNotification();
}

ScriptTest::ScriptTest() {
  std::filesystem::create_directory(dir() + "storage");
  automation = std::make_unique<Automation>(dir().c_str());
  automation->SetLogger(NewLogger("test"));
}

ScriptTest::~ScriptTest() = default;

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
