#include "host/host_functions.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "host/excerpt.h"

/// Lines of text on a stream, which is not owned.
struct _VNLog {
  FILE* stream;
  int level;
  bool colours;
};

namespace {

using vnjs::host::Excerpt;
using vnjs::host::kError;
using vnjs::host::kInfo;
using vnjs::host::kTrace;
using vnjs::host::Visible;

std::mutex sinkMutex;
std::function<void(const std::string&)> logSink;

struct LevelStyle {
  const char* word;
  const char* colour;
};

const LevelStyle& StyleOf(int level) {
  static const LevelStyle styles[] = {
      {"trace", "\033[2m"}, {"info", "\033[36m"}, {"warning", "\033[33m"}, {"error", "\033[31m"}};
  return styles[level < 0 ? 0 : (level > 3 ? 3 : level)];
}

/// The library announces each script that it runs with a note. They would bury what scripts print themselves.
bool IsAnnouncement(int level, std::string_view text) {
  const std::string_view start = "Executing script: ";
  return level == kInfo && text.substr(0, start.size()) == start;
}

std::string LocalTime() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm parts{};
  localtime_r(&now.tv_sec, &parts);
  char text[32];
  const size_t length = strftime(text, sizeof text, "%H:%M:%S", &parts);
  snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(now.tv_usec / 1000));
  return text;
}

std::string Padded(std::string text, size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

/// One message as it stands in the log. The further lines of a message, as a stack has them, begin below the
/// first one's text.
std::string FormatLine(const _VNLog& log, const char* module, int level, std::string_view text) {
  const std::string time = LocalTime();
  const LevelStyle& style = StyleOf(level);
  const std::string word = Padded(style.word, 7);
  const std::string name = Padded(module, 5);
  const std::string indent(time.size() + word.size() + name.size() + 3, ' ');

  std::string line = log.colours
                         ? "\033[2m" + time + "\033[0m " + style.colour + word + "\033[0m " + name + " "
                         : time + " " + word + " " + name + " ";
  while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  for (const char c : Visible(text)) {
    line += c;
    if (c == '\n') line += indent;
  }
  return line += '\n';
}

/// Without memory for a log line the program ends, as in _vassert.
void Write(const _VNLog& log, const char* module, int level, std::string_view text) noexcept {
  if (IsAnnouncement(level, text)) level = kTrace;
  if (level < log.level) return;
  std::string message(text);
  if (level >= kError) message += '\n' + Excerpt(message);
  const std::string line = FormatLine(log, module, level, message);
  const std::lock_guard<std::mutex> lock(sinkMutex);
  if (logSink != nullptr) return logSink(line);
  // In one call, so that lines of several threads do not mix. Nobody could be told of a failure.
  fwrite(line.data(), 1, line.size(), log.stream);
  fflush(log.stream);
}

bool WantsColours(FILE* stream) {
  const char* const refused = getenv("NO_COLOR");
  return isatty(fileno(stream)) != 0 && (refused == nullptr || *refused == '\0');
}

}  // namespace

namespace vnjs::host {

void SetLogSink(std::function<void(const std::string&)> sink) {
  const std::lock_guard<std::mutex> lock(sinkMutex);
  logSink = std::move(sink);
}

std::string Visible(std::string_view text) {
  std::string visible;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    // Behind C2 are the further control characters of Latin-1.
    const bool isPair = byte == 0xC2 && i + 1 < text.size() && (text[i + 1] & 0xE0) == 0x80;
    const bool isBreak = byte == '\n' || byte == '\t' || (byte == '\r' && text.substr(i + 1, 1) == "\n");
    if (!isPair && (isBreak || (byte >= 0x20 && byte != 0x7F))) {
      visible += text[i];
      continue;
    }
    char escape[8];
    snprintf(escape, sizeof escape, "\\x%02x", isPair ? static_cast<unsigned char>(text[++i]) : byte);
    visible += escape;
  }
  return visible;
}

}  // namespace vnjs::host

extern "C" {

_VNLog* vlog_create(FILE* stream, int level) {
  return static_cast<_VNLog*>(
      _vassert(new (std::nothrow) _VNLog{stream, level, WantsColours(stream)}, "logger"));
}

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  Write(*logger, module, level, {text, static_cast<size_t>(length)});
  free(text);
}

void vlog_close(_VNLog* logger) { delete logger; }

void* _vassert(void* pointer, const char* text) {
  if (pointer == nullptr) {
    fprintf(stderr, "vnjs: out of memory: %s\n", text);
    abort();
  }
  return pointer;
}

uint64_t get_local_time_ms(void) {
  // Timers must not notice when somebody sets the clock.
  using std::chrono::milliseconds;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

void set_thread_name(const char* name) {
  char taken[16];  // as much as the kernel keeps
  snprintf(taken, sizeof taken, "%s", name);
  pthread_setname_np(pthread_self(), taken);
}

char* sys_last_err_string(void) {
  char buffer[256];
  return strdup(strerror_r(errno, buffer, sizeof buffer));
}

}  // extern "C"
