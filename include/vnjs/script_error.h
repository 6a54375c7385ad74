#pragma once

#include <string>

namespace vnjs {

/// Why something that a script was to do was not done.
enum class ErrorKind {
  kNone,         ///< It was done.
  kSyntax,       ///< The code, or a JSON text, does not parse.
  kThrown,       ///< The script threw, and nobody caught it.
  kRejection,    ///< A promise was rejected, and nobody handled it.
  kTimeout,      ///< A limit of RunnerOptions has ended it.
  kInterrupted,  ///< Interrupt, Stop or Reload has ended it.
  kMemory,       ///< The script's memory was full.
  kHost,         ///< It is not the script's doing: no file, no runner, a value of another type.
};

/// What went wrong, in the words of the script and of the engine. A native may throw one: for the script it is an
/// `Error` with that message, and when the script does not catch it either, it comes back with its place.
struct ScriptError {
  ErrorKind kind = ErrorKind::kNone;  ///< Why; kNone when all is well.
  std::string message{};  ///< Of a thrown `Error` its message alone; the stack begins with its name.
  std::string stack{};    ///< As the engine tells it, several lines; empty where there is none.
  std::string source{};   ///< The file, or the name that the code was run under.
  int line = 0;           ///< From 1; 0 when unknown.
  int column = 0;         ///< From 1, in UTF-16 code units; 0 when unknown.

  /// Whether something went wrong.
  explicit operator bool() const { return kind != ErrorKind::kNone; }
};

}  // namespace vnjs
