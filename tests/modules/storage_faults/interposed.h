#pragma once

#include <cstddef>

namespace vnjs::testing {

/// What goes wrong in one of the calls to the system by which an object is saved or removed.
struct Fault {
  enum How {
    kNone,
    kFail,        ///< nothing is done, and the call fails with `error`
    kHalf,        ///< half of a text is written, then the call fails with `error`
    kKillBefore,  ///< the process is killed
    kKillHalf,
    kKillAfter,
  };

  How how = kNone;
  int error = 0;

  /// The number of the call, from 0.
  int call = 0;

  /// Whether no file can be removed from then on.
  bool cleanupFails = false;
};

/// The calls that were made, kept where it outlives the process.
struct Trace {
  int count;
  const char* names[16];

  /// The size of the file when its content was flushed to the disk.
  size_t flushed;
};

/// From here on calls that touch a folder "storage" are traced, and one has the fault. One thread at a time.
void Arm(const Fault& fault, Trace* trace);
void Disarm();

}  // namespace vnjs::testing
