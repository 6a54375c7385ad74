#pragma once

#include <v8.h>
#include <vnjs/export.h>

#include <cstddef>

namespace vnjs {

/// The memory behind script buffers: plain malloc. Any thread; a failed allocation returns null, which
/// scripts see as a RangeError. For hosts that make isolates of their own; those that derive from it compile that file
/// with -fno-rtti, because the engine exports no type information.
class VNJS_API ABMallocAllocator : public v8::ArrayBuffer::Allocator {
 public:
  /// It has no state.
  ABMallocAllocator();
  ~ABMallocAllocator() override;

  /// @{ As the engine asks for it: bytes that are zero, bytes as they come, and an end to either.
  void* Allocate(size_t length) override;
  void* AllocateUninitialized(size_t length) override;
  void Free(void* data, size_t length) override;
  /// @}
};

}  // namespace vnjs
