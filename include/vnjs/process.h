#pragma once

#include <vnjs/export.h>

/// Shell commands with pipes at both ends, for C and C++. Each function may be called from any thread.

#ifdef __cplusplus
extern "C" {
#endif

/// Starts `/bin/sh -c command` with pipes as its standard input and output, in the caller's process group and
/// with the caller's standard error. Of the caller's other files the command gets none.
///
/// `in` receives the end that writes to the command's input, `out` the one that reads its output; the caller
/// closes them. Where a pointer is null, that end is closed at once. Both are closed when the caller executes
/// another program.
///
/// Returns the process id, which the caller waits for, or a negative value with `errno` set. A shell that
/// cannot be executed is no failure here: it says so on standard error and ends with status 1.
VNJS_API int popen2(const char* command, int* in, int* out);

/// Closes `in` and `out`, each unless it is 0, and waits for the process to end. Returns the status as
/// `waitpid` gives it, or -1.
VNJS_API int pclose2(int pid, int in, int out);

/// Kills the process group `pgrp`. A command of `popen2` leads no group, so its process id names one only
/// where it made itself a leader. Returns the result of `killpg`.
VNJS_API int pkill2(int pgrp);

#ifdef __cplusplus
}
#endif
