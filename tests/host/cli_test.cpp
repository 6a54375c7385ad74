// The program vnjs: exit statuses, what goes to which stream, when a run ends, and command lines that are
// refused.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/process.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

const int kFine = 0;
const int kFailed = 1;
const int kWrongUsage = 2;

/// One run of the program, in a folder that takes its two streams as files. Its arguments are those of a shell, which
/// may redirect the streams. Killed when it outlives this object.
class Program {
 public:
  Program(const TemporaryFolder& folder, const std::string& arguments) : m_folder(folder) {
    const std::string command =
        "cd " + folder.path() + "; exec >.out 2>.err; exec " VNJS_PROGRAM " " + arguments;
    folder.Write(".err", "");
    m_pid = popen2(command.c_str(), nullptr, nullptr);
    if (m_pid < 0) throw std::runtime_error("cannot start a shell");
  }
  ~Program() {
    if (Ended()) return;
    Signal(SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Signal(int signal) const { kill(m_pid, signal); }

  bool Ended() {
    if (!m_ended && waitpid(m_pid, &m_status, WNOHANG) == m_pid) m_ended = true;
    return m_ended;
  }

  /// The exit status, or minus the signal that killed it.
  int Wait() {
    EXPECT_TRUE(WaitUntil([this] { return Ended(); })) << "still running\n" << Err();
    if (!m_ended) return -SIGKILL;
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status);
  }

  bool HasThread(const std::string& name) const {
    const std::string tasks = "/proc/" + std::to_string(m_pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      std::string comm;
      std::getline(std::ifstream(task.path() / "comm"), comm);
      if (comm == name) return true;
    }
    return false;
  }

  void WaitUntilReady() {
    EXPECT_TRUE(WaitUntil([&] { return Err().find("ready") != std::string::npos; }));
  }

  std::string Out() const { return m_folder.Read(".out"); }
  std::string Err() const { return m_folder.Read(".err"); }

  /// The messages of the log, without time, level and module.
  std::string Messages() const {
    return std::regex_replace(Err(), std::regex(R"((^|\n)\d\d:\d\d:\d\d\.\d{3} \w+ +core +)"), "$1");
  }

 private:
  const TemporaryFolder& m_folder;
  pid_t m_pid = -1;
  int m_status = 0;
  bool m_ended = false;
};

class CliTest : public ::testing::Test {
 protected:
  /// A run that has ended.
  struct Outcome {
    int status;
    std::string out;
    std::string err;
    std::string messages;
  };

  Outcome Vnjs(const std::string& arguments) {
    Program program(folder, arguments);
    const int status = program.Wait();
    return {status, program.Out(), program.Err(), program.Messages()};
  }

  TemporaryFolder folder;
};

TEST_F(CliTest, EvalPrintsTheResultText) {
  const std::pair<const char*, std::string> cases[] = {
      {"1+1", "2\n"},
      {"\"'a'\"", "\"a\"\n"},
      {"''", "undefined\n"},
      // Texts that mean something to a parser of command lines.
      {"{}", "undefined\n"},
      {"'[1,2]'", "[1,2]\n"},
      {"%%=1 --quiet", ""},
      {"-- -1", "-1\n"},
      {"'var run = 1; run'", "1\n"},
      {"--threaded '6*7'", "42\n"},
      {"'setInterval(function () {}, 25)'", "1\n"},
      {"'debugPrint(1); 3'", "3\n"},
      {"'\"x\".repeat(1 << 20)'", '"' + std::string(1 << 20, 'x') + "\"\n"},
  };
  for (const auto& [code, out] : cases) {
    const Outcome outcome = Vnjs(std::string("eval ") + code);
    EXPECT_TRUE(outcome.out == out) << code << "\n" << outcome.out.substr(0, 200) << outcome.err;
    EXPECT_EQ(outcome.status, out.empty() ? kFailed : kFine) << code;
  }
}

TEST_F(CliTest, FilesShareOneEnvironmentThatLogsToStandardError) {
  folder.Write("a.js", "var n = 20; function later() { debugPrint('later', n); }");
  folder.Write("b.js", "n += 22; debugPrint('b', executeFile('c.js')); setTimeout(later, 30);");
  folder.Write("c.js", "n");
  for (const char* arguments : {"run a.js b.js", "run --threaded a.js b.js"}) {
    const Outcome outcome = Vnjs(arguments);
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.messages, "b 42\nlater 42\n");
  }
}

TEST_F(CliTest, RefusesWhatCannotBeDoneBeforeAnythingRuns) {
  folder.Write("a.js", "debugPrint('ran');");
  folder.Write("file", "");
  std::filesystem::create_directory(folder.path() + "dir");
  const std::pair<std::string, const char*> cases[] = {
      {"", "vnjs: run or eval is required\n"},
      {"run", "FILE is required"},
      {"eval", "CODE is required"},
      {"run a.js --loud", "not expected: --loud"},
      {"run a.js --log loud", "--log: 'loud' is none of trace, info, warning, error, none"},
      {"run a.js --for soon", "--for: 'soon' is not a number of seconds"},
      {"run a.js --for 1s", "--for: '1s' is not a number of seconds"},
      {"run a.js --for nan", "--for: 'nan' is not a number of seconds"},
      {"run a.js --for -1", "--for: '-1' is not a number of seconds"},
      {"run a.js --debug=0", "--debug: '0' is not a port"},
      {"run a.js --debug-brk=65536", "--debug-brk: '65536' is not a port"},
      {"eval 1 --for 1", "not expected: 1 --for"},
      {"run a.js --storage ''", "--storage: must not be empty"},
      {"run a.js --storage file", "vnjs: cannot make the folder file/storage: Not a directory\n"},
      {"run a.js missing.js", "vnjs: missing.js: No such file or directory\n"},
      {"run a.js dir", "vnjs: dir: Is a directory\n"},
      {"run a.js " + std::string(5000, 'x'), "xxx: File name too long\n"},
  };
  for (const auto& [arguments, text] : cases) {
    const Outcome outcome = Vnjs(arguments);
    EXPECT_EQ(outcome.status, kWrongUsage) << text;
    EXPECT_EQ(outcome.out, "") << text;
    EXPECT_THAT(outcome.err,
                AllOf(StartsWith("vnjs: "), HasSubstr(text), Not(EndsWith("\n\n")), Not(HasSubstr("ran"))));
  }
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "storage"));
}

TEST_F(CliTest, PrintsHelpAndVersionOnStandardOutput) {
  for (const auto& [arguments, text] : {std::pair("--version", "vnjs 1."),
                                        {"run --version", "vnjs 1."},
                                        {"eval --version", "vnjs 1."},
                                        {"--help", "Exit status:"},
                                        {"run --help", "--for"},
                                        {"eval --help", "--threaded"}}) {
    const Outcome outcome = Vnjs(arguments);
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_THAT(outcome.out, HasSubstr(text));
    EXPECT_THAT(outcome.out, Not(MatchesRegex("(.|\n)*[^\n]{81}(.|\n)*"))) << "wider than a terminal";
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(CliTest, AFailedScriptIsReportedWithItsPlaceAndEndsTheRun) {
  folder.Write("after.js", "debugPrint('after');");
  folder.Write("nested.js", "\n\n  missing();");
  const std::pair<const char*, const char*> cases[] = {
      {"\n  throw new Error('no');", "bad.js:2:3: Uncaught Error: no\n"},
      {"\neval('none')", "bad.js: Uncaught ReferenceError: none is not defined\n"},
      {"var a =\n= 1;",
       "bad.js:2:1: JavaScript compilation error: Uncaught SyntaxError: Unexpected token '='\n"},
      {"\nexecuteFile('nested.js');",
       "bad.js:2:1: Uncaught Error: Uncaught ReferenceError: missing is not defined\n"},
  };
  for (const auto& [code, err] : cases) {
    folder.Write("bad.js", code);
    for (const char* arguments : {"run --quiet bad.js after.js", "run --quiet --threaded bad.js after.js"}) {
      const Outcome outcome = Vnjs(arguments);
      EXPECT_EQ(outcome.status, kFailed) << code;
      EXPECT_EQ(outcome.err, err);
      EXPECT_EQ(outcome.out, "");
    }
  }
  EXPECT_THAT(Vnjs("run bad.js after.js").err, Not(HasSubstr("after")));
  EXPECT_EQ(Vnjs("eval --quiet '1 +\n x'").err, "eval:2:2: Uncaught ReferenceError: x is not defined\n");
}

TEST_F(CliTest, LogLevels) {
  folder.Write("a.js",
               "debugPrint('note');\n"
               "try { executeJS('('); } catch (e) {}\n"
               "setTimeout(function () { throw new Error('late'); }, 0);");
  const std::pair<const char*, const char*> texts[] = {
      {"trace", "trace   core  Executing script: debugPrint('note'); ...\n"},
      {"info", "info    core  note\n"},
      {"error", "error   core  JavaScript compilation error at "},
      {"error", "error   core  Callback execution error: Error: late\n"},
  };
  for (const auto& [options, levels] : {std::pair("", "info error"),
                                        {"--log trace", "trace info error"},
                                        {"--log info", "info error"},
                                        {"--log warning", "error"},
                                        {"--log error", "error"},
                                        {"--log none", ""},
                                        {"--quiet", ""}}) {
    const Outcome outcome = Vnjs(std::string("run a.js ") + options);
    EXPECT_EQ(outcome.status, kFine) << "errors of callbacks do not end a run";
    for (const auto& [level, text] : texts) {
      const bool isShown = outcome.err.find(text) != std::string::npos;
      EXPECT_EQ(isShown, std::string(levels).find(level) != std::string::npos) << options << "\n"
                                                                               << outcome.err;
    }
  }
}

TEST_F(CliTest, LogLinesHaveATimeAndStandInColumns) {
  const Outcome outcome = Vnjs(R"(eval 'debugPrint("one\ntwo\n")')");
  const std::string indent(12 + 1 + 7 + 1 + 5 + 1, ' ');
  EXPECT_THAT(outcome.err, MatchesRegex("[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} info    core  one\n" +
                                        indent + "two\n"));
}

TEST_F(CliTest, ColoursOnATerminalOnly) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const std::string name = ptsname(terminal);
  // Held open so that what the program wrote is still there after its end.
  const int other = open(name.c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(other, 0);
  const std::string note = "eval 'debugPrint(\"note\")'";
  const auto shown = [&] {
    EXPECT_EQ(Vnjs(note + " 2>" + name).status, kFine);
    pollfd written = {terminal, POLLIN, 0};
    char text[1000];
    const ssize_t length = poll(&written, 1, 5000) == 1 ? read(terminal, text, sizeof text) : 0;
    return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
  };
  unsetenv("NO_COLOR");
  EXPECT_THAT(shown(), HasSubstr("\033[36minfo   \033[0m core  note"));
  setenv("NO_COLOR", "1", 1);
  EXPECT_THAT(shown(), Not(HasSubstr("\033")));
  unsetenv("NO_COLOR");
  EXPECT_THAT(Vnjs(note).err, Not(HasSubstr("\033")));
  close(other);
  close(terminal);
}

/// Both ways of running: scripts on the main thread, and on the worker.
class CliRunTest : public CliTest, public ::testing::WithParamInterface<const char*> {
 protected:
  std::string Run(const std::string& code, const std::string& more = "") {
    folder.Write("a.js", code);
    return std::string("run a.js ") + more + GetParam();
  }
};

TEST_P(CliRunTest, EndsWhenNothingIsLeftToDo) {
  const Outcome outcome = Vnjs(Run(
      "var n = 0;\n"
      "var id = setInterval(function () { if (++n == 2) { clearInterval(id); setTimeout(last, 0); } }, 25);\n"
      "function last() { Promise.resolve().then(function () { debugPrint('last', n); }); }"));
  EXPECT_EQ(outcome.status, kFine);
  EXPECT_EQ(outcome.messages, "last 2\n");
}

TEST_P(CliRunTest, EndsOnExitWhateverIsLeft) {
  folder.Write("after.js", "debugPrint('after');");
  for (const char* code : {"setInterval(function () {}, 25); exit(); debugPrint('still in the script');",
                           "setInterval(function () { exit(); debugPrint('still in the script'); }, 25);"}) {
    const Outcome outcome = Vnjs(Run(code));
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_EQ(outcome.messages, "still in the script\n");
  }
  EXPECT_EQ(Vnjs(Run("exit();", "after.js")).err, "");
}

TEST_P(CliRunTest, EndsAfterTheGivenTime) {
  const auto start = std::chrono::steady_clock::now();
  const Outcome outcome = Vnjs(Run("setInterval(function () {}, 25)", "--for 0.3"));
  EXPECT_EQ(outcome.status, kFine);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(outcome.err, "");
}

TEST_P(CliRunTest, EndsCleanlyOnASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program program(folder, Run("setInterval(function () {}, 25); debugPrint('ready');"));
    program.WaitUntilReady();
    EXPECT_EQ(program.HasThread("vorn/core"), *GetParam() != '\0') << "scripts run on the wrong thread";
    program.Signal(signal);
    EXPECT_EQ(program.Wait(), kFine);
    EXPECT_EQ(program.Messages(), "ready\n");
  }
}

TEST_P(CliRunTest, ASignalInterruptsABusyScript) {
  Program program(folder,
                  Run("setInterval(function () { for (;;) {} }, 5); debugPrint('ready'); for (;;) {}"));
  program.WaitUntilReady();
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), kFine);
}

TEST_P(CliRunTest, AThirdSignalEndsWhatCannotBeInterrupted) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer keeps signals back while a thread does not call it";
#endif
  Program program(folder,
                  Run("debugPrint('ready'); Array.prototype.indexOf.call({length: 2 ** 53 - 1}, 1);"));
  program.WaitUntilReady();
  EXPECT_TRUE(WaitUntil([&] { return program.Signal(SIGINT), program.Ended(); }));
  EXPECT_EQ(program.Wait(), -SIGINT);
}

TEST_P(CliRunTest, FailsWhenItIsNotDoneInTime) {
  for (const char* code :
       {"for (;;) {}", "setTimeout(function () { for (;;) {} }, 1)", "setInterval(function () {}, 25)"}) {
    const Outcome outcome = Vnjs(Run(code, "--timeout 0.3"));
    EXPECT_EQ(outcome.status, kFailed) << code;
    EXPECT_THAT(outcome.err, EndsWith("vnjs: not done after 0.3 s\n"));
  }
  EXPECT_EQ(Vnjs(Run("1", "--timeout 60")).status, kFine);
  const Outcome outcome = Vnjs("eval --quiet --timeout 0.3 'for (;;);'");
  EXPECT_EQ(outcome.status, kFailed);
  EXPECT_EQ(outcome.err, "eval:1:1: Script execution was interrupted\nvnjs: not done after 0.3 s\n");
}

INSTANTIATE_TEST_SUITE_P(, CliRunTest, ::testing::Values("", " --threaded"), [](const auto& test) {
  return std::string(*test.param == '\0' ? "OnTheMainThread" : "OnTheWorker");
});

TEST_F(CliTest, MakesTheStorageFolder) {
  std::filesystem::create_directory(folder.path() + "scripts");
  folder.Write("scripts/a.js", "1");
  for (const auto& [arguments, made] : {std::pair("run scripts/a.js", "scripts/storage"),
                                        {"run scripts/a.js --storage new/deep/", "new/deep/storage"},
                                        {"eval 1", "storage"},
                                        {"eval 1 --storage of/eval", "of/eval/storage"}}) {
    EXPECT_FALSE(std::filesystem::exists(folder.path() + made)) << made;
    EXPECT_EQ(Vnjs(arguments).status, kFine);
    EXPECT_EQ(Vnjs(arguments).status, kFine) << "again, with the folder there";
    EXPECT_TRUE(std::filesystem::is_directory(folder.path() + made)) << made;
  }
  EXPECT_EQ(Vnjs("eval 'executeFile(\"a.js\")' --storage scripts").out, "\"1\"\n");
}

TEST_F(CliTest, SaysSoWhenTheResultCannotBeWritten) {
  for (const char* arguments : {"eval 1 >/dev/full", "--version >/dev/full"}) {
    const Outcome outcome = Vnjs(arguments);
    EXPECT_EQ(outcome.status, kFailed);
    EXPECT_EQ(outcome.err, "vnjs: cannot write to standard output: No space left on device\n");
  }
}

TEST_F(CliTest, TheExamplesRun) {
  const std::string examples = (std::filesystem::path(__FILE__).parent_path() / "../../examples/").string();
  const Outcome together =
      Vnjs("run --storage . " + examples + "thermostat.js " + examples + "motion_light.js");
  EXPECT_EQ(together.status, kFine);
  EXPECT_THAT(together.messages, HasSubstr("hall: motion again, waiting anew\n"));
  EXPECT_THAT(together.messages, HasSubstr("The day is over; the heating was switched 14 times.\n"));

  const std::string shutters = "run --storage . " + examples + "shutters.js";
  const std::string without = Vnjs(shutters).messages;
  EXPECT_THAT(without,
              StartsWith("06:00 forecast not usable: Failed to open file: ./forecast.xml No such file"));
  EXPECT_THAT(without, EndsWith("The day is over; the shutters moved 0 times.\n"));
  std::filesystem::copy(examples + "forecast.xml", folder.path());
  const Outcome outcome = Vnjs(shutters);
  EXPECT_EQ(outcome.status, kFine);
  EXPECT_THAT(outcome.messages,
              HasSubstr("14:00 forecast not usable: XML error at line 10, col 11: Premature end"));
  EXPECT_THAT(outcome.messages, EndsWith("The day is over; the shutters moved 8 times.\n"));
}

}  // namespace
}  // namespace vnjs::testing
