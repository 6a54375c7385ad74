// Saves that are cut short: at each call to the system in turn the call fails, or the process is killed
// before it, in its middle or after it. Each time the old object or the new one must be found afterwards, and
// the next save must work. The same for a full disk and a folder that cannot be written.
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "tests/modules/storage_faults/interposed.h"

struct _VNLog {};

// A host that cannot describe errors.
extern "C" {
_VNLog* vlog_create(FILE*, int) { return new _VNLog; }
void vlog_write(_VNLog*, const char*, int, const char*, ...) {}
void vlog_close(_VNLog* logger) { delete logger; }
void* _vassert(void* pointer, const char*) { return pointer; }
uint64_t get_local_time_ms(void) { return 0; }
void set_thread_name(const char*) {}
char* sys_last_err_string(void) { return nullptr; }

// Otherwise that sanitizer lets each of the many processes sleep for a second at its end.
const char* __tsan_default_options(void) { return "atexit_sleep_ms=0"; }
}

namespace {

using vnjs::testing::Fault;
using vnjs::testing::Trace;

/// What a child process saw, in memory that outlives it.
struct Report {
  Trace trace;
  char outcome[100];
  char loaded[40000];
  bool remains;
  bool nextSaveWorks;
};

/// A save of one object in another's place; null is none.
struct Operation {
  const char* name;
  std::string oldText;
  std::string newText;
};

const std::string kOld = '"' + std::string(10000, 'o') + '"';
const std::string kNew = '"' + std::string(20000, 'n') + '"';
const Operation kOperations[] = {
    {"replace", kOld, kNew}, {"first save", "null", kNew}, {"remove", kOld, "null"}};

std::string folder;
Report* report;
int tries = 0;
int loadable = 0;
int wrong = 0;

void Wrong(const std::string& what) {
  ++wrong;
  printf("WRONG: %s\n", what.c_str());
}

/// Runs `work` in a process of its own, which the fault may kill. Returns whether it ended by itself.
template <typename Work>
bool InChild(Work work) {
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(2);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
    Wrong("a process ended with status " + std::to_string(status));
  return false;
}

/// Whether the folder holds anything but objects.
bool FindRemains() {
  for (const auto& entry : std::filesystem::directory_iterator(folder + "storage")) {
    if (entry.path().extension() != ".json") return true;
  }
  return false;
}

/// What is stored now, and whether saving still works.
void Look(vnjs::Automation& automation) {
  report->remains = FindRemains();
  automation.Run("loadObject('state')", "").result().copy(report->loaded, sizeof report->loaded - 1);
  automation.Run("saveObject('state', [1, 2])", "");
  report->nextSaveWorks = automation.Run("loadObject('state')", "").result() == "[1,2]" && !FindRemains();
}

/// An operation in a folder that holds the old object alone; `begin` and `end` are called around it, in its
/// process. Whatever happens, the old object or the new one must be there afterwards, as the script was told.
template <typename Begin, typename End>
void Try(const Operation& operation, const std::string& what, Begin begin, End end) {
  *report = {};
  std::filesystem::remove_all(folder + "storage");
  std::filesystem::create_directory(folder + "storage");
  const bool ended = InChild([&] {
    vnjs::Automation automation(folder.c_str());
    const auto save = [&](const std::string& value) {
      return automation.Run(("saveObject('state', " + value + ")").c_str(), "");
    };
    save(operation.oldText);
    begin();
    const vnjs::RunResult result = save(operation.newText);
    end();
    (result.isException() ? result.result() : "returned").copy(report->outcome, sizeof report->outcome - 1);
    Look(automation);
  });
  if (!ended) {
    InChild([] {
      vnjs::Automation automation(folder.c_str());
      Look(automation);
    });
  }

  const std::string loaded = report->loaded;
  const std::string outcome = report->outcome;
  ++tries;
  if (loaded == operation.oldText || loaded == operation.newText) {
    ++loadable;
  } else {
    Wrong(what + ": neither the old nor the new object");
  }
  if (!report->nextSaveWorks) Wrong(what + ": the next save");
  if (ended && (outcome == "returned") != (loaded == operation.newText)) Wrong(what + ": outcome " + outcome);
}

void TryFault(const Operation& operation, const std::string& what, const Fault& fault) {
  Try(
      operation, operation.name + (": " + what), [&] { Arm(fault, &report->trace); }, vnjs::testing::Disarm);
}

void Expect(const std::string& outcome, const std::string& what) {
  if (report->outcome != outcome) Wrong(what + ": outcome " + report->outcome + " instead of " + outcome);
  if (report->remains) Wrong(what + ": the temporary file is still there");
}

/// What a script sees of a call that fails.
std::string ExpectedOutcome(const std::string& name, const Fault& fault) {
  // Once the text is flushed, or the new name is there, nothing is lost any more.
  if (name == "fclose" || fault.call > 4) return "returned";
  if (name == "rename") return "Uncaught Error: Error renaming file";
  if (name != "remove" && fault.error == EINTR) return "returned";
  return std::string("Uncaught Error: ") + strerror(fault.error);
}

struct Mode {
  const char* name;
  Fault fault;
  const char* onlyCall = nullptr;
};

const Mode kModes[] = {
    {"killed before", {Fault::kKillBefore}},
    {"killed in the middle of", {Fault::kKillHalf}, "fwrite"},
    {"killed after", {Fault::kKillAfter}},
    {"failed:", {Fault::kFail, EIO}},
    {"failed, no cleanup:", {Fault::kFail, EIO, 0, true}},
    {"failed half-way:", {Fault::kHalf, ENOSPC}, "fwrite"},
    {"interrupted:", {Fault::kFail, EINTR}},
    {"interrupted half-way:", {Fault::kHalf, EINTR}, "fwrite"},
};

/// The calls that the operation consists of, in their order.
Trace FindCalls(const Operation& operation) {
  TryFault(operation, "no fault", {});
  const Trace trace = report->trace;
  std::string order;
  for (int call = 0; call < trace.count; ++call) order += std::string(trace.names[call]) + ' ';
  const bool saves = operation.newText != "null";
  if (order != (saves ? "fopen fwrite fsync fclose rename open fsync close " : "remove ")) {
    Wrong(std::string(operation.name) + ": the calls are " + order);
  }
  if (saves && trace.flushed != operation.newText.size()) Wrong("flushed before everything was written");
  return trace;
}

void TryAllFaults(const Operation& operation, const Trace& trace) {
  for (int call = 0; call < trace.count; ++call) {
    const std::string name = trace.names[call];
    for (const Mode& mode : kModes) {
      if (mode.onlyCall != nullptr && name != mode.onlyCall) continue;
      const std::string what = mode.name + (" " + name);
      Fault fault = mode.fault;
      fault.call = call;
      TryFault(operation, what, fault);
      const bool tidy = fault.error != 0 && !fault.cleanupFails;
      if (tidy) Expect(ExpectedOutcome(name, fault), operation.name + (": " + what));
    }
  }
}

void TryFullDisk() {
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto limit = [&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit small = before;
    small.rlim_cur = 15000;
    setrlimit(RLIMIT_FSIZE, &small);
  };
  Try(kOperations[0], "full disk", limit, [&] { setrlimit(RLIMIT_FSIZE, &before); });
  Expect("Uncaught Error: File too large", "full disk");
}

void TryReadOnlyFolder() {
  // The superuser may write everywhere, somebody else may not.
  const uid_t user = geteuid();
  const std::string storage = folder + "storage";
  const auto become = [&](uid_t id, mode_t mode) {
    if (seteuid(user) != 0 || chmod(storage.c_str(), mode) != 0 || (user == 0 && seteuid(id) != 0)) abort();
  };
  const auto protect = [&] { become(65534, 0555); };
  const auto allow = [&] { become(user, 0755); };
  Try(kOperations[0], "read-only folder", protect, allow);
  Expect("Uncaught Error: Permission denied", "read-only folder");
}

/// Prints a row of the table. Returns whether an object was loaded after each of its faults.
bool Count(const char* row, const std::function<void()>& faults) {
  tries = 0;
  loadable = 0;
  faults();
  printf("%-20s %7d %9d\n", row, tries, loadable);
  return loadable == tries;
}

}  // namespace

int main() {
  folder = (std::filesystem::temp_directory_path() / "vnjs-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return 1;
  folder += "/";
  if (chmod(folder.c_str(), 0755) != 0) return 1;
  void* const shared =
      mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  report = static_cast<Report*>(shared);

  printf("%-20s %7s %9s\n", "", "faults", "loadable");
  bool all = true;
  for (const Operation& operation : kOperations) {
    const Trace calls = FindCalls(operation);
    all = Count(operation.name, [&] { TryAllFaults(operation, calls); }) && all;
  }
  all = Count("full disk", TryFullDisk) && all;
  all = Count("read-only folder", TryReadOnlyFolder) && all;

  std::filesystem::remove_all(folder);
  return all && wrong == 0 ? 0 : 1;
}
