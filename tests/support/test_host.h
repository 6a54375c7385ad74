#pragma once

#include <vnjs/host.h>

#include <atomic>
#include <string>
#include <vector>

/// The host functions of the test program: loggers that remember, and a clock that tests move.
namespace vnjs::testing {

struct LogLine {
  int level;
  std::string module;
  std::string text;
};

/// A logger for Automation::SetLogger, which closes it. Its lines outlive it: they are kept by the test
/// program until the next NewLogger of the same name.
_VNLog* NewLogger(const std::string& name);
std::vector<LogLine> LinesOf(const std::string& name);

/// Loggers made and not yet closed.
int OpenLoggers();

/// What get_local_time_ms adds to the real clock.
extern std::atomic<int64_t> clockOffsetMs;

}  // namespace vnjs::testing
