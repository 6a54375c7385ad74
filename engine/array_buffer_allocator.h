#pragma once

#include <v8.h>

#include <memory>

namespace vnjs {

/// The memory behind script buffers: plain malloc. Any thread; a failed allocation returns null, which
/// scripts see as a RangeError.
class ABMallocAllocator : public v8::ArrayBuffer::Allocator {
 public:
  ABMallocAllocator();
  ~ABMallocAllocator() override;

  void* Allocate(size_t length) override;
  void* AllocateUninitialized(size_t length) override;
  void Free(void* data, size_t length) override;

  /// The one allocator of the process. Isolates and buffers share it, so it lives as long as the last of
  /// them.
  static std::shared_ptr<v8::ArrayBuffer::Allocator> Shared();
};

}  // namespace vnjs
