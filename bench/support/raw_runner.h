#pragma once

#include <v8.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/raw_environment.h"

namespace vnjs::bench {

/// What a plain program has instead of a runner: a thread that waits for functions and calls them inside the isolate.
/// What a script throws is lost.
class RawRunner {
 public:
  using Task = std::function<void(v8::Local<v8::Context>)>;

  explicit RawRunner(RawEnvironment& environment);
  ~RawRunner();
  RawRunner(const RawRunner&) = delete;
  RawRunner& operator=(const RawRunner&) = delete;

  /// Any thread.
  void Post(Task task);

  /// Gives scripts a function. Before the first Post.
  void Define(const char* name, v8::FunctionCallback callback, void* data = nullptr);

 private:
  void Run();

  RawEnvironment& m_environment;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Task> m_tasks;
  bool m_stopping = false;
  std::thread m_thread;
};

}  // namespace vnjs::bench
