#pragma once

#include <vnjs/array_buffer_allocator.h>

#include <memory>
#include <utility>

#include "bridge/memory_budget.h"

namespace vnjs {

/// The one allocator of the process. Isolates and buffers share it, so it lives as long as the last of them.
std::shared_ptr<v8::ArrayBuffer::Allocator> SharedAllocator();

/// What an isolate is given: the one allocator, as long as the environment's budget allows it. The engine collects
/// garbage and asks again before it takes a no for an answer.
class LimitedAllocator : public v8::ArrayBuffer::Allocator {
 public:
  explicit LimitedAllocator(std::shared_ptr<MemoryBudget> budget);
  ~LimitedAllocator() override;

  void* Allocate(size_t length) override;
  void* AllocateUninitialized(size_t length) override;
  void Free(void* data, size_t length) override;

 private:
  template <typename Allocation>
  void* Limited(size_t length, const Allocation& allocate);

  const std::shared_ptr<MemoryBudget> m_budget;
  const std::shared_ptr<v8::ArrayBuffer::Allocator> m_memory = SharedAllocator();
};

}  // namespace vnjs
