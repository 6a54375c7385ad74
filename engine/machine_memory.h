#pragma once

#include <cstddef>

namespace vnjs {

/// What this process may use of the machine's memory, in bytes: all of it, or the limit of a control group around the
/// process, whichever is less. Read from the system once per process. Any thread.
size_t MachineMemory();

}  // namespace vnjs
