#pragma once

#include <vnjs/host.h>

#include <functional>
#include <string>

namespace vnjs::host {

/// What a logger shows: lines of its level and above. The library's own levels are kInfo for notes, kError
/// for script exceptions and one more for code that does not compile.
enum LogLevel { kTrace = 0, kInfo = 1, kWarning = 2, kError = 3, kNone = 5 };

/// From now on the lines of all loggers go to `sink`, on any thread; with nullptr to their streams again.
void SetLogSink(std::function<void(const std::string&)> sink);

}  // namespace vnjs::host
