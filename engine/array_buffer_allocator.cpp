#include "engine/array_buffer_allocator.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace vnjs {

ABMallocAllocator::ABMallocAllocator() = default;
ABMallocAllocator::~ABMallocAllocator() = default;

void* ABMallocAllocator::Allocate(size_t length) {
  void* const data = AllocateUninitialized(length);
  if (data != nullptr) memset(data, 0, length);
  return data;
}

void* ABMallocAllocator::AllocateUninitialized(size_t length) { return malloc(length); }

void ABMallocAllocator::Free(void* data, size_t length) { free(data); }

std::shared_ptr<v8::ArrayBuffer::Allocator> SharedAllocator() {
  // Never destroyed: an environment may outlive the statics of this library.
  static auto* const allocator =
      new std::shared_ptr<v8::ArrayBuffer::Allocator>(std::make_shared<ABMallocAllocator>());
  return *allocator;
}

LimitedAllocator::LimitedAllocator(std::shared_ptr<MemoryBudget> budget) : m_budget(std::move(budget)) {}
LimitedAllocator::~LimitedAllocator() = default;

template <typename Allocation>
void* LimitedAllocator::Limited(size_t length, const Allocation& allocate) {
  if (!m_budget->Take(length)) return nullptr;
  void* const data = allocate();
  if (data == nullptr) m_budget->Give(length);
  return data;
}

void* LimitedAllocator::Allocate(size_t length) {
  return Limited(length, [&] { return m_memory->Allocate(length); });
}

void* LimitedAllocator::AllocateUninitialized(size_t length) {
  return Limited(length, [&] { return m_memory->AllocateUninitialized(length); });
}

void LimitedAllocator::Free(void* data, size_t length) {
  m_memory->Free(data, length);
  m_budget->Give(length);
}

}  // namespace vnjs
