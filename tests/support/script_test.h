#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vnjs/vnjs.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/inside.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/test_host.h"

namespace vnjs::testing {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

/// Waits until `condition` holds, at most 20 s. Returns whether it came to hold.
bool WaitUntil(const std::function<bool()>& condition);

/// Calls a function on so many threads at the same time, with the number of each.
void AtOnce(int threads, const std::function<void(int)>& function);

/// Calls a function on a thread of its own, which has a stack of that size. Skips the test under ThreadSanitizer.
void OnStack(size_t bytes, std::function<void()> function);

void CollectGarbage(Environment* environment);

/// How many descriptors this process has open.
std::ptrdiff_t OpenDescriptors();

/// One environment in a folder of its own, which has an empty "storage/".
class ScriptTest : public ::testing::Test {
 protected:
  ScriptTest();
  ~ScriptTest() override;

  /// Another environment in place of the one that there is, with these limits.
  void MakeAgain(size_t heapBytes = kLimit, size_t bufferBytes = kLimit);
  static constexpr size_t kLimit = 64 << 20;

  /// The result text; a script exception fails the test.
  std::string Run(const std::string& code, const char* source = "test.js");

  /// The exception's text; a script that ends normally fails the test.
  std::string Fail(const std::string& code, const char* source = "test.js");

  /// Runs a script that the host terminates once it has printed something.
  void Terminate(const std::string& code);

  /// Runs the rows of a table, each of which is script text and the exact text that it results in:
  /// `CODE ==> TEXT`. The code may begin on lines above; an exception's text begins with "Uncaught".
  void RunTable(const std::string& table);

  /// What is left after a collection, in bytes: in the engine's heap, and outside of it as the engine was told.
  size_t UsedHeap();
  int64_t UsedOutside();

  /// Queues a callback of the host's.
  void Push(std::function<void()> function);

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
