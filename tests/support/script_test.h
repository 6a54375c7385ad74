#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vnjs/vnjs.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/test_host.h"

namespace vnjs::testing {

/// A script text and the exact text that it results in.
struct Case {
  const char* code;
  const char* expected;
};

/// An empty folder that is removed, with all that is in it, at the end of the scope.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();

  /// Ends in "/".
  const std::string& path() const { return m_path; }
  void Write(const std::string& name, const std::string& content) const;
  std::string Read(const std::string& name) const;

 private:
  std::string m_path;
};

/// Waits until `condition` holds, at most 20 s. Returns whether it came to hold.
template <typename Condition>
bool WaitUntil(Condition condition);
bool WaitUntilTrue(bool (*condition)(void*), void* data);
template <typename Condition>
bool WaitUntil(Condition condition) {
  return WaitUntilTrue([](void* data) { return static_cast<bool>((*static_cast<Condition*>(data))()); },
                       &condition);
}

/// The scopes that a host's own code needs around what it does with script values.
class Inside {
 public:
  explicit Inside(Environment* environment);
  v8::Local<v8::Value> Eval(const std::string& code) const;

  v8::Isolate* const isolate;

 private:
  const v8::Locker m_locker;
  const v8::Isolate::Scope m_isolateScope;
  const v8::HandleScope m_handleScope;

 public:
  const v8::Local<v8::Context> context;

 private:
  const v8::Context::Scope m_contextScope;
};

/// Calls a function on so many threads at the same time, with the number of each.
void AtOnce(int threads, const std::function<void(int)>& function);

/// Calls a function on a thread of its own, which has a stack of that size.
void OnStack(size_t bytes, std::function<void()> function);

/// Collects all garbage, as natives-syntax-free hosts can: the isolate's low-memory notification, under its
/// lock.
void CollectGarbage(Environment* environment);

/// One environment in a folder of its own, which has an empty "storage/".
class ScriptTest : public ::testing::Test {
 protected:
  ScriptTest();
  ~ScriptTest() override;

  /// Another environment in place of the one that there is, with these limits.
  void MakeAgain(size_t heapBytes, size_t bufferBytes);

  /// The result text; a script exception fails the test.
  std::string Run(const std::string& code, const char* source = "test.js");

  /// The exception's text; a script that ends normally fails the test.
  std::string Fail(const std::string& code, const char* source = "test.js");

  void RunAll(const std::vector<Case>& cases);

  /// Runs the rows of a table, each of which is script text and the exact text that it results in:
  /// `CODE ==> TEXT`. The code may begin on lines above; an exception's text begins with "Uncaught".
  void RunTable(const std::string& table);

  /// Runs callbacks until the script expression is true, at most 20 s.
  void PumpUntil(const std::string& expression);

  /// The texts logged so far at `level` or above; level 1 without the "Executing script: " lines.
  std::vector<std::string> LogLines(int level = 1) const;

  Environment* environment() { return automation->GetEnvironment(); }
  const std::string& dir() const { return folder.path(); }

  TemporaryFolder folder;
  std::unique_ptr<Automation> automation;
};

}  // namespace vnjs::testing
