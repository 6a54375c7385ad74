#pragma once

#include <vnjs/export.h>

#include <string>

namespace vnjs {

/// A script to run: its text, and the name that stands in messages for it (a path, for a file).
class VNJS_API PendingCode {
 public:
  PendingCode() = default;
  /// `source` need not be a file's name.
  PendingCode(std::string code, std::string source);

  /// Reads the file; its path becomes the source name. Throws VornException as ReadFile does.
  static PendingCode FromFile(const char* path);

  /// @{ What it was made of.
  std::string code() const { return m_code; }
  std::string source() const { return m_source; }
  /// @}

 private:
  friend class EnvironmentImpl;
  std::string m_code;
  std::string m_source;
};

/// Where in a script something went wrong. Lines and columns count from 1; 0 means unknown.
struct ScriptPosition {
  std::string source;  ///< The name that the code was run under, a path for a file.
  int line = 0;        ///< Of the first character.
  int column = 0;      ///< Of the first character, in UTF-16 code units.
};

/// What became of a script: the text of its result, or of the exception that ended it.
class VNJS_API RunResult {
 public:
  RunResult() = default;
  /// @{ With its text; the position is only an exception's.
  RunResult(std::string result, bool isException);
  RunResult(std::string result, bool isException, ScriptPosition position);
  /// @}

  /// The result as JSON text, empty when it has none; or the exception's text.
  std::string result() const { return m_result; }

  /// Whether the script failed: did not compile, threw, or was ended.
  bool isException() const { return m_isException; }

  /// Where an exception was thrown or the syntax broke; unknown for everything else.
  ScriptPosition position() const { return m_position; }

 private:
  std::string m_result;
  bool m_isException = false;
  ScriptPosition m_position;
};

}  // namespace vnjs
