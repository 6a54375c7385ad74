#pragma once

#include <vnjs/automation.h>

#include <memory>
#include <string>

#include "host/host_functions.h"
#include "host/line_editor.h"

namespace vnjs::host {

/// One environment that runs what is typed, line by line, and its callbacks meanwhile. When standard input or output
/// is no terminal, it reads and runs in the same way without prompts and editing.
///
/// Threads:  the main thread's only. With `threaded`, scripts run on the environment's worker.
/// Failures: what fails is reported on standard error, and the next input is read.
class Repl : private LineEditor::Client {
 public:
  /// Throws VornException when there can be no context or no worker.
  Repl(const std::string& storageDir, LogLevel level, bool threaded);
  ~Repl() override;
  Repl(const Repl&) = delete;
  Repl& operator=(const Repl&) = delete;

  /// Until the input ends or a script calls `exit()`. False when input that nobody typed has failed.
  bool Run();

 private:
  bool OnIdle() override;
  void OnInterrupt() override { m_automation.Interrupt(); }
  Completion OnComplete(const std::string& text) override;

  LineEditor::Answer Read(bool isNew, std::string* line);
  LineEditor::Answer ReadPlain(std::string* line);
  bool RunCommand(const std::string& line);
  bool Evaluate(const std::string& code);
  bool Load(const std::string& path);
  bool Tell(const RunResult& result, const std::string& source) const;

  const LogLevel m_level;
  Automation m_automation;
  std::unique_ptr<LineEditor> m_editor;

  /// What was read from standard input and is no line yet.
  std::string m_unread;

  /// All lines so far; the name "repl" in messages means this.
  std::string m_session;
  size_t m_lines = 0;
  bool m_done = false;
};

}  // namespace vnjs::host
