// The program vnjs: exit statuses, what goes to which stream, when a run ends, and command lines that are
// refused.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;
using Arguments = std::vector<std::string>;

const int kFine = 0;
const int kFailed = 1;
const int kWrongUsage = 2;

/// One run of the program, in a folder that takes its two streams as files. Killed when it outlives this
/// object.
class Program {
 public:
  Program(const TemporaryFolder& folder, const Arguments& arguments, const std::string& out = ".out",
          const std::string& err = ".err")
      : m_folder(folder) {
    std::vector<char*> argv = {const_cast<char*>("vnjs")};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, folder.path().c_str());
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOCTTY, 0600);
    const int error = posix_spawn(&m_pid, VNJS_PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("cannot start " VNJS_PROGRAM);
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

  std::string Out() const { return m_folder.Read(".out"); }
  std::string Err() const { return m_folder.Read(".err"); }

 private:
  const TemporaryFolder& m_folder;
  pid_t m_pid = -1;
  int m_status = 0;
  bool m_ended = false;
};

class CliTest : public ::testing::Test {
 protected:
  struct Outcome {
    int status;
    std::string out;
    std::string err;
  };

  Outcome Vnjs(const Arguments& arguments) {
    Program program(folder, arguments);
    const int status = program.Wait();
    return {status, program.Out(), program.Err()};
  }

  TemporaryFolder folder;
};

/// The messages of log lines, without time, level and module.
std::string Messages(const std::string& log) {
  return std::regex_replace(log, std::regex(R"((^|\n)\d\d:\d\d:\d\d\.\d{3} \w+ +core +)"), "$1");
}

TEST_F(CliTest, EvalPrintsTheResultText) {
  const struct {
    Arguments arguments;
    std::string out;
  } cases[] = {
      {{"eval", "1+1"}, "2\n"},
      {{"eval", "'a'"}, "\"a\"\n"},
      {{"eval", "({a: [1, null]})"}, "{\"a\":[1,null]}\n"},
      {{"eval", "undefined"}, "undefined\n"},
      {{"eval", ""}, "undefined\n"},
      // Texts that mean something to a parser of command lines.
      {{"eval", "{}"}, "undefined\n"},
      {{"eval", "[]"}, "[]\n"},
      {{"eval", "[1,2]"}, "[1,2]\n"},
      {{"eval", "%%=1", "--quiet"}, ""},
      {{"eval", "--", "-1"}, "-1\n"},
      {{"eval", "var run = 1; run"}, "1\n"},
      {{"eval", "1;\n2"}, "2\n"},
      {{"eval", "--threaded", "6*7"}, "42\n"},
      {{"eval", "evalPath('Math.PI') === Math.PI"}, "true\n"},
      {{"eval", "setInterval(function () {}, 25)"}, "1\n"},
      {{"eval", "debugPrint('note'); 3"}, "3\n"},
      {{"eval", "'x'.repeat(1 << 20)"}, '"' + std::string(1 << 20, 'x') + "\"\n"},
  };
  for (const auto& test : cases) {
    const Outcome outcome = Vnjs(test.arguments);
    EXPECT_TRUE(outcome.out == test.out) << test.arguments[1] << "\n"
                                         << outcome.out.substr(0, 200) << outcome.err;
    EXPECT_EQ(outcome.status, test.out.empty() ? kFailed : kFine) << test.arguments[1];
  }
}

TEST_F(CliTest, FilesShareOneEnvironmentThatLogsToStandardError) {
  folder.Write("a.js", "var n = 20; function later() { debugPrint('later', n); }");
  folder.Write("b.js", "n += 22; debugPrint('b', executeFile('c.js')); setTimeout(later, 30);");
  folder.Write("c.js", "n");
  for (const Arguments& arguments :
       {Arguments{"run", "a.js", "b.js"}, {"run", "--threaded", "a.js", "b.js"}}) {
    const Outcome outcome = Vnjs(arguments);
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(Messages(outcome.err), "b 42\nlater 42\n");
  }
}

TEST_F(CliTest, RefusesWhatCannotBeDoneBeforeAnythingRuns) {
  folder.Write("a.js", "debugPrint('ran');");
  folder.Write("file", "");
  std::filesystem::create_directory(folder.path() + "dir");
  const struct {
    Arguments arguments;
    std::string text;
  } cases[] = {
      {{}, "vnjs: run or eval is required\n"},
      {{"walk"}, "not expected: walk"},
      {{"run"}, "FILE is required"},
      {{"eval"}, "CODE is required"},
      {{"eval", "1", "2"}, "not expected: 2"},
      {{"run", "a.js", "--loud"}, "not expected: --loud"},
      {{"run", "a.js", "--log", "loud"}, "--log: 'loud' is none of trace, info, warning, error, none"},
      {{"run", "a.js", "--log"}, "--log: 1 required LEVEL missing"},
      {{"run", "a.js", "--for", "soon"}, "--for: 'soon' is not a number of seconds"},
      {{"run", "a.js", "--for", "nan"}, "--for: 'nan' is not a number of seconds"},
      {{"run", "a.js", "--for", "-1"}, "--for: '-1' is not a number of seconds"},
      {{"eval", "1", "--for", "1"}, "not expected: 1 --for"},
      {{"run", "a.js", "--storage", ""}, "--storage: must not be empty"},
      {{"run", "a.js", "--storage", "file"}, "vnjs: cannot make the folder file/storage: Not a directory\n"},
      {{"run", "a.js", "missing.js"}, "vnjs: missing.js: No such file or directory\n"},
      {{"run", "a.js", "dir"}, "vnjs: dir: Is a directory\n"},
      {{"run", "a.js", std::string(5000, 'x')}, "xxx: File name too long\n"},
  };
  for (const auto& test : cases) {
    const Outcome outcome = Vnjs(test.arguments);
    EXPECT_EQ(outcome.status, kWrongUsage) << test.text;
    EXPECT_EQ(outcome.out, "") << test.text;
    EXPECT_THAT(outcome.err, HasSubstr(test.text));
    EXPECT_THAT(outcome.err, StartsWith("vnjs: "));
    EXPECT_THAT(outcome.err, Not(EndsWith("\n\n")));
    EXPECT_THAT(outcome.err, Not(HasSubstr("ran"))) << test.text;
  }
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "storage"));
}

TEST_F(CliTest, PrintsHelpAndVersionOnStandardOutput) {
  const struct {
    Arguments arguments;
    const char* text;
  } cases[] = {
      {{"--version"}, "vnjs 1."},   {{"run", "--version"}, "vnjs 1."}, {{"eval", "--version"}, "vnjs 1."},
      {{"--help"}, "Exit status:"}, {{"run", "--help"}, "--for"},      {{"eval", "--help"}, "--threaded"},
  };
  for (const auto& test : cases) {
    const Outcome outcome = Vnjs(test.arguments);
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_THAT(outcome.out, HasSubstr(test.text));
    EXPECT_THAT(outcome.out, Not(MatchesRegex("(.|\n)*[^\n]{81}(.|\n)*"))) << "wider than a terminal";
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(CliTest, AFailedScriptIsReportedWithItsPlaceAndEndsTheRun) {
  folder.Write("after.js", "debugPrint('after');");
  folder.Write("nested.js", "\n\n  missing();");
  const struct {
    const char* code;
    const char* err;
  } cases[] = {
      {"\n  throw new Error('no');", "bad.js:2:3: Uncaught Error: no\n"},
      {"\neval('none')", "bad.js: Uncaught ReferenceError: none is not defined\n"},
      {"throw 'text';", "bad.js:1:1: Uncaught text\n"},
      {"var a =\n= 1;",
       "bad.js:2:1: JavaScript compilation error: Uncaught SyntaxError: Unexpected token '='\n"},
      {"function f() {\n  none.x;\n}\nf();", "bad.js:2:3: Uncaught ReferenceError: none is not defined\n"},
      {"\nexecuteFile('nested.js');",
       "bad.js:2:1: Uncaught Error: Uncaught ReferenceError: missing is not defined\n"},
      {"executeFile('none.js');",
       "bad.js:1:1: Uncaught Error: Failed to open file: ./none.js No such file or directory\n"},
  };
  for (const auto& test : cases) {
    folder.Write("bad.js", test.code);
    for (const Arguments& options : {Arguments{"run", "--quiet"}, {"run", "--quiet", "--threaded"}}) {
      Arguments arguments = options;
      arguments.insert(arguments.end(), {"bad.js", "after.js"});
      const Outcome outcome = Vnjs(arguments);
      EXPECT_EQ(outcome.status, kFailed) << test.code;
      EXPECT_EQ(outcome.err, test.err);
      EXPECT_EQ(outcome.out, "");
    }
  }
  folder.Write("bad.js", "throw 1");
  EXPECT_THAT(Vnjs({"run", "bad.js", "after.js"}).err, Not(HasSubstr("after")));
  EXPECT_EQ(Vnjs({"eval", "--quiet", "1 +\n x"}).err,
            "eval:2:2: Uncaught ReferenceError: x is not defined\n");
}

TEST_F(CliTest, LogLevels) {
  folder.Write("a.js",
               "debugPrint('note');\n"
               "try { executeJS('('); } catch (e) {}\n"
               "setTimeout(function () { throw new Error('late'); }, 0);");
  const struct {
    Arguments options;
    bool announcements;
    bool notes;
    bool errors;
  } cases[] = {
      {{}, false, true, true},
      {{"--log", "trace"}, true, true, true},
      {{"--log", "info"}, false, true, true},
      {{"--log", "warning"}, false, false, true},
      {{"--log", "error"}, false, false, true},
      {{"--log", "none"}, false, false, false},
      {{"--quiet"}, false, false, false},
  };
  for (const auto& test : cases) {
    Arguments arguments = {"run", "a.js"};
    arguments.insert(arguments.end(), test.options.begin(), test.options.end());
    const Outcome outcome = Vnjs(arguments);
    const auto shows = [&](const char* text) { return outcome.err.find(text) != std::string::npos; };
    EXPECT_EQ(outcome.status, kFine) << "errors of callbacks do not end a run";
    EXPECT_EQ(shows("trace   core  Executing script: debugPrint('note'); ..."), test.announcements)
        << outcome.err;
    EXPECT_EQ(shows("info    core  note\n"), test.notes) << outcome.err;
    EXPECT_EQ(shows("error   core  JavaScript compilation error at "), test.errors) << outcome.err;
    EXPECT_EQ(shows("error   core  Callback execution error: Error: late"), test.errors) << outcome.err;
  }
}

TEST_F(CliTest, LogLinesHaveATimeAndStandInColumns) {
  const Outcome outcome = Vnjs({"eval", "debugPrint('one\\ntwo\\n')"});
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
  const auto shown = [&](const Arguments& arguments) {
    EXPECT_EQ(Program(folder, arguments, ".out", name).Wait(), kFine);
    pollfd written = {terminal, POLLIN, 0};
    char text[1000];
    const ssize_t length = poll(&written, 1, 5000) == 1 ? read(terminal, text, sizeof text) : 0;
    return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
  };
  const Arguments note = {"eval", "debugPrint('note')"};
  unsetenv("NO_COLOR");
  EXPECT_THAT(shown(note), HasSubstr("\033[36minfo   \033[0m core  note"));
  setenv("NO_COLOR", "1", 1);
  EXPECT_THAT(shown(note), Not(HasSubstr("\033")));
  unsetenv("NO_COLOR");
  EXPECT_THAT(Vnjs(note).err, Not(HasSubstr("\033")));
  close(other);
  close(terminal);
}

/// Both ways of running: scripts on the main thread, and on the worker.
class CliRunTest : public CliTest, public ::testing::WithParamInterface<const char*> {
 protected:
  Arguments Run(const std::string& code, Arguments more = {}) {
    folder.Write("a.js", code);
    more.insert(more.begin(), {"run", "a.js"});
    if (*GetParam() != '\0') more.push_back(GetParam());
    return more;
  }
};

TEST_P(CliRunTest, EndsWhenNothingIsLeftToDo) {
  const Outcome outcome = Vnjs(Run(
      "var n = 0;\n"
      "var id = setInterval(function () { if (++n == 2) { clearInterval(id); setTimeout(last, 0); } }, 25);\n"
      "function last() { Promise.resolve().then(function () { debugPrint('last', n); }); }"));
  EXPECT_EQ(outcome.status, kFine);
  EXPECT_EQ(Messages(outcome.err), "last 2\n");
}

TEST_P(CliRunTest, EndsOnExitWhateverIsLeft) {
  folder.Write("after.js", "debugPrint('after');");
  for (const char* code : {"setInterval(function () {}, 25); exit(); debugPrint('still in the script');",
                           "setInterval(function () { exit(); debugPrint('still in the script'); }, 25);"}) {
    const Outcome outcome = Vnjs(Run(code));
    EXPECT_EQ(outcome.status, kFine);
    EXPECT_EQ(Messages(outcome.err), "still in the script\n");
  }
  EXPECT_THAT(Vnjs(Run("exit();", {"after.js"})).err, IsEmpty());
}

TEST_P(CliRunTest, EndsAfterTheGivenTime) {
  const auto start = std::chrono::steady_clock::now();
  Program program(
      folder,
      Run("setInterval(function () {}, 25); setTimeout(function () { debugPrint('too late'); }, 30000)",
          {"--for", "0.3"}));
  EXPECT_EQ(program.Wait(), kFine);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(program.Err(), "");
}

TEST_P(CliRunTest, EndsCleanlyOnASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program program(folder, Run("setInterval(function () {}, 25); debugPrint('ready');"));
    EXPECT_TRUE(WaitUntil([&] { return program.Err().find("ready") != std::string::npos; }));
    EXPECT_EQ(program.HasThread("vorn/core"), *GetParam() != '\0') << "scripts run on the wrong thread";
    program.Signal(signal);
    EXPECT_EQ(program.Wait(), kFine);
    EXPECT_EQ(Messages(program.Err()), "ready\n");
  }
}

TEST_P(CliRunTest, ASignalInterruptsABusyScript) {
  Program program(folder,
                  Run("setInterval(function () { for (;;) {} }, 5); debugPrint('ready'); for (;;) {}"));
  EXPECT_TRUE(WaitUntil([&] { return program.Err().find("ready") != std::string::npos; }));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Wait(), kFine);
}

TEST_P(CliRunTest, ASecondSignalEndsABusyScript) {
  Program program(folder, Run("debugPrint('ready'); for (;;) {}"));
  EXPECT_TRUE(WaitUntil([&] { return program.Err().find("ready") != std::string::npos; }));
  EXPECT_TRUE(WaitUntil([&] {
    program.Signal(SIGINT);
    return program.Ended();
  }));
  EXPECT_EQ(program.Wait(), -SIGINT);
}

INSTANTIATE_TEST_SUITE_P(, CliRunTest, ::testing::Values("", "--threaded"), [](const auto& test) {
  return std::string(*test.param == '\0' ? "OnTheMainThread" : "OnTheWorker");
});

TEST_F(CliTest, MakesTheStorageFolder) {
  std::filesystem::create_directory(folder.path() + "scripts");
  folder.Write("scripts/a.js", "1");
  folder.Write("scripts/name.js", "2");
  const struct {
    Arguments arguments;
    const char* made;
  } cases[] = {
      {{"run", "scripts/a.js"}, "scripts/storage"},
      {{"run", "scripts/a.js", "--storage", "new/deep/"}, "new/deep/storage"},
      {{"eval", "1"}, "storage"},
      {{"eval", "1", "--storage", "of/eval"}, "of/eval/storage"},
  };
  for (const auto& test : cases) {
    EXPECT_FALSE(std::filesystem::exists(folder.path() + test.made)) << test.made;
    EXPECT_EQ(Vnjs(test.arguments).status, kFine);
    EXPECT_EQ(Vnjs(test.arguments).status, kFine) << "again, with the folder there";
    EXPECT_TRUE(std::filesystem::is_directory(folder.path() + test.made)) << test.made;
  }
  EXPECT_EQ(Vnjs({"eval", "executeFile('name.js')", "--storage", "scripts"}).out, "\"2\"\n");
}

TEST_F(CliTest, SaysSoWhenTheResultCannotBeWritten) {
  for (const Arguments& arguments : {Arguments{"eval", "1"}, {"--version"}}) {
    Program program(folder, arguments, "/dev/full");
    EXPECT_EQ(program.Wait(), kFailed);
    EXPECT_EQ(program.Err(), "vnjs: cannot write to standard output: No space left on device\n");
  }
}

TEST_F(CliTest, TheExamplesRunTogether) {
  const std::filesystem::path examples = std::filesystem::path(__FILE__).parent_path() / "../../examples";
  const Outcome outcome =
      Vnjs({"run", "--storage", ".", examples / "thermostat.js", examples / "motion_light.js"});
  EXPECT_EQ(outcome.status, kFine);
  const std::string log = Messages(outcome.err);
  std::string light;
  std::string heating;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    (line.rfind("hall", 0) == 0 ? light : heating) += line + "\n";
  EXPECT_EQ(light,
            "hall: motion at 120 lux, bright enough\n"
            "hall: motion at 12 lux, light on\n"
            "hall: motion again, waiting anew\n"
            "hall: motion again, waiting anew\n"
            "hall: no more motion, light off\n"
            "hall: motion at 10 lux, light on\n"
            "hall: no more motion, light off\n");
  EXPECT_THAT(heating, StartsWith("00:00 night: wanted 16.0\n"
                                  "01:45 heating on at 15.5\n"
                                  "02:30 heating off at 16.8\n"));
  EXPECT_THAT(heating, EndsWith("22:30 night: wanted 16.0\n"
                                "The day is over; the heating was switched 14 times.\n"));
}

TEST_F(CliTest, TheShuttersFollowAForecast) {
  const std::filesystem::path examples = std::filesystem::path(__FILE__).parent_path() / "../../examples";
  const Arguments run = {"run", "--storage", ".", examples / "shutters.js"};
  const Outcome without = Vnjs(run);
  EXPECT_EQ(without.status, kFine);
  EXPECT_THAT(Messages(without.err),
              StartsWith("06:00 forecast not usable: Failed to open file: ./forecast.xml No such file"));
  EXPECT_THAT(Messages(without.err), EndsWith("The day is over; the shutters moved 0 times.\n"));

  std::filesystem::copy(examples / "forecast.xml", folder.path());
  const Outcome outcome = Vnjs(run);
  EXPECT_EQ(outcome.status, kFine);
  EXPECT_EQ(Messages(outcome.err),
            "06:00 forecast for 16 hours\n"
            "09:00 kitchen down: 24 degrees and sun\n"
            "09:00 living room down: 24 degrees and sun\n"
            "10:00 forecast for 16 hours\n"
            "11:00 kitchen up: the sun has left\n"
            "14:00 forecast not usable: XML error at line 10, col 11: Premature end of data in tag forecast "
            "line 2\n"
            "14:00 study down: 31 degrees and sun\n"
            "15:00 living room up: gusts of 22 m/s\n"
            "15:00 study up: gusts of 22 m/s\n"
            "18:00 forecast for 16 hours\n"
            "20:00 study down: 23 degrees and sun\n"
            "21:00 study up: no longer warm and sunny\n"
            "The day is over; the shutters moved 8 times.\n");
}

}  // namespace
}  // namespace vnjs::testing
