// No shell is ever started for system(): this program has functions of its own in place of those that start commands.
#include <fcntl.h>
#include <unistd.h>

#include <climits>

#include "fuzz/support.h"
#include "tests/support/temporary_folder.h"

namespace {
/// What the shell was given, with an end of line behind each, and what it answers.
std::string started, answer;
}  // namespace

extern "C" int popen2(const char* command, int*, int* out) {
  started += std::string(command) + '\n';
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0 || write(ends[1], answer.data(), answer.size()) < 0) abort();
  close(ends[1]);
  *out = ends[0];
  // No process: whoever waits for it learns that it has ended.
  return INT_MAX;
}

extern "C" int pclose2(int, int, int) { abort(); }
extern "C" int pkill2(int) { abort(); }

vnjs::fuzz::Target vnjs::fuzz::MakeTarget() {
  static const testing::TemporaryFolder folder;
  const auto prepare = [](const Info& info) {
    folder.Write(".syscommands", GetBytes(info[0]));
    answer = GetBytes(info[1]);
    started.clear();
  };
  return {folder.path(),
          {{"prepare", prepare}, {"started", [](const Info& info) { ReturnBytes(info, started); }}},
          {}};
}
