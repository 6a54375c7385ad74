// The program vnjs: exit statuses, what goes to which stream, when a run ends, and command lines that are
// refused.
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

namespace files = std::filesystem;

/// Commands of a shell for which `vnjs` is the program, in a folder that takes their two streams as files.
class CliTest : public ::testing::Test {
 protected:
  /// `signalled SIGNAL ARGUMENTS` runs the program until it has printed that it is ready, then signals it once or, with
  /// "again" for a SIGNAL, until it ends.
  CliTest() {
    folder.Write("prelude", "vnjs() { " VNJS_PROGRAM R"( "$@"; }
      signalled() {
        signal=$1; shift; )" VNJS_PROGRAM R"( "$@" &
        until grep -q ready .err; do sleep 0.02; done
        grep -hs vorn/core /proc/$!/task/*/comm
        if [ $signal = again ]; then while kill -INT $!; do sleep 0.02; done 2>/dev/null; else kill -$signal $!; fi
        wait $!; })");
  }

  /// Its exit status.
  int Shell(const std::string& command) {
    folder.Write("command", "cd " + folder.path() + "; exec >.out 2>.err; . ./prelude; " + command);
    return WEXITSTATUS(system(("timeout -k 1 60 sh " + folder.path() + "command").c_str()));
  }

  /// Runs the rows of a table: `ARGUMENTS ==> STATUS OUT || MESSAGES`, the texts without their last line's end and with
  /// a "\n" for others. The lines above a row are what a.js has from there on.
  void RunTable(const std::string& table, const std::string& more = "") {
    const std::regex pattern(R"( *(.*?) *==> (\d) ?(.*?)(?: ?\|\| (.*))?)");
    std::istringstream lines(table);
    std::string script;
    for (std::string line; std::getline(lines, line);) {
      std::smatch row;
      if (!std::regex_match(line, row, pattern)) {
        if (line.find_first_not_of(' ') != std::string::npos)
          script += line.substr(line.find_first_not_of(' ')) + '\n';
        continue;
      }
      if (!script.empty()) folder.Write("a.js", std::exchange(script, ""));
      EXPECT_EQ(Shell("vnjs " + row.str(1) + more), std::stoi(row.str(2))) << row.str();
      EXPECT_EQ(folder.Read(".out"), Lines(row.str(3))) << row.str();
      EXPECT_EQ(Messages(), Lines(row.str(4))) << row.str();
    }
  }

  /// Standard error without the times and modules of the log, and without the usual hint.
  std::string Messages() const {
    const std::regex place(R"(\d\d:\d\d:\d\d\.\d{3} (\w+) +core +)");
    const std::regex hint("Run with --help for more information.\n");
    return std::regex_replace(std::regex_replace(folder.Read(".err"), place, "$1 "), hint, "");
  }

  TemporaryFolder folder;

 private:
  static std::string Lines(const std::string& text) {
    return text.empty() ? "" : std::regex_replace(text, std::regex(R"(\\n)"), "\n") + '\n';
  }
};

TEST_F(CliTest, RunsFilesOnTheMainThreadAndOnTheWorker) {
  folder.Write("b.js", "n += 22; debugPrint('b', executeFile('c.js')); setTimeout(later, 30);");
  folder.Write("c.js", "n");
  folder.Write("text", "abc");
  ASSERT_EQ(mkfifo((folder.path() + "pipe").c_str(), 0600), 0);
  folder.Write("after.js", "debugPrint('after');\n0;");
  for (const char* more : {"", " --threaded"}) {
    const char* const table = R"(
      var n = 20; function later() { debugPrint('later', n); }
      run a.js b.js                        ==> 0 || info b 42\ninfo later 42
      // Ends when nothing is left to do, on exit() and after the given time.
      var n = 0, id = setInterval(() => { if (++n == 2) { clearInterval(id); setTimeout(last, 0); } }, 25);
      function last() { Promise.resolve().then(() => debugPrint('last', n)); }
      run a.js                             ==> 0 || info last 2
      setInterval(() => {}, 25); exit(); debugPrint('still');
      run a.js after.js                    ==> 0 || info still
      setInterval(() => { exit(); debugPrint('still'); }, 25);
      run a.js                             ==> 0 || info still
      setInterval(() => {}, 25); setTimeout(() => debugPrint('late'), 50);
      run a.js --for 2                     ==> 0 || info late
      run a.js --quiet --timeout 1.5       ==> 1 || vnjs: not done after 1.5 s
      // A failed script is reported with its place and ends the run; a callback that fails does not.
      throw new Error('no');
      run --quiet a.js after.js            ==> 1 || a.js:2:1: Uncaught Error: no\n2 | throw new Error('no');\n  | ^
      eval('none')
      run --quiet a.js after.js            ==> 1 || a.js: Uncaught ReferenceError: none is not defined
      for (;;) {}
      run --quiet --timeout 1.5 a.js       ==> 1 || a.js:1:1: Script execution was interrupted\n1 | for (;;) {}\n  | ^\nvnjs: not done after 1.5 s
      setTimeout(() => { for (;;) {} }, 1)
      run --quiet --timeout 1.5 a.js       ==> 1 || vnjs: not done after 1.5 s
      run --quiet --for 0.5 a.js           ==> 0
      setTimeout(async () => { none; }, 0)
      run a.js                             ==> 0 || error Unhandled promise rejection: ReferenceError: none is not defined\n                               at AsyncFunction.<anonymous> (a.js:1:26)\n                           1 | setTimeout(async () => { none; }, 0)\n                             |                          ^
      debugPrint('note'); setTimeout(() => { throw 1; }, 0)
      run a.js --timeout 60                ==> 0 || info note\nerror Callback execution error: Uncaught 1
      run after.js --log trace             ==> 0 || trace Executing script: debugPrint('after'); ...\ninfo after
      run a.js --log warning               ==> 0 || error Callback execution error: Uncaught 1
      run a.js --log error                 ==> 0 || error Callback execution error: Uncaught 1
      run a.js --log none                  ==> 0
      // A place in a text may be anything.
      for (const name of ['/dev/zero', 'pipe', 'none', 'text']) console.error(`no (${name}:1:2)`)
      run a.js                             ==> 0 || error no (/dev/zero:1:2)\nerror no (pipe:1:2)\nerror no (none:1:2)\nerror no (text:1:2)\n                           1 | abc\n                             |  ^
    )";
    RunTable(table, more);
  }
}

TEST_F(CliTest, EndsOnSignals) {
  for (const std::string threaded : {"", " --threaded"}) {
    const auto expect = [&](const std::string& signal, int status, const char* script) {
      folder.Write("a.js", script);
      EXPECT_EQ(Shell("signalled " + signal + " run a.js" + threaded), status) << script;
      EXPECT_EQ(folder.Read(".out"), threaded.empty() ? "" : "vorn/core\n")
          << "scripts run on the wrong thread";
    };
    expect("INT", 0, "setInterval(() => {}, 25); debugPrint('ready');");
    expect("TERM", 0, "setInterval(() => {}, 25); debugPrint('ready');");
    EXPECT_EQ(Messages(), "info ready\n");
#ifndef __SANITIZE_THREAD__  // It keeps signals back while a thread does not call it.
    expect("TERM", 0, "setInterval(() => { for (;;) {} }, 5); debugPrint('ready'); for (;;) {}");
    expect("again", 128 + SIGINT,
           "debugPrint('ready'); Array.prototype.indexOf.call({length: 2 ** 53 - 1}, 1);");
#endif
  }
}

TEST_F(CliTest, EvalPrintsTheResultText) {
  RunTable(R"(
    eval "'a'"                             ==> 0 "a"
    eval {}                                ==> 0 undefined
    eval '[1,2]'                           ==> 0 [1,2]
    eval -- -1                             ==> 0 -1
    eval 'var run = 1; run'                ==> 0 1
    eval --threaded '6*7'                  ==> 0 42
    eval 'setInterval(function () {}, 25)' ==> 0 1
    eval 'debugPrint(1); 3'                ==> 0 3 || info 1
    eval --quiet '1 + x'                   ==> 1 || eval:1:5: Uncaught ReferenceError: x is not defined\n1 | 1 + x\n  |     ^
    eval 1 >/dev/full                      ==> 1 || vnjs: cannot write to standard output: No space left on device
    --version >/dev/full                   ==> 1 || vnjs: cannot write to standard output: No space left on device
  )");
  // What scripts write does nothing to the terminal, nor looks like lines of the log.
  RunTable(R"(
    console.log('\x1b[2J\r\x9b\x7f ä£')
    run a.js                               ==> 0 || info \x1b[2J\x0d\x9b\x7f ä£
    throw '\x1b]0;title\x07'
    run --quiet a.js                       ==> 1 || a.js:1:1: Uncaught \x1b]0;title\x07\n1 | throw '\x1b]0;title\x07'\n  | ^
  )");
  for (const std::string arguments : {"--version", "run --help", "eval --help", "--help"}) {
    EXPECT_EQ(Shell("vnjs " + arguments), 0);
    EXPECT_EQ(Messages(), "");
    EXPECT_THAT(folder.Read(".out"), MatchesRegex("(vnjs 1|Run)(.|\n)+")) << arguments;
    EXPECT_THAT(folder.Read(".out"), Not(MatchesRegex("(.|\n)*[^\n]{81}(.|\n)*"))) << "wider than a terminal";
  }
}

TEST_F(CliTest, RefusesWhatCannotBeDoneBeforeAnythingRuns) {
  folder.Write("file", "");
  files::create_directory(folder.path() + "dir");
  RunTable(R"(
    debugPrint('ran')
                                           ==> 2 || vnjs: run, repl, check or eval is required
    run                                    ==> 2 || vnjs: FILE is required
    run a.js --loud                        ==> 2 || vnjs: The following argument was not expected: --loud
    run a.js --log loud                    ==> 2 || vnjs: --log: 'loud' is none of trace, info, warning, error, none
    run a.js --for 1s                      ==> 2 || vnjs: --for: '1s' is not a number of seconds
    run a.js --for nan                     ==> 2 || vnjs: --for: 'nan' is not a number of seconds
    run a.js --debug=0                     ==> 2 || vnjs: --debug: '0' is not a port
    run a.js --debug-brk=65536             ==> 2 || vnjs: --debug-brk: '65536' is not a port
    eval 1 --for 1                         ==> 2 || vnjs: The following arguments were not expected: 1 --for
    run a.js --storage ''                  ==> 2 || vnjs: --storage: must not be empty
    run a.js --storage file                ==> 2 || vnjs: cannot make the folder file/storage: Not a directory
    run a.js missing.js                    ==> 2 || vnjs: missing.js: No such file or directory
    run a.js dir                           ==> 2 || vnjs: dir: Is a directory
  )");
  EXPECT_FALSE(files::exists(folder.path() + "storage"));
}

TEST_F(CliTest, LogsWhereLittleIsLeftOfTheStack) {
  EXPECT_EQ(
      Shell("ulimit -s 1024; vnjs eval \"function f() { console.error('at '.repeat(1000)); f(); } f()\""), 1);
  // As it is: megabytes are too much for Messages.
  EXPECT_THAT(folder.Read(".err"), HasSubstr("Maximum call stack size exceeded"));
}

TEST_F(CliTest, LogLinesHaveColoursOnATerminal) {
  for (const auto& [setting, line] : {std::pair("unset NO_COLOR", " \033[36minfo   \033[0m core  1\r\n"),
                                      std::pair("export NO_COLOR=1", " info    core  1\r\n")}) {
    Shell(std::string(setting) + "; script -qec '" VNJS_PROGRAM " eval debugPrint\\(1\\)' /dev/null");
    EXPECT_THAT(folder.Read(".out"), HasSubstr(line));
  }
}

TEST_F(CliTest, MakesTheStorageFolder) {
  files::create_directory(folder.path() + "scripts");
  folder.Write("scripts/a.js", "1");
  RunTable(R"(
    run scripts/a.js && ls scripts         ==> 0 a.js\nstorage
    run scripts/a.js && ls scripts         ==> 0 a.js\nstorage
    run scripts/a.js --storage new/deep/ && ls new/deep ==> 0 storage
    eval 1 && ls -d storage                ==> 0 1\nstorage
    eval 'executeFile("a.js")' --storage scripts ==> 0 "1"
  )");
}

TEST_F(CliTest, ChecksSyntaxAndRunsNothing) {
  folder.Write("fine.js", "debugPrint('ran'); none();");
  folder.Write("zero.js", std::string_view("1;\0 what is behind a zero is not run", 36));
  RunTable(R"(
    let a; let ä = 'ö🎉', a;
    check a.js fine.js                     ==> 1 || a.js:1:23: Uncaught SyntaxError: Identifier 'a' has already been declared\n1 | let a; let ä = 'ö🎉', a;\n  |                      ^
    check fine.js                          ==> 0
    check zero.js                          ==> 0
    eval --memory 7 1                      ==> 2 || vnjs: --memory: '7' is not a number of megabytes from 8 on
    eval --memory 8 'try { new Uint8Array(9e6); } catch (e) { e.name; }' ==> 0 "RangeError"
    check fine.js missing.js               ==> 2 || vnjs: missing.js: No such file or directory
  )");
}

TEST_F(CliTest, RunsAgainWhenAFileHasChanged) {
  folder.Write("a.js", "debugPrint('one'); for (;;) {}");
  folder.Write("b.js", "");
  EXPECT_EQ(Shell(VNJS_PROGRAM R"sh( run --watch a.js b.js &
    until grep -q one .err; do sleep 0.02; done
    echo "debugPrint('two'); none" >new; mv new a.js
    until grep -q none.is .err; do sleep 0.02; done
    echo "debugPrint('three')" >a.js
    until grep -q three .err; do sleep 0.02; done
    rm b.js; echo "debugPrint('four')" >a.js
    until grep -q 'to open file: b.js' .err; do sleep 0.02; done
    echo "debugPrint('five')" >b.js
    until grep -q five .err; do sleep 0.02; done
    kill -INT $!; wait $!)sh"),
            0);
  EXPECT_THAT(Messages(), HasSubstr("info two\n"));
  EXPECT_THAT(Messages(), Not(HasSubstr("a.js:1:1: Script execution was interrupted")));
}

}  // namespace
}  // namespace vnjs::testing
