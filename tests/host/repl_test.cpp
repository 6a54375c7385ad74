// The prompt: where an input ends, what is told of failures and where, exit statuses; on a terminal completion that
// calls nothing of the script's, lines that others write meanwhile, and keys that interrupt and end.

#include <fcntl.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <tuple>
#include <utility>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

/// The program on a terminal of its own, at its first prompt. Killed when it outlives this object.
class Terminal {
 public:
  Terminal(const TemporaryFolder& folder, const std::string& options) {
    const std::string command =
        "cd " + folder.path() + "; NO_COLOR=1 XDG_STATE_HOME=$PWD exec " VNJS_PROGRAM " repl " + options;
    const winsize size = {24, 80, 0, 0};
    m_pid = forkpty(&m_terminal, nullptr, nullptr, &size);
    if (m_pid == 0) _exit(execl("/bin/sh", "sh", "-c", command.c_str(), nullptr));
    fcntl(m_terminal, F_SETFL, O_NONBLOCK);
    Type("", "> ");
  }
  ~Terminal() {
    GoAway();
    if (m_status < 0) kill(m_pid, SIGKILL), waitpid(m_pid, nullptr, 0);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// Types, and waits until the terminal shows the text, after what was waited for before.
  void Type(const std::string& keys, const std::string& shown) {
    ASSERT_EQ(write(m_terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    const auto isShown = [&] {
      char bytes[1000];
      const ssize_t length = read(m_terminal, bytes, sizeof bytes);
      if (length > 0) m_unseen.append(bytes, static_cast<size_t>(length));
      return m_unseen.find(shown) != std::string::npos;
    };
    ASSERT_TRUE(WaitUntil(isShown)) << m_unseen;
    m_unseen.erase(0, m_unseen.find(shown) + shown.size());
  }
  void GoAway() { close(std::exchange(m_terminal, -1)); }
  void ExpectEnd() {
    Type("", "> ");
    // Between two lines the terminal is not the editor's, and keeps the key to itself.
    EXPECT_TRUE(WaitUntil([&] {
      Type("\x04", "");
      usleep(100000);
      return waitpid(m_pid, &m_status, WNOHANG) == m_pid;
    }));
    EXPECT_EQ(m_status, 0);
  }
  int Wait() {
    EXPECT_TRUE(WaitUntil([&] { return waitpid(m_pid, &m_status, WNOHANG) == m_pid; }));
    return m_status;
  }

 private:
  int m_terminal = -1;
  pid_t m_pid = -1;
  int m_status = -1;
  std::string m_unseen;
};

TEST(ReplTest, RunsInputThatNobodyTypes) {
  const TemporaryFolder folder;
  folder.Write("a.js", "var loaded = 6;");
  folder.Write("bad.js", "\n  missing();");
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"function f(a,\nb) {\nreturn a + b\n}\n \nf(1,\n\n2)\n.exit\n3", "undefined\n3\n", ""},
      {"[1\n]\nf = x => x; f(1\n)\n`a${1\n}`\n/* { \n*/ 2\n'a\\\nb'", "[1]\n1\n\"a1\"\n2\n\"ab\"\n", ""},
      {"let a = 1\na\n.load a.js\nloaded\nexit(); 2\n3", "undefined\n1\n6\n2\n", ""},
      {".timers\nsetInterval(Date, 5000)\n.timers",
       "No timer waits.\n1\ninterval 1 every 5000 ms, next in N ms\n", ""},
      {"x\n1\n  x", "1\n",
       "repl:1:1: Uncaught ReferenceError: x is not defined\n1 | x\n  | ^\n"
       "repl:3:3: Uncaught ReferenceError: x is not defined\n3 |   x\n  |   ^\n"},
      {"function f() {\n  return x; }\n.timers\nf()", "undefined\nNo timer waits.\n",
       "repl:2:3: Uncaught ReferenceError: x is not defined\n2 |   return x; }\n  |   ^\n"},
      {"f(1 2)\n'a\n({", "", "repl:3:3: JavaScript compilation error: Uncaught SyntaxError: Unexpected end"},
      {".load bad.js\n1", "1\n",
       "bad.js:2:3: Uncaught ReferenceError: missing is not defined\n2 |   missing();"},
      {"1\r\n.exit\r\n2\r\n", "1\n", ""},
      {".load ..", "", "vnjs: ..: Is a directory\n"},
      {".load\n.jump\n.load no.js", "",
       "vnjs: .load needs a file\nvnjs: .jump is no command; .help tells which there are\nvnjs: Failed to "
       "open file: no.js"},
  };
  for (const auto& [input, out, err] : cases) {
    folder.Write("in", input);
    for (const char* options : {"--quiet", "--quiet --threaded"}) {
      const std::string command = "cd " + folder.path() + "; exec " VNJS_PROGRAM " repl ";
      const int status = system((command + options + " <in >out 2>err").c_str());
      EXPECT_EQ(std::regex_replace(folder.Read("out"), std::regex("in \\d+ ms"), "in N ms"), out) << input;
      const std::string text = folder.Read("err");
      EXPECT_TRUE(*err == '\0' ? text.empty() : text.find(err) != std::string::npos) << input << text;
      EXPECT_EQ(WEXITSTATUS(status), *err == '\0' ? 0 : 1) << input;
    }
  }
}

TEST(ReplTest, ServesATerminal) {
  const TemporaryFolder folder;
  for (const char* options : {"", "--threaded"}) {
    Terminal terminal(folder, options);
    terminal.Type("let lamp = {level: 40}, calls = 0; const note = () => ++calls\r", "undefined\r\n");
    terminal.Type(
        "var o = {get g() { return note() }, p: new Proxy({}, {ownKeys: note, getOwnPropertyDescriptor: "
        "note})}\r",
        "undef");
    terminal.Type("lamp.lev\t + 2\r", "\n42\r\n");
    terminal.Type("Math.log\t", "log    log10  log1p  log2");
    terminal.Type("\x03", "> ");
    terminal.Type("'\xff\xe4\xc3\xe2\x82' + 21\r", "\n\"21\"\r\n");
    // Nothing of this calls `note`.
    terminal.Type("o.g.lev\t o.p.lev\t o.p.x.lev\t\025calls\r", "\n0\r\n");
    terminal.Type("setTimeout(() => console.log('came ' + 'due'), 300)\rlamp.le",
                  "info    core  came due\r\n");
    terminal.Type("", "> lamp.le");
    terminal.Type("vel\r", "\n40\r\n");
    terminal.ExpectEnd();
    EXPECT_THAT(folder.Read("vnjs/history"), ::testing::HasSubstr("lamp.level\\040+\\0402"));
  }
}

TEST(ReplTest, ShowsLinesThoughAKeyWaitsForTheScriptThatWritesThem) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer keeps signals back while a thread waits for a lock";
#endif
  const TemporaryFolder folder;
  Terminal terminal(folder, "--threaded");
  terminal.Type(
      "setTimeout(() => { console.log('be' + 'gun'); for (const t = Date.now(); Date.now() - t < 500;); "
      "for (;;) console.log('fl' + 'o'.repeat(1e4)) }, 0)\r",
      "begun");
  terminal.Type("Math.lo\t", "floooo");
  terminal.Type("\x03", "was interrupted");
  terminal.ExpectEnd();
}

TEST(ReplTest, EndsThoughCallbacksAndScriptsDoNot) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer keeps signals back while a thread calls nothing";
#endif
  const TemporaryFolder folder;
  for (const char* options : {"", "--threaded"}) {
    Terminal terminal(folder, options);
    terminal.Type("function f() { console.log('bu' + 'sy'); for (;;) {} }\r", "undefined\r\n> ");
    terminal.Type("for (let i = 0; i < 20; ++i) setTimeout(f, 0)\r", "busy");
    terminal.Type("\x03", "was interrupted at repl:1:");
    terminal.ExpectEnd();

    Terminal left(folder, options);
    left.Type("console.log('bu' + 'sy'); for (;;) {}\r", "busy");
    left.GoAway();
    EXPECT_EQ(left.Wait(), 0) << options;
  }
  Terminal terminal(folder, "");
  terminal.Type("const id = setInterval(() => { console.log('bu' + 'sy'); for (;;) {} }, 5)\r", "busy");
  terminal.Type("\x03", "was interrupted at repl:1:");
  terminal.Type("", "> ");
  terminal.Type("clearInterval(id), 'cleared'\r", "\"cleared\"\r\n");
}

}  // namespace
}  // namespace vnjs::testing
