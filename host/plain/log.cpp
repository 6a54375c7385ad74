// Loggers that write lines to a stream, for hosts that have no log of their own yet.
#include <vnjs/host.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <new>

struct _VNLog {
  FILE* stream;
  int level;
};

_VNLog* vlog_create(FILE* stream, int level) { return new (std::nothrow) _VNLog{stream, level}; }

void vlog_close(_VNLog* logger) { delete logger; }

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {
  if (logger == nullptr || level < logger->level) return;
  const time_t now = time(nullptr);
  tm parts{};
  localtime_r(&now, &parts);
  char clock[16];
  strftime(clock, sizeof clock, "%H:%M:%S", &parts);
  const char* const word = level >= 3 ? "error" : level == 2 ? "warning" : "info";
  va_list arguments;
  va_start(arguments, format);
  // So that lines of several threads do not mix.
  flockfile(logger->stream);
  fprintf(logger->stream, "%s %-7s %s: ", clock, word, module);
  vfprintf(logger->stream, format, arguments);
  fputc('\n', logger->stream);
  fflush(logger->stream);
  funlockfile(logger->stream);
  va_end(arguments);
}
