#include "bridge/stack_limit.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>

namespace vnjs {

namespace {

/// What the engine gives to scripts by default (its --stack-size).
constexpr uintptr_t kScriptStack = 984 * 1024;

/// Left below a script's deepest frame for natives and the engine's own functions, half the stack on tiny
/// ones.
constexpr uintptr_t kReserve = 128 * 1024;

struct StackBounds {
  uintptr_t lowest = 0;
  uintptr_t size = 0;

  StackBounds() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    void* address = nullptr;
    size_t bytes = 0;
    if (pthread_attr_getstack(&attributes, &address, &bytes) == 0) {
      lowest = reinterpret_cast<uintptr_t>(address);
      size = bytes;
    }
    pthread_attr_destroy(&attributes);
  }
};

/// The lowest address for natives that call each other.
thread_local uintptr_t t_lowest = 0;

}  // namespace

void LimitStack(v8::Isolate* isolate) {
  // Kept, because for the main thread the system reads a file to find out.
  thread_local const StackBounds bounds;
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  uintptr_t limit = here > kScriptStack ? here - kScriptStack : 1;
  uintptr_t reserve = kReserve;
  // A host's fibre runs on a stack that the system does not know; the engine's assumption must do there.
  if (here - bounds.lowest < bounds.size) {
    reserve = std::min(kReserve, bounds.size / 2);
    limit = std::max(limit, bounds.lowest + reserve);
  }
  isolate->SetStackLimit(limit);
  t_lowest = limit - std::min(limit, reserve / 2);
}

bool IsStackUsedUp() { return reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) < t_lowest; }

}  // namespace vnjs
