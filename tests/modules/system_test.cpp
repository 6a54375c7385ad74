// system(): what the policy lets through, what the shell is given, what comes back whole, and what is left of
// commands that ended, were refused or could not be started.
#include <sys/time.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/modules/descriptors.h"
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

class SystemTest : public ScriptTest {
 protected:
  void Policy(const std::string& content) { folder.Write(".syscommands", content); }
  void AllowAll() { Policy("\n"); }

  /// The result of a command as JSON text, or the message of the script's exception.
  std::string System(const std::string& arguments) {
    return Run("try { JSON.stringify(system(" + arguments + ")) } catch (e) { e.message }");
  }
};

constexpr char kDenied[] = "\"This command is denied by policy\"";

TEST_F(SystemTest, IsANativeWithoutPrototype) {
  RunAll(
      {{"typeof system + '|' + system.name + '|' + ('prototype' in system)", "\"function|system|false\""}});
}

TEST_F(SystemTest, RefusesArgumentsBeforeItLooksAtThePolicy) {
  for (const char* arguments :
       {"", "5", "''", "undefined", "null", "new String('true')", "{}", "'\\0true'"}) {
    EXPECT_EQ(System(arguments), "\"Invalid arguments\"") << arguments;
  }
}

TEST_F(SystemTest, ThePolicyFileDecides) {
  EXPECT_EQ(System("'true'"), "\"System commands are not configured\"");
  Policy("");
  EXPECT_EQ(System("'true'"), kDenied);

  std::filesystem::remove(dir() + ".syscommands");
  std::filesystem::create_directory(dir() + ".syscommands");
  EXPECT_EQ(System("'true'"), kDenied) << "a folder has no lines";
  std::filesystem::remove(dir() + ".syscommands");
  std::filesystem::create_symlink("/proc/sys/kernel/ostype", dir() + ".syscommands");
  EXPECT_EQ(System("'Linux'"), kDenied) << "has lines and no size";
  std::filesystem::remove(dir() + ".syscommands");
  std::filesystem::create_symlink(".syscommands", dir() + ".syscommands");
  EXPECT_EQ(System("'true'"), "\"Too many levels of symbolic links\"");
}

TEST_F(SystemTest, ALineAllowsWhatBeginsWithIt) {
  using std::string_literals::operator""s;
  struct {
    std::string policy;
    const char* command;
    bool allowed;
  } const cases[] = {
      {"true\n", "true", true},
      {"true\n", "true -l", true},
      {"tru\n", "true", true},
      {"true\n", "true; true", true},
      {"true\n", "tru", false},
      {"true\n", " true", false},
      {"true x\n", "true", false},
      {"true", "true", true},
      {"true \t\r\n", "true", true},
      {"false\r\n# no\r\ntrue\r\n", "true", true},
      {"#true\n", "true", false},
      {"#true\n", "#true", false},
      {"#\n", "true", false},
      {" #\n", "true", false},
      {" #\n", " # x", true},
      {" true\n", "true", false},
      {" true\n", " true", true},
      {"\n", "true", true},
      {"false\n \t \n", "true", true},
      {"\"true\"\ntr*\n", "true", false},
      // Nothing behind a zero byte counts, and it is no blank to cut off.
      {"true\0\n"s, "true", true},
      {"true\0\n"s, "true x", false},
      {"\0\n"s, "true", false},
      {std::string(100000, 'x') + "\ntrue\n", "true", true},
  };
  for (const auto& test : cases) {
    Policy(test.policy);
    const std::string result = System(std::string("'") + test.command + "'");
    EXPECT_EQ(result == kDenied, !test.allowed) << test.policy << " | " << test.command << " | " << result;
  }
}

TEST_F(SystemTest, ArgumentsDoNotCountForThePolicy) {
  Policy("echo a\n");
  EXPECT_EQ(System("'echo', 'a'"), kDenied);
  EXPECT_EQ(System("'echo a', 'b'"), R"("[0,\"a b\\n\"]")");
}

TEST_F(SystemTest, ArgumentsReachTheShellInTheirOldQuotes) {
  AllowAll();
  // What follows the first line of a here-document is printed as the shell got it.
  Run("function line(...a) { return system(\"cat <<'END'\\n\", ...a)[1]; }");
  RunAll({
      {"line('x', 'y')", R"(" x y")"},
      {"line('a b', 'c')", R"(" \"a b\" c")"},
      {"line('', 'x')", R"("  x")"},
      {"line(undefined, null, 1.5, true, [1, 2])", R"("   1.5 true 1,2")"},
      {"line('a\\tb', '\"\"', '$x;`y`')", R"(" a\tb \"\" $x;`y`")"},
      {"line('\"a b')", R"(" \"\\\"a b\"")"},
      {"line('a \"bcd')", R"(" \"a \\\"d\"")"},
      {"line('ab \"c')", R"(" \"ab \\\"\"")"},
      {"line('\"a\" b')", R"(" \"\\\"a\\\"\"")"},
      {"line('\"\" b')", R"(" \"\\\"\\\"\"")"},
      {"line('a b\\0c')", R"(" \"a b\"")"},
      {"line({toString() { return 'a b'; }})", R"(" \"a b\"")"},
      {"line({toString() { throw 1; }}, Symbol(), 'x')", R"("   x")"},
  });
}

TEST_F(SystemTest, ReturnsTheWaitStatusAndTheOutput) {
  AllowAll();
  RunAll({
      {"system('exit 3')", R"([768,""])"},
      {"system('kill -9 $$')", R"([9,""])"},
      {"system('echo', 'a b')", R"([0,"a b\n"])"},
      {"system(\"printf 'a\\\\000b'\")", R"([0,"a"])"},
      {"system(\"printf '\\\\303\\\\244\\\\377'\")", "[0,\"\xC3\xA4\xEF\xBF\xBD\"]"},
      {"system('cat')", R"([0,""])"},
      {"system('no-such-command 2>/dev/null')", R"([32512,""])"},
      // The argument is longer than the kernel takes.
      {"system('exec 2>/dev/null; true', 'x'.repeat(4 << 20))", R"([256,""])"},
      {"Object.defineProperty(Array.prototype, 0, {set() { throw 1; }, configurable: true}); system('true')",
       R"([0,""])"},
  });
  EXPECT_FALSE(HasChildren());
}

TEST_F(SystemTest, DoesNotWaitForWhatTheCommandLeavesRunning) {
  AllowAll();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Run("system('sleep 4 & echo started')"), R"([0,"started\n"])");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_F(SystemTest, OutputIsWholeWhileSignalsInterrupt) {
  AllowAll();
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &before);
  const itimerval often{{0, 500}, {0, 500}};
  setitimer(ITIMER_REAL, &often, nullptr);
  Run("var r = system('i=0; while [ $i -lt 3 ]; do echo $i; sleep 0.05; i=$((i+1)); done; yes 123456789 | "
      "head -c "
      "10485760')");
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_EQ(Run("[r[0], r[1].length, r[1].slice(0, 6), r[1].slice(6) === '123456789\\n'.repeat(1048576)]"),
            R"([0,10485766,"0\n1\n2\n",true])");
}

TEST_F(SystemTest, AThousandCommandsLeaveNothing) {
  Policy("true\nexit\n");
  Run("system('true')");
  const auto before = OpenDescriptors();
  Run("for (let i = 0; i < 1000; i++) { if (system('exit 1')[0] !== 256) throw i; }");
  Run("var n = 0; for (let i = 0; i < 1000; i++) { try { system('reboot'); } catch (e) { n++; } }");
  EXPECT_EQ(Run("n"), "1000");
  for (int count = 0; count < 5; ++count) {
    const DescriptorLimit limit(count);
    Run("n = 0; for (let i = 0; i < 200; i++) { try { system('true'); } catch (e) { if (e.message === 'Too "
        "many open "
        "files') n++; } }");
    // The fifth descriptor is one too many for a failure.
    EXPECT_EQ(Run("n"), count < 4 ? "200" : "0");
  }
  Run("for (let i = 0; i < 20; i++) { if (system('exit', 'x'.repeat(200000))[0] !== 256) throw i; }");
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_FALSE(HasChildren());
}

TEST_F(SystemTest, AScriptTerminatedInAnArgumentRunsNoCommand) {
  AllowAll();
  v8::Isolate* const isolate = environment()->GetIsolate();
  std::thread terminator([&] {
    WaitUntil([&] { return std::filesystem::exists(dir() + "waiting"); });
    isolate->TerminateExecution();
  });
  Fail("system('touch " + dir() + "ran', {toString() { system('touch " + dir() + "waiting'); for (;;); }})");
  terminator.join();
  EXPECT_FALSE(std::filesystem::exists(dir() + "ran"));
  EXPECT_EQ(Run("1 + 1"), "2");
}

// The limit of 20 s is looked at when output comes or ends, and at no other time. All at once, to wait only
// once.
TEST_F(SystemTest, ACommandIsLateWhenItTalksOrClosesItsOutputAfterTheLimit) {
  AllowAll();
  struct Command {
    const char* command;
    const char* expected;
    int seconds;
    std::string result = {};
    std::chrono::steady_clock::duration time = {};
  } commands[] = {
      {"i=0; while [ $i -lt 120 ]; do echo $i; sleep 0.25; i=$((i+1)); done", "\"Command timeout\"", 20},
      {"sleep 22", "\"Command timeout\"", 22},
      // Silent, and what it leaves running keeps its output open.
      {"sleep 26 & sleep 22; exit 7", R"("[1792,\"\"]")", 22},
  };
  std::vector<std::thread> threads;
  for (Command& command : commands) {
    threads.emplace_back([&] {
      Automation automation(dir().c_str());
      automation.SetLogger(NewLogger("limit"));
      const auto start = std::chrono::steady_clock::now();
      const std::string code =
          std::string("try { JSON.stringify(system('") + command.command + "')) } catch (e) { e.message }";
      command.result = automation.Run(code.c_str(), "limit.js").result();
      command.time = std::chrono::steady_clock::now() - start;
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const Command& command : commands) {
    EXPECT_EQ(command.result, command.expected) << command.command;
    EXPECT_GE(command.time, std::chrono::seconds(command.seconds)) << command.command;
    EXPECT_LT(command.time, std::chrono::seconds(command.seconds + 6)) << command.command;
  }

  // Nobody waited for the late ones. The kill did not reach the first: it ended at its next word to a closed
  // pipe.
  std::multiset<int> ends;
  EXPECT_TRUE(WaitUntil([&] {
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) ends.insert(status);
    return ends.size() == 2;
  }));
  EXPECT_EQ(ends, (std::multiset<int>{0, SIGPIPE}));
}

}  // namespace
}  // namespace vnjs::testing
