#include "tests/support/test_host.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

struct _VNLog {
  std::string name;
};

namespace vnjs::testing {
namespace {
std::mutex linesMutex;
std::map<std::string, std::vector<LogLine>> lines;
std::atomic<int> openLoggers{0};
}  // namespace

std::atomic<int64_t> clockOffsetMs{0};

_VNLog* NewLogger(const std::string& name) {
  const std::lock_guard<std::mutex> lock(linesMutex);
  lines[name].clear();
  ++openLoggers;
  return new _VNLog{name};
}

std::vector<LogLine> LinesOf(const std::string& name) {
  const std::lock_guard<std::mutex> lock(linesMutex);
  return lines[name];
}

int OpenLoggers() { return openLoggers; }

}  // namespace vnjs::testing

extern "C" {

_VNLog* vlog_create(FILE* stream, int level) { return vnjs::testing::NewLogger("default"); }

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  {
    const std::lock_guard<std::mutex> lock(vnjs::testing::linesMutex);
    vnjs::testing::lines[logger->name].push_back({level, module, text});
  }
  free(text);
}

void vlog_close(_VNLog* logger) {
  --vnjs::testing::openLoggers;
  delete logger;
}

void* _vassert(void* pointer, const char* text) {
  if (pointer == nullptr) {
    fprintf(stderr, "out of memory: %s\n", text);
    abort();
  }
  return pointer;
}

uint64_t get_local_time_ms(void) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000 +
         static_cast<uint64_t>(vnjs::testing::clockOffsetMs.load());
}

void set_thread_name(const char* name) {
  pthread_setname_np(pthread_self(), std::string(name, strnlen(name, 15)).c_str());
}

char* sys_last_err_string(void) { return strdup(strerror(errno)); }

}  // extern "C"
