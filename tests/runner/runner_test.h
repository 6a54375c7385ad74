#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vnjs/runner.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace vnjs::testing {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Waits until `condition` holds, at most 20 s. Returns whether it came to hold.
bool WaitUntil(const std::function<bool()>& condition);

/// A runner in a folder of its own, whose log is kept.
class RunnerTest : public ::testing::Test {
 protected:
  RunnerTest() { Make({}); }

  /// Another one in place of the one that there is. Its scripts have `note(text)`.
  void Make(RunnerOptions options) {
    runner.reset();
    options.name = "hall";
    options.storageDir = folder.path();
    options.log = [this](const LogLine& line) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.push_back(line);
    };
    runner = std::make_unique<Runner>(std::move(options));
    runner->Define("note(text)", [this](const std::string& text) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_notes.push_back(text);
    });
  }

  void Start(const std::string& code) {
    const ScriptError error = runner->StartCode(code.c_str(), "hall.js");
    EXPECT_FALSE(error) << error.message;
  }

  /// The value of code; its error fails the test.
  Value Eval(const std::string& code) {
    const auto [value, error] = Try(code);
    EXPECT_FALSE(error) << code << "\nfailed: " << error.message;
    return value;
  }

  std::pair<Value, ScriptError> Try(const std::string& code) {
    // Of its own, because a runner that stops lets go of who waits.
    auto answer = std::make_shared<std::promise<std::pair<Value, ScriptError>>>();
    auto future = answer->get_future();
    EXPECT_TRUE(runner->Eval(code, "test", [answer](const Value& value, const ScriptError& error) {
      answer->set_value({value, error});
    }));
    answer.reset();
    if (future.wait_for(20s) != std::future_status::ready)
      return {{}, {ErrorKind::kHost, "no answer", "", ""}};
    return future.get();
  }
  std::string Fail(const std::string& code) { return Try(code).second.message; }

  std::vector<std::string> Notes() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_notes;
  }
  std::vector<LogLine> Lines(int level = 3) {
    std::vector<LogLine> lines;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const LogLine& line : m_lines) {
      if (line.level >= level) lines.push_back(line);
    }
    return lines;
  }

  TemporaryFolder folder;

 private:
  std::mutex m_mutex;
  std::vector<LogLine> m_lines;
  std::vector<std::string> m_notes;

 protected:
  std::unique_ptr<Runner> runner;
};

}  // namespace vnjs::testing
