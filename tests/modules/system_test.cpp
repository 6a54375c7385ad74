// system(): what the policy lets through, what the shell is given, what comes back whole, and what is left of
// commands that ended, were refused or could not be started.
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
  /// What a command that the policy allows results in is no part of these tests.
  bool IsAllowed(const std::string& policy, const std::string& command) {
    folder.Write(".syscommands", policy);
    const RunResult result = automation->Run(("system('" + command + "')").c_str(), "");
    EXPECT_TRUE(!result.isException() || result.result() == kDenied) << command << ": " << result.result();
    return !result.isException();
  }
  void AllowAll() { folder.Write(".syscommands", "\n"); }

  static constexpr char kDenied[] = "Uncaught Error: This command is denied by policy";
};

TEST_F(SystemTest, RefusesArgumentsBeforeItLooksAtThePolicy) {
  RunTable(R"js(
    [typeof system, system.name, 'prototype' in system] ==> ["function","system",false]
    [[], [5], [''], [undefined], [null], [new String('true')], [{}], ['\0true']].filter(a => {
      try { system(...a); } catch (e) { return e.message !== 'Invalid arguments'; } return true; }) ==> []
  )js");
}

TEST_F(SystemTest, ThePolicyFileDecides) {
  const std::string policy = dir() + ".syscommands";
  EXPECT_EQ(Fail("system('true')"), "Uncaught Error: System commands are not configured");
  EXPECT_FALSE(IsAllowed("", "true"));
  std::filesystem::remove(policy);
  std::filesystem::create_directory(policy);
  EXPECT_EQ(Fail("system('true')"), kDenied) << "a folder has no lines";
  std::filesystem::remove(policy);
  std::filesystem::create_symlink("/proc/sys/kernel/ostype", policy);
  EXPECT_EQ(Fail("system('Linux')"), kDenied) << "has lines and no size";
  std::filesystem::remove(policy);
  std::filesystem::create_symlink(".syscommands", policy);
  EXPECT_EQ(Fail("system('true')"), "Uncaught Error: Too many levels of symbolic links");
}

TEST_F(SystemTest, ALineAllowsWhatBeginsWithIt) {
  using std::string_literals::operator""s;
  const std::pair<std::string, const char*> allowed[] = {
      {"true\n", "true"},
      {"true\n", "true -l"},
      {"tru\n", "true"},
      {"true\n", "true; true"},
      {"true", "true"},
      {"true \t\r\n", "true"},
      {"false\r\n# no\r\ntrue\r\n", "true"},
      {" #\n", " # x"},
      {" true\n", " true"},
      {"\n", "true"},
      {"false\n \t \n", "true"},
      {std::string(100000, 'x') + "\ntrue\n", "true"},
      // Nothing behind a zero byte counts, and it is no blank to cut off.
      {"true\0\n"s, "true"}};
  for (const auto& [policy, command] : allowed) EXPECT_TRUE(IsAllowed(policy, command)) << policy << command;
  const std::pair<std::string, const char*> denied[] = {
      {"true\n", "tru"},           {"true\n", " true"},     {"true x\n", "true"}, {"#true\n", "true"},
      {"#true\n", "#true"},        {"#\n", "true"},         {" #\n", "true"},     {" true\n", "true"},
      {"\"true\"\ntr*\n", "true"}, {"true\0\n"s, "true x"}, {"\0\n"s, "true"}};
  for (const auto& [policy, command] : denied) EXPECT_FALSE(IsAllowed(policy, command)) << policy << command;
}

TEST_F(SystemTest, ArgumentsReachTheShellInTheirOldQuotes) {
  // They do not count for the policy. What follows the first line of a here-document is printed as the shell got it.
  folder.Write(".syscommands", "cat <<\necho a\n");
  RunTable(R"js(
    system('echo', 'a')                            ==> Uncaught Error: This command is denied by policy
    system('echo a', 'b')                          ==> [0,"a b\n"]
    function line(...a) { return system("cat <<'END'\n", ...a)[1]; }
    line('x', 'y')                                 ==> " x y"
    line('a b', 'c')                               ==> " \"a b\" c"
    line('', 'x')                                  ==> "  x"
    line(undefined, null, 1.5, true, [1, 2])       ==> "   1.5 true 1,2"
    line('a\tb', '""', '$x;`y`')                   ==> " a\tb \"\" $x;`y`"
    line('"a b')                                   ==> " \"\\\"a b\""
    line('a "bcd')                                 ==> " \"a \\\"d\""
    line('ab "c')                                  ==> " \"ab \\\"\""
    line('"a" b')                                  ==> " \"\\\"a\\\"\""
    line('"" b')                                   ==> " \"\\\"\\\"\""
    line('a b\0c')                                 ==> " \"a b\""
    line({toString() { return 'a b'; }})           ==> " \"a b\""
    line({toString() { throw 1; }}, Symbol(), 'x') ==> "   x"
  )js");
}

TEST_F(SystemTest, ReturnsTheWaitStatusAndTheOutput) {
  AllowAll();
  RunTable(R"js(
    system('exit 3')                               ==> [768,""]
    system('kill -9 $$')                           ==> [9,""]
    system("printf 'a\\000b'")                     ==> [0,"a"]
    system("printf '\\303\\244\\377'")             ==> [0,"ä�"]
    system('cat')                                  ==> [0,""]
    system('no-such-command 2>/dev/null')          ==> [32512,""]
    // The argument is longer than the kernel takes.
    system('exec 2>/dev/null; true', 'x'.repeat(4 << 20)) ==> [256,""]
    Object.defineProperty(Array.prototype, 0, {set() { throw 1; }, configurable: true}); system('true') ==> [0,""]
  )js");
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
  const Interruptions often(500);
  Run("var r = system('i=0; while [ $i -lt 3 ]; do echo $i; sleep 0.05; i=$((i+1)); done; "
      "yes 123456789 | head -c 10485760')");
  EXPECT_EQ(Run("[r[0], r[1].length, r[1].slice(0, 6), r[1].slice(6) === '123456789\\n'.repeat(1048576)]"),
            R"([0,10485766,"0\n1\n2\n",true])");
}

TEST_F(SystemTest, AThousandCommandsLeaveNothing) {
  folder.Write(".syscommands", "true\nexit\n");
  Run("system('true')");
  const auto before = OpenDescriptors();
  Run("for (let i = 0; i < 1000; i++) { if (system('exit 1')[0] !== 256) throw i; }");
  Run("var n = 0; for (let i = 0; i < 1000; i++) { try { system('reboot'); } catch (e) { n++; } }");
  EXPECT_EQ(Run("n"), "1000");
  for (int count = 0; count < 5; ++count) {
    const DescriptorLimit limit(count);
    Run("n = 0; for (let i = 0; i < 200; i++) {"
        "  try { system('true'); } catch (e) { n += e.message === 'Too many open files'; } }");
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
  } const commands[] = {
      {"i=0; while [ $i -lt 120 ]; do echo $i; sleep 0.25; i=$((i+1)); done",
       "Uncaught Error: Command timeout", 20},
      {"sleep 22", "Uncaught Error: Command timeout", 22},
      // Silent, and what it leaves running keeps its output open.
      {"sleep 26 & sleep 22; exit 7", R"([1792,""])", 22},
  };
  AtOnce(3, [&](int i) {
    Automation other(dir().c_str());
    other.SetLogger(NewLogger("limit"));
    const auto start = std::chrono::steady_clock::now();
    const Command& test = commands[i];
    EXPECT_EQ(other.Run(("system('" + std::string(test.command) + "')").c_str(), "").result(), test.expected);
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, std::chrono::seconds(test.seconds)) << test.command;
    EXPECT_LT(time, std::chrono::seconds(test.seconds + 6)) << test.command;
  });

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
