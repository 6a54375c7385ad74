// What of a host is no log, for hosts that have nothing special there.
#include <pthread.h>
#include <vnjs/host.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

void* _vassert(void* pointer, const char* text) {
  if (pointer != nullptr) return pointer;
  fprintf(stderr, "out of memory: %s\n", text);
  abort();
}

uint64_t get_local_time_ms(void) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

void set_thread_name(const char* name) {
  char shortened[16] = {};
  strncpy(shortened, name, sizeof shortened - 1);
  pthread_setname_np(pthread_self(), shortened);
}

char* sys_last_err_string(void) { return strdup(strerror(errno)); }
