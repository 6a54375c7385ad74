#pragma once

#include <vnjs/host.h>

#include <functional>
#include <string>
#include <string_view>

namespace vnjs::host {

/// What a logger shows: lines of its level and above. The library's own levels are kInfo for notes, kError
/// for script exceptions and one more for code that does not compile.
enum LogLevel { kTrace = 0, kInfo = 1, kWarning = 2, kError = 3, kNone = 5 };

/// From now on the lines of all loggers go to `sink`, on any thread; with nullptr to their streams again.
void SetLogSink(std::function<void(const std::string&)> sink);

/// The text with what terminals obey in place of showing it, but tabs and ends of lines, as \x1b.
std::string Visible(std::string_view text);

}  // namespace vnjs::host
