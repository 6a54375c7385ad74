#include "host/repl.h"

#include <poll.h>
#include <unistd.h>
#include <vnjs/error.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/excerpt.h"
#include "host/runner.h"

namespace vnjs::host {
namespace {

const char kHelp[] =
    ".help       Print this\n"
    ".load FILE  Run a file\n"
    ".timers     List the timers that wait\n"
    ".exit       End, as Ctrl-D does\n"
    "Tab completes names, Ctrl-C interrupts a script or drops the line.\n";

/// Empty when there is no place for it.
std::string HistoryFile() {
  const char* const state = getenv("XDG_STATE_HOME");
  const char* const home = getenv("HOME");
  std::filesystem::path folder;
  if (state != nullptr && *state == '/') {
    folder = state;
  } else if (home != nullptr && *home == '/') {
    folder = std::filesystem::path(home) / ".local/state";
  } else {
    return {};
  }
  folder /= "vnjs";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  return error ? std::string() : (folder / "history").string();
}

bool IsBlank(const std::string& line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

/// No script begins like this.
bool IsCommand(const std::string& line) {
  return line.size() > 1 && line[0] == '.' && isalpha(static_cast<unsigned char>(line[1])) != 0;
}

bool Complain(const std::string& text) {
  fprintf(stderr, "vnjs: %s\n", text.c_str());
  return false;
}

}  // namespace

Repl::Repl(const std::string& storageDir, LogLevel level, bool threaded)
    : m_level(level), m_automation(storageDir.c_str()) {
  m_automation.SetLogger(vlog_create(stderr, level));
  if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
    m_editor = std::make_unique<LineEditor>(static_cast<LineEditor::Client*>(this), HistoryFile());
    if (isatty(STDERR_FILENO) != 0) SetLogSink([this](const std::string& text) { m_editor->WriteLog(text); });
  }
  if (threaded) m_automation.StartThread();
}

Repl::~Repl() {
  SetLogSink(nullptr);
  m_editor.reset();
  // Callbacks that do not end may be running and waiting on the worker: the environment's end reaches them all.
  m_automation.Interrupt();
}

bool Repl::Run() {
  bool fine = true;
  std::string code;
  std::string line;
  while (!m_done && !m_automation.IsTerminating()) {
    const LineEditor::Answer answer = Read(code.empty(), &line);
    if (answer == LineEditor::kEnd) break;
    if (answer == LineEditor::kDropped) {
      code.clear();
      continue;
    }
    m_session += line + '\n';
    ++m_lines;
    if (code.empty() && IsBlank(line)) continue;
    if (code.empty() && IsCommand(line)) {
      fine = RunCommand(line) && fine;
      continue;
    }
    code += code.empty() ? line : '\n' + line;
    if (EndsTooEarly(m_automation.GetEnvironment(), code)) continue;
    fine = Evaluate(code) && fine;
    code.clear();
  }
  if (m_editor != nullptr) return true;
  return (code.empty() || Evaluate(code)) && fine;
}

bool Repl::OnIdle() {
  if (!m_automation.IsThreaded()) m_automation.ProcessPendingCallbacks();
  return !m_automation.IsTerminating();
}

Completion Repl::OnComplete(const std::string& text) { return Complete(m_automation.GetEnvironment(), text); }

LineEditor::Answer Repl::Read(bool isNew, std::string* line) {
  if (m_editor == nullptr) return ReadPlain(line);
  return m_editor->Read(isNew ? "> " : "| ", line);
}

LineEditor::Answer Repl::ReadPlain(std::string* line) {
  size_t end = std::string::npos;
  while ((end = m_unread.find('\n')) == std::string::npos) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    do {
      if (!OnIdle()) return LineEditor::kEnd;
    } while (poll(&input, 1, 10) == 0);
    char bytes[4096];
    const ssize_t length = read(STDIN_FILENO, bytes, sizeof bytes);
    if (length <= 0) break;
    m_unread.append(bytes, static_cast<size_t>(length));
  }
  if (m_unread.empty()) return LineEditor::kEnd;
  *line = m_unread.substr(0, end);
  m_unread.erase(0, end == std::string::npos ? end : end + 1);
  if (!line->empty() && line->back() == '\r') line->pop_back();
  return LineEditor::kLine;
}

bool Repl::RunCommand(const std::string& line) {
  const size_t space = std::min(line.find(' '), line.size());
  const std::string name = line.substr(0, space);
  std::string rest = line.substr(space);
  rest.erase(0, std::min(rest.find_first_not_of(' '), rest.size()));
  rest.erase(rest.find_last_not_of(' ') + 1);
  if (name == ".help") return PrintText(kHelp);
  if (name == ".load" && !rest.empty()) return Load(rest);
  if (name == ".timers") {
    std::string text;
    for (const std::string& timer : m_automation.PendingWork()) text += timer + '\n';
    return PrintText(text.empty() ? "No timer waits.\n" : text);
  }
  if (name == ".exit") return m_done = true;
  return Complain(name == ".load" ? ".load needs a file"
                                  : name + " is no command; .help tells which there are");
}

bool Repl::Evaluate(const std::string& code) {
  KeepSource("repl", m_session);
  // Where it stands in the session: callbacks that come later are told from the code of later lines.
  const size_t before = m_lines - 1 - static_cast<size_t>(std::count(code.begin(), code.end(), '\n'));
  const RunResult result = m_automation.Run((std::string(before, '\n') + code).c_str(), "repl");
  return Tell(result, "repl") && PrintText(result.result() + '\n');
}

/// Failures that the log has shown, with their stack, are not shown again.
bool Repl::Tell(const RunResult& result, const std::string& source) const {
  if (result.isException() && m_level <= kError) return false;
  return Report(result, source, false);
}

bool Repl::Load(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return Complain(path + ": " + strerror(EISDIR));
  try {
    return Tell(m_automation.RunFile(path.c_str()), path);
  } catch (const VornException& e) {
    return Complain(e.msg());
  }
}

}  // namespace vnjs::host
