#include "engine/array_buffer_allocator.h"

#include <cstdlib>
#include <cstring>

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

std::shared_ptr<v8::ArrayBuffer::Allocator> ABMallocAllocator::Shared() {
  // Never destroyed: an environment may outlive the statics of this library.
  static auto* const allocator =
      new std::shared_ptr<v8::ArrayBuffer::Allocator>(std::make_shared<ABMallocAllocator>());
  return *allocator;
}

}  // namespace vnjs
