#pragma once

#include <v8.h>

namespace vnjs {

/// Tells the engine where the calling thread's stack ends, so that endless recursion is a RangeError on every
/// thread. The engine only assumes that about 1 MB is there below the first frame it sees of a thread.
/// Under the isolate's lock, each time a thread enters it.
void LimitStack(v8::Isolate* isolate);

/// For natives that the engine may call inside one another without any script between them, which is where it looks at
/// the limit: whether the calling thread is so far below its limit that this one must go no deeper.
bool IsStackUsedUp();

}  // namespace vnjs
