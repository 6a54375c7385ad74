// system() and what it starts commands with: whose ends stay open where, what commands inherit, what comes back whole, and
// what is left of those that ended, were refused or could not be started. The lines of policies, and quotes, are for the
// fuzzer's corpus.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/process.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>
#include <string>

#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

using std::chrono::steady_clock;

/// Whether this process has a child, ended or not, that nobody waited for. Does not wait.
bool HasChildren() { return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD; }

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) text.append(buffer, static_cast<size_t>(n));
  return text;
}

TEST(ProcessTest, AnEndThatIsNotAskedForIsClosed) {
  const auto before = OpenDescriptors();
  int in = -1;
  int out = -1;
  // Without a writer, cat ends at once.
  int pid = popen2("cat; echo done; exit 3", nullptr, &out);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  EXPECT_EQ(ReadToEnd(out), "done\n");
  EXPECT_EQ(pclose2(pid, 0, out), 3 << 8);
  // Without a reader, echo is killed.
  pid = popen2("read line; echo $line; exit 0", &in, nullptr);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  EXPECT_EQ(write(in, "x\n", 2), 2);
  EXPECT_EQ(pclose2(pid, in, 0), SIGPIPE);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(pclose2(pid, 0, 0), -1) << "waited for already";
}

/// Has popen2 find a kernel before 5.11.
bool isKernelOld = false;

TEST(ProcessTest, TheCommandGetsThePipesAndNothingElseOfTheHost) {
  for (const bool isOld : {false, true}) {
    const int ours = fcntl(STDERR_FILENO, F_DUPFD, 200);
    int in = -1;
    int out = -1;
    isKernelOld = isOld;
    const int pid = popen2("exec ls -l /proc/self/fd 2>/dev/null", &in, &out);
    isKernelOld = false;
    close(ours);
    EXPECT_EQ(fcntl(in, F_GETFD), FD_CLOEXEC) << "closed in what the host starts itself";
    EXPECT_EQ(fcntl(out, F_GETFD), FD_CLOEXEC);
    const std::string files = ReadToEnd(out);
    EXPECT_EQ(pclose2(pid, in, out), 0);
    EXPECT_THAT(files, Not(HasSubstr(" 200 -> ")));
    // Both twice: as standard input and output, and under the numbers that they had in the host.
    const std::regex pipe("pipe:");
    EXPECT_EQ(std::distance(std::sregex_iterator(files.begin(), files.end(), pipe), {}), 4) << files;
  }
}

TEST(ProcessTest, TheCommandHasTheHostsMaskAndIgnoredSignals) {
  sigset_t blocked;
  sigset_t before;
  sigset_t after;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  signal(SIGUSR1, SIG_IGN);
  int out = -1;
  const int pid = popen2("exec cat /proc/self/status", nullptr, &out);
  signal(SIGUSR1, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_TRUE(sigismember(&after, SIGUSR2));
  EXPECT_FALSE(sigismember(&after, SIGTERM));
  const std::string status = ReadToEnd(out);
  EXPECT_EQ(pclose2(pid, 0, out), 0);
  // A bit for each signal, the first one being the lowest.
  EXPECT_THAT(status, HasSubstr("SigBlk:\t0000000000000800\n"));
  EXPECT_THAT(status, ::testing::ContainsRegex("SigIgn:\t[0-9a-f]*[0-389ab][2367abef]..\n"));
}

TEST(ProcessTest, AShellThatCannotBeExecutedSaysSoAndEndsWithOne) {
  ::testing::internal::CaptureStderr();
  const int pid = popen2(std::string(4 << 20, 'x').c_str(), nullptr, nullptr);
  EXPECT_EQ(pclose2(pid, 0, 0), 1 << 8);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "execl: Argument list too long\n");
}

TEST(ProcessTest, KillingReachesALeaderOfAGroupOnly) {
  int in = -1;
  int pid = popen2("read line", &in, nullptr);
  EXPECT_EQ(pkill2(pid), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(pclose2(pid, in, 0), 1 << 8) << "it was still running";

  pid = popen2("exec setsid sleep 60", nullptr, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return getpgid(pid) == pid; }));
  EXPECT_EQ(pkill2(pid), 0);
  EXPECT_EQ(pclose2(pid, 0, 0), SIGKILL);
}

TEST(ProcessTest, ASignalDoesNotEndTheWait) {
  const auto before = signal(SIGALRM, [](int) {});
  const itimerval often{{0, 2000}, {0, 2000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(pclose2(popen2("sleep 0.2; exit 5", nullptr, nullptr), 0, 0), 5 << 8);
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  signal(SIGALRM, before);
}

constexpr char kDenied[] = "Uncaught Error: This command is denied by policy";

/// The policy allows everything unless a test says otherwise.
class SystemTest : public ScriptTest {
 protected:
  SystemTest() { folder.Write(".syscommands", "\n"); }
};

TEST_F(SystemTest, ThePolicyFileDecides) {
  const std::string policy = dir() + ".syscommands";
  folder.Write(".syscommands", "echo a\n");
  RunTable(R"js(
    [[], [5], [''], [null], [new String('true')], ['\0true']].filter(a => {
      try { system(...a); } catch (e) { return e.message !== 'Invalid arguments'; } return true; }) ==> []
    system('echo', 'a')                            ==> Uncaught Error: This command is denied by policy
    system('echo a', 'b')                          ==> [0,"a b\n"]
  )js");
  folder.Write(".syscommands", "");
  EXPECT_EQ(Fail("system('true')"), kDenied);
  std::filesystem::remove(policy);
  EXPECT_EQ(Fail("system('true')"), "Uncaught Error: System commands are not configured");
  std::filesystem::create_symlink("/proc/sys/kernel/ostype", policy);
  EXPECT_EQ(Fail("system('Linux')"), kDenied) << "has lines and no size";
  std::filesystem::remove(policy);
  std::filesystem::create_symlink(".syscommands", policy);
  EXPECT_EQ(Fail("system('true')"), "Uncaught Error: Too many levels of symbolic links");
}

TEST_F(SystemTest, ReturnsTheWaitStatusAndTheOutput) {
  RunTable(R"js(
    system('exit 3')                               ==> [768,""]
    system('kill -9 $$')                           ==> [9,""]
    system("printf 'a\\000b'")                     ==> [0,"a"]
    system("printf '\\303\\244\\377'")             ==> [0,"ä�"]
    system('cat')                                  ==> [0,""]
    system('sleep 0.1; yes 123456789 | head -c 10485760')[1] === '123456789\n'.repeat(1048576) ==> true
    // Nobody waits for what it leaves running.
    var start = Date.now(); system('sleep 4 & echo started')[1] + (Date.now() - start < 3000) ==> "started\ntrue"
    // Arguments that are longer than the kernel takes, and than there is room for.
    var long = 'x'.repeat(4 << 20); system('exec 2>/dev/null; true', long) ==> [256,""]
    system('true', ...Array(20).fill(long))        ==> Uncaught Error: Bad allocation
  )js");
  EXPECT_FALSE(HasChildren());
}

TEST_F(SystemTest, AThousandCommandsLeaveNothing) {
  folder.Write(".syscommands", "true\nexit\n");
  Run("system('true')");
  const auto before = OpenDescriptors();
  Run("for (let i = 0; i < 1000; i++) { if (system('exit 1')[0] !== 256) throw i; }");
  Run("for (let i = 0; i < 1000; i++) { try { system('reboot'); } catch (e) { continue; } throw i; }");
  rlimit all{};
  getrlimit(RLIMIT_NOFILE, &all);
  const int next = dup(STDIN_FILENO);
  close(next);
  for (int count = 0; count < 5; ++count) {
    const rlimit few{static_cast<rlim_t>(next + count), all.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    Run("var n = 0; for (let i = 0; i < 200; i++) {"
        "  try { system('true'); } catch (e) { n += e.message === 'Too many open files'; } }");
    setrlimit(RLIMIT_NOFILE, &all);
    // The fifth descriptor is one too many for a failure.
    EXPECT_EQ(Run("n"), count < 4 ? "200" : "0");
  }
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_FALSE(HasChildren());
}

TEST_F(SystemTest, AScriptTerminatedInAnArgumentRunsNoCommand) {
  Terminate("system('touch " + dir() + "ran', {toString() { debugPrint('here'); for (;;); }})");
  EXPECT_FALSE(std::filesystem::exists(dir() + "ran"));
}

// The limit of 20 s is looked at when output comes or ends, and at no other time. All at once, to wait only
// once.
TEST_F(SystemTest, ACommandIsLateWhenItTalksOrClosesItsOutputAfterTheLimit) {
  constexpr char kLate[] = "Uncaught Error: Command timeout";
  struct Command {
    const char* command;
    const char* expected;
    int seconds;
  } const commands[] = {
      {"i=0; while [ $i -lt 120 ]; do echo $i; sleep 0.25; i=$((i+1)); done", kLate, 20},
      {"sleep 22", kLate, 22},
      // Silent, and what it leaves running keeps its output open.
      {"sleep 26 & sleep 22; exit 7", R"([1792,""])", 22},
  };
  AtOnce(3, [&](int i) {
    Automation other(dir().c_str());
    const auto start = steady_clock::now();
    const Command& test = commands[i];
    EXPECT_EQ(other.Run(("system('" + std::string(test.command) + "')").c_str(), "").result(), test.expected);
    const std::chrono::duration<double> time = steady_clock::now() - start;
    EXPECT_NEAR(time.count(), test.seconds + 3, 3) << test.command;
  });
  // Nobody waited for the late ones.
  EXPECT_TRUE(WaitUntil([] { return waitpid(-1, nullptr, WNOHANG) < 0; }));
}

}  // namespace
}  // namespace vnjs::testing

/// In front of the system's own.
extern "C" int close_range(unsigned first, unsigned last, int flags) noexcept {
  if (!vnjs::testing::isKernelOld) return static_cast<int>(syscall(SYS_close_range, first, last, flags));
  errno = ENOSYS;
  return -1;
}
