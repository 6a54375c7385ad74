#include "bench/support/raw_runner.h"

#include <utility>

#include "tests/support/inside.h"

namespace vnjs::bench {

RawRunner::RawRunner(RawEnvironment& environment) : m_environment(environment), m_thread([this] { Run(); }) {}

RawRunner::~RawRunner() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_changed.notify_one();
  m_thread.join();
}

void RawRunner::Post(Task task) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_tasks.push_back(std::move(task));
  }
  m_changed.notify_one();
}

void RawRunner::Define(const char* name, v8::FunctionCallback callback, void* data) {
  const testing::Inside inside(&m_environment);
  const auto function =
      v8::Function::New(inside.context, callback, v8::External::New(inside.isolate, data)).ToLocalChecked();
  const auto key = v8::String::NewFromUtf8(inside.isolate, name).ToLocalChecked();
  inside.context->Global()->Set(inside.context, key, function).Check();
}

void RawRunner::Run() {
  std::vector<Task> tasks;
  while (true) {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_changed.wait(lock, [this] { return m_stopping || !m_tasks.empty(); });
      if (m_tasks.empty()) return;
      tasks.swap(m_tasks);
    }
    const testing::Inside inside(&m_environment);
    for (const Task& task : tasks) {
      const v8::HandleScope scope(inside.isolate);
      const v8::TryCatch caught(inside.isolate);
      task(inside.context);
    }
    tasks.clear();
  }
}

}  // namespace vnjs::bench
