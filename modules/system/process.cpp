#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/process.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "bridge/descriptor.h"

namespace vnjs {

namespace {

/// Closed on exec, so that a program started on another thread meanwhile does not hold an end open.
struct Pipe {
  Descriptor read;
  Descriptor write;

  bool Open() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    read.Reset(ends[0]);
    write.Reset(ends[1]);
    return true;
  }
};

/// Leaves the command none of the host's files but the standard three.
void CloseOthersOnExec() {
  if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  // A kernel before 5.11. There may be as many as a million numbers, and few of them in use.
  const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY);
  alignas(dirent64) char entries[2048];
  for (ssize_t size = 0; (size = getdents64(folder, entries, sizeof entries)) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
      const int fd = atoi(entry->d_name);
      if (fd > STDERR_FILENO) fcntl(fd, F_SETFD, FD_CLOEXEC);
      at += entry->d_reclen;
    }
  }
}

/// Handlers of the host must not run in the child, whose memory is the host's.
void ResetHandlers() {
  struct sigaction action {};
  for (int number = 1; number < NSIG; ++number) {
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    if (action.sa_handler != SIG_DFL) signal(number, SIG_DFL);
  }
  signal(SIGCHLD, SIG_DFL);
}

/// As `perror`, which takes locks and allocates.
void PrintError(const char* function) {
  const char* const parts[] = {function, ": ", strerrordesc_np(errno), "\n"};
  iovec pieces[4];
  for (int i = 0; i < 4; ++i) pieces[i] = {const_cast<char*>(parts[i]), strlen(parts[i])};
  static_cast<void>(!writev(STDERR_FILENO, pieces, 4));
}

/// What the child does. It runs in the host's memory, beside threads that may hold any lock: it calls only
/// what a signal handler might, and leaves by `_exit` because the host's exit handlers are not its to run.
[[noreturn]] void BecomeShell(const char* command, const Pipe& input, const Pipe& output,
                              const sigset_t& mask) {
  dup2(input.read.get(), STDIN_FILENO);
  dup2(output.write.get(), STDOUT_FILENO);
  CloseOthersOnExec();
  // Commands have always had the pipes under these numbers as well.
  fcntl(input.read.get(), F_SETFD, 0);
  fcntl(output.write.get(), F_SETFD, 0);
  ResetHandlers();
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execl("/bin/sh", "sh", "-c", command, nullptr);
  PrintError("execl");
  _exit(1);
}

/// By vfork, because a copy of the host's page tables takes longer than a short command, and fails where
/// memory is scarce; not by posix_spawn, for which a shell that cannot be executed is a failure to start. The
/// calling thread waits until the shell is executed; signals wait with it.
pid_t StartShell(const char* command, const Pipe& input, const Pipe& output) {
  sigset_t all;
  sigset_t mask;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &mask);
  const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork): see BecomeShell
  if (pid == 0) BecomeShell(command, input, output, mask);  // NOLINT(clang-analyzer-unix.Vfork)
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return pid;
}

}  // namespace

}  // namespace vnjs

int popen2(const char* command, int* in, int* out) {
  vnjs::Pipe input;
  vnjs::Pipe output;
  if (!input.Open() || !output.Open()) return -1;
  const pid_t pid = vnjs::StartShell(command, input, output);
  if (pid < 0) return pid;
  if (in != nullptr) *in = input.write.Release();
  if (out != nullptr) *out = output.read.Release();
  return pid;
}

int pclose2(int pid, int in, int out) {
  if (in != 0) close(in);
  if (out != 0) close(out);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

int pkill2(int pgrp) { return killpg(pgrp, SIGKILL); }
