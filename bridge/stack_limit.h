#pragma once

#include <v8.h>

namespace vnjs {

/// Tells the engine where the calling thread's stack ends, so that endless recursion is a RangeError on every
/// thread. The engine only assumes that about 1 MB is there below the first frame it sees of a thread.
/// Under the isolate's lock, each time a thread enters it.
void LimitStack(v8::Isolate* isolate);

}  // namespace vnjs
