// The functions of the system that the library calls to save an object, in front of the real ones: the
// dynamic linker finds those of the program first.

// Each function below has its own name, also those for large files, which would otherwise take over.
#undef _FILE_OFFSET_BITS

#include "tests/modules/storage_faults/interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace vnjs::testing {
namespace {

Fault armed;
Trace* trace = nullptr;

/// The stream and the folder that are open.
FILE* stream = nullptr;
int folder = -1;

template <typename Function>
Function* Real(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsStorage(const char* path) { return trace != nullptr && strstr(path, "/storage") != nullptr; }

/// Counts a call. Returns what is to happen to it.
Fault::How Begin(const char* name) {
  const int call = trace->count++;
  trace->names[call] = name;
  if (call != armed.call) return Fault::kNone;
  if (armed.how == Fault::kKillBefore) raise(SIGKILL);
  return armed.how;
}

template <typename Result, typename Call>
Result Traced(const char* name, Result failure, Call call) {
  const Fault::How how = Begin(name);
  if (how == Fault::kFail) {
    errno = armed.error;
    return failure;
  }
  const Result result = call();
  if (how == Fault::kKillAfter) raise(SIGKILL);
  return result;
}

FILE* TraceOpen(FILE* (*real)(const char*, const char*), const char* path, const char* mode) {
  if (!IsStorage(path)) return real(path, mode);
  return stream = Traced<FILE*>("fopen", nullptr, [&] { return real(path, mode); });
}

int TraceOpen(int (*real)(const char*, int, ...), const char* path, int flags, mode_t mode) {
  if (!IsStorage(path)) return real(path, flags, mode);
  return folder = Traced("open", -1, [&] { return real(path, flags, mode); });
}

}  // namespace

void Arm(const Fault& fault, Trace* where) {
  armed = fault;
  *where = {};
  trace = where;
}

void Disarm() { trace = nullptr; }

}  // namespace vnjs::testing

using namespace vnjs::testing;

extern "C" {

FILE* fopen(const char* path, const char* mode) {
  static FILE* (*const real)(const char*, const char*) = Real("fopen", &fopen);
  return TraceOpen(real, path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
  static FILE* (*const real)(const char*, const char*) = Real("fopen64", &fopen64);
  return TraceOpen(real, path, mode);
}

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
  static size_t (*const real)(const void*, size_t, size_t, FILE*) = Real("fwrite", &fwrite);
  if (trace == nullptr || file != stream) return real(data, size, count, file);
  const Fault::How how = Begin("fwrite");
  const bool half = how == Fault::kHalf || how == Fault::kKillHalf;
  size_t written = 0;
  if (how != Fault::kFail) written = real(data, size, half ? count / 2 : count, file);
  if (how == Fault::kKillHalf || how == Fault::kKillAfter) raise(SIGKILL);
  if (how == Fault::kFail || how == Fault::kHalf) errno = armed.error;
  return written;
}

int fsync(int descriptor) {
  static int (*const real)(int) = Real("fsync", &fsync);
  const bool isStream = stream != nullptr && descriptor == fileno(stream);
  if (trace == nullptr || !(isStream || descriptor == folder)) return real(descriptor);
  if (isStream) trace->flushed = static_cast<size_t>(lseek(descriptor, 0, SEEK_END));
  return Traced("fsync", -1, [&] { return real(descriptor); });
}

int fclose(FILE* file) {
  static int (*const real)(FILE*) = Real("fclose", &fclose);
  if (trace == nullptr || file != stream) return real(file);
  const Fault::How how = Begin("fclose");
  stream = nullptr;
  // Whatever it returns, the stream is gone afterwards.
  const int result = real(file);
  if (how == Fault::kKillAfter) raise(SIGKILL);
  if (how != Fault::kFail) return result;
  errno = armed.error;
  return EOF;
}

int rename(const char* from, const char* to) noexcept {
  static int (*const real)(const char*, const char*) = Real("rename", &rename);
  if (!IsStorage(from)) return real(from, to);
  return Traced("rename", -1, [&] { return real(from, to); });
}

int remove(const char* path) noexcept {
  static int (*const real)(const char*) = Real("remove", &remove);
  if (!IsStorage(path)) return real(path);
  if (armed.cleanupFails && trace->count > armed.call) {
    errno = EIO;
    return -1;
  }
  return Traced("remove", -1, [&] { return real(path); });
}

int open(const char* path, int flags, ...) {
  static int (*const real)(const char*, int, ...) = Real("open", &open);
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return TraceOpen(real, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  static int (*const real)(const char*, int, ...) = Real("open64", &open64);
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return TraceOpen(real, path, flags, mode);
}

int close(int descriptor) {
  static int (*const real)(int) = Real("close", &close);
  if (trace == nullptr || descriptor != folder || folder < 0) return real(descriptor);
  folder = -1;
  return Traced("close", -1, [&] { return real(descriptor); });
}

}  // extern "C"
