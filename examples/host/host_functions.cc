// What the library asks of every host. A real one has a log, a clock and names for threads already.
#include <vnjs/host.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

struct _VNLog {
  FILE* stream;
  int level;
};

_VNLog* vlog_create(FILE* stream, int level) { return new _VNLog{stream, level}; }
void vlog_close(_VNLog* log) { delete log; }
void vlog_write(_VNLog* log, const char* module, int level, const char* format, ...) {
  if (level < log->level) return;
  va_list arguments;
  va_start(arguments, format);
  fprintf(log->stream, "%d %s: ", level, module);
  vfprintf(log->stream, format, arguments);
  fputc('\n', log->stream);
  va_end(arguments);
}
void* _vassert(void* pointer, const char*) {
  if (pointer == nullptr) abort();
  return pointer;
}
void set_thread_name(const char*) {}
char* sys_last_err_string() { return strdup(strerror(errno)); }
uint64_t get_local_time_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
