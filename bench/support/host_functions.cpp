// The host of the benchmark programs: its logger discards everything, so that rows compare script work alone.
#include <pthread.h>
#include <vnjs/host.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

struct _VNLog {};

extern "C" {

_VNLog* vlog_create(FILE* stream, int level) { return new _VNLog; }

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {}

void vlog_close(_VNLog* logger) { delete logger; }

void* _vassert(void* pointer, const char* text) {
  if (pointer == nullptr) abort();
  return pointer;
}

uint64_t get_local_time_ms(void) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void set_thread_name(const char* name) { pthread_setname_np(pthread_self(), name); }

char* sys_last_err_string(void) { return strdup(strerror(errno)); }

}  // extern "C"
