#pragma once

#include <stdint.h>
#include <stdio.h>

/// What the host process supplies.
///
/// The library leaves these functions undefined; the dynamic linker resolves them from the process that loads
/// it. All may be called from any thread, also from several at once, and must not throw. The library holds
/// none of its locks while it calls them, but usually the isolate's; `set_thread_name` alone is called while the thread's
/// creator may hold that of the environment's threads, and must not ask for one of those.

/// A host that hides its symbols (`-fvisibility=hidden`) shows these all the same, because the dynamic linker looks
/// for them.
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/// The host's logger; only the host knows what is in it.
struct _VNLog;

/// Makes a logger that writes to `stream` what has at least the level `level`. An environment calls it with
/// `stderr` and 1 when it has to log and was given no logger.
struct _VNLog* vlog_create(FILE* stream, int level);

/// Writes one message, formatted as by `printf`. `module` names the part that speaks ("core" in most cases).
/// Levels used by the library: 1 for notes, 3 for script exceptions and callback errors, 4 for code that does
/// not compile.
void vlog_write(struct _VNLog* logger, const char* module, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Closes a logger. An environment closes the one that it holds when it is given another, and at its end.
void vlog_close(struct _VNLog* logger);

/// Checks the result of an allocation. Returns `pointer` when it is not null; what a null pointer leads to (a
/// log line, an abort) is the host's decision. `text` says what was allocated.
void* _vassert(void* pointer, const char* text);

/// A clock in milliseconds. Timers measure by its low 32 bits; a jump backwards or by more than a second is
/// ignored by them.
uint64_t get_local_time_ms(void);

/// Names the calling thread for the operating system. Longer names than it takes are the host's to shorten.
void set_thread_name(const char* name);

/// Describes the calling thread's last system error (`errno`). A heap string that the caller frees; may be
/// null.
char* sys_last_err_string(void);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop
