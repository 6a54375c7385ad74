// popen2, pclose2, pkill2: whose ends stay open where, what the command inherits, and what is left when
// nothing could be started.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <vnjs/process.h>

#include <csignal>
#include <map>
#include <sstream>
#include <string>

#include "tests/modules/descriptors.h"
#include "tests/support/script_test.h"

namespace vnjs::testing {
namespace {

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;) text.append(buffer, static_cast<size_t>(n));
  return text;
}

/// A line of hexadecimal signal bits from the text of /proc/PID/status.
uint64_t SignalBits(const std::string& status, const std::string& name) {
  const size_t place = status.find(name + ":\t");
  EXPECT_NE(place, std::string::npos) << status;
  return std::stoull(status.substr(place + name.size() + 2), nullptr, 16);
}

uint64_t Bit(int signal) { return uint64_t{1} << (signal - 1); }

TEST(ProcessTest, AnEndThatIsNotAskedForIsClosed) {
  const auto before = OpenDescriptors();
  int in = -1;
  int out = -1;
  int pid = popen2("cat; echo done", &in, &out);
  EXPECT_EQ(write(in, "one\ntwo\n", 8), 8);
  close(in);
  EXPECT_EQ(ReadToEnd(out), "one\ntwo\ndone\n");
  EXPECT_EQ(pclose2(pid, 0, out), 0);
  EXPECT_FALSE(HasChildren());

  // Without a writer, cat ends at once.
  pid = popen2("cat; exit 3", nullptr, &out);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  EXPECT_EQ(ReadToEnd(out), "");
  EXPECT_EQ(pclose2(pid, 0, out), 3 << 8);

  // Without a reader, echo is killed.
  pid = popen2("read line; echo $line; exit 0", &in, nullptr);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  EXPECT_EQ(write(in, "x\n", 2), 2);
  EXPECT_EQ(pclose2(pid, in, 0), SIGPIPE);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(pclose2(pid, 0, 0), -1) << "waited for already";
}

TEST(ProcessTest, TheCommandGetsThePipesAndNothingElseOfTheHost) {
  const int ours = fcntl(STDERR_FILENO, F_DUPFD, 200);
  int in = -1;
  int out = -1;
  const int pid = popen2(
      "for f in /proc/$$/fd/*; do case $f in */2) ;; *) readlink $f; esac; done;"
      "[ ! -e /proc/$$/fd/200 ] || echo pipe:leaked",
      &in, &out);
  close(ours);
  EXPECT_EQ(fcntl(in, F_GETFD), FD_CLOEXEC) << "closed in what the host starts itself";
  EXPECT_EQ(fcntl(out, F_GETFD), FD_CLOEXEC);
  std::istringstream listing(ReadToEnd(out));
  EXPECT_EQ(pclose2(pid, in, out), 0);
  // Both twice: as standard input and output, and under the numbers that they had in the host.
  std::map<std::string, int> files;
  for (std::string line; std::getline(listing, line);) {
    if (line.rfind("pipe:", 0) == 0) ++files[line];
  }
  using ::testing::_;
  EXPECT_THAT(files, ::testing::ElementsAre(::testing::Pair(_, 2), ::testing::Pair(_, 2)));
}

TEST(ProcessTest, TheCommandHasTheHostsMaskAndIgnoredSignals) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  signal(SIGUSR1, SIG_IGN);
  signal(SIGCHLD, SIG_IGN);
  int in = -1;
  int out = -1;
  const int pid = popen2("read line; while read line; do echo \"$line\"; done </proc/$$/status", &in, &out);
  signal(SIGCHLD, SIG_DFL);
  signal(SIGUSR1, SIG_DFL);
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_TRUE(sigismember(&after, SIGUSR2));
  EXPECT_FALSE(sigismember(&after, SIGTERM));

  EXPECT_EQ(write(in, "\n", 1), 1);
  const std::string status = ReadToEnd(out);
  EXPECT_EQ(pclose2(pid, in, out), 0);
  // Without word of its children's ends, a shell could not wait for them.
  EXPECT_EQ(SignalBits(status, "SigIgn") & (Bit(SIGUSR1) | Bit(SIGTERM) | Bit(SIGCHLD)), Bit(SIGUSR1));
  EXPECT_EQ(SignalBits(status, "SigBlk") & (Bit(SIGUSR2) | Bit(SIGTERM)), Bit(SIGUSR2));
}

TEST(ProcessTest, AShellThatCannotBeExecutedSaysSoAndEndsWithOne) {
  const TemporaryFolder folder;
  const int errors = open((folder.path() + "errors").c_str(), O_WRONLY | O_CREAT, 0600);
  const int before = dup(STDERR_FILENO);
  dup2(errors, STDERR_FILENO);
  const int pid = popen2(std::string(4 << 20, 'x').c_str(), nullptr, nullptr);
  dup2(before, STDERR_FILENO);
  close(before);
  close(errors);
  EXPECT_GT(pid, 0);
  EXPECT_EQ(pclose2(pid, 0, 0), 1 << 8);
  EXPECT_EQ(folder.Read("errors"), "execl: Argument list too long\n");
}

TEST(ProcessTest, NothingStaysOpenWhenThereAreTooFewDescriptors) {
  for (int count = 0; count < 4; ++count) {
    const auto before = OpenDescriptors();
    int in = -7;
    int out = -7;
    {
      const DescriptorLimit limit(count);
      EXPECT_EQ(popen2("true", &in, &out), -1) << count;
      EXPECT_EQ(errno, EMFILE) << count;
    }
    EXPECT_EQ(in, -7);
    EXPECT_EQ(out, -7);
    EXPECT_EQ(OpenDescriptors(), before) << count;
  }
}

TEST(ProcessTest, NothingStaysOpenWhenThereIsNoProcessToGive) {
  // In a process of its own, because the limit on processes does not hold for root.
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit none{0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (getuid() == 0 && setuid(65534) != 0)) _exit(2);
    const auto before = OpenDescriptors();
    const int result = popen2("true", nullptr, nullptr);
    _exit(result == -1 && errno == EAGAIN && OpenDescriptors() == before ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  if (status == 2 << 8) GTEST_SKIP() << "cannot become another user here";
  EXPECT_EQ(status, 0);
}

TEST(ProcessTest, KillingReachesALeaderOfAGroupOnly) {
  int out = -1;
  int in = -1;
  int pid = popen2("read line", &in, &out);
  EXPECT_EQ(getpgid(pid), getpgrp());
  EXPECT_EQ(pkill2(pid), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "still runs";
  EXPECT_EQ(pclose2(pid, in, out), 1 << 8);

  pid = popen2("exec setsid sleep 60", nullptr, &out);
  EXPECT_TRUE(WaitUntil([&] { return getpgid(pid) == pid; }));
  EXPECT_EQ(pkill2(pid), 0);
  EXPECT_EQ(pclose2(pid, 0, out), SIGKILL);
}

TEST(ProcessTest, ASignalDoesNotEndTheWait) {
  const Interruptions often(2000);
  EXPECT_EQ(pclose2(popen2("sleep 0.2; exit 5", nullptr, nullptr), 0, 0), 5 << 8);
}

}  // namespace
}  // namespace vnjs::testing
