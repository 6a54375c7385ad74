// Calls to the system that fail: for each of a list of operations, the first allocation fails, then the second, and so
// on, alone and with all that follow it; for each way of keeping an object, each call for it fails, is interrupted or is
// the process's last. The result is the usual one or says what happened, the old object or the new one is found, and
// all works afterwards.
#include <dlfcn.h>
#include <execinfo.h>
#include <libxml/xmlmemory.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "tests/support/script_list.h"
#include "tests/support/test_host.h"

namespace {

using vnjs::Automation;
using vnjs::testing::ListedScript;

/// What goes wrong when the library calls the system: which calls count, those for memory, with libxml2's or without, or
/// those that keep an object; and what happens to one of them. It fails with `error`, also with all that follow; half of
/// a text is written before it fails; or it is the last that the process makes.
struct Fault {
  enum { kAllocations, kOwnAllocations, kStorage } calls;
  enum How { kNothing, kFail, kFailForGood, kHalf, kKill } how;
  int error = 0;
} fault;

/// What processes report, in memory that outlives them.
struct Report {
  char name[80];
  int wrong;
  bool done;
  bool killed;
  /// The number of the call that goes wrong, from 1, and those that were made so far.
  int call;
  std::atomic<int> count;
  const char* names[8];
  /// The size of the file when its content was flushed to the disk.
  long flushed;
} * report;

std::atomic<bool> armed{false};
std::atomic<bool> threadsFail{false};

// --- In front of the real functions: the dynamic linker finds those of the program first ---

bool IsIn(const char* library, void* code) {
  dl_find_object found{};
  return _dl_find_object(code, &found) == 0 && strstr(found.dlfo_link_map->l_name, library) != nullptr;
}
bool IsOurs(void* code) { return IsIn("libvnjs.so", code); }
bool IsStandard(void* code) { return IsIn("libstdc++.so", code); }

/// Whether the library has called, itself or by way of the standard library.
bool CallsForUs(void* caller) {
  if (!IsStandard(caller)) return IsOurs(caller);
  void* frames[32];
  void** const end = frames + backtrace(frames, 32);
  void** const frame = std::find_if_not(std::find(frames, end, caller), end, IsStandard);
  return frame != end && IsOurs(*frame);
}

/// Counts a call. Tells what is to happen to it.
Fault::How Count(const char* name = "") {
  const int number = ++report->count;
  report->names[number % 8] = name;
  if (number < report->call || (number > report->call && fault.how != Fault::kFailForGood))
    return Fault::kNothing;
  return fault.how == Fault::kFailForGood ? Fault::kFail : fault.how;
}

void* Allocate(size_t size, void* caller) {
  const bool counts = armed && fault.calls != Fault::kStorage && CallsForUs(caller);
  return counts && Count() == Fault::kFail ? nullptr : malloc(std::max<size_t>(size, 1));
}

// libxml2 works for nobody else.
bool XmlFails() { return armed && fault.calls == Fault::kAllocations && Count() == Fault::kFail; }

template <typename Result, typename Call>
Result Traced(const char* name, Result failure, Call call) {
  const Fault::How how = armed && fault.calls == Fault::kStorage ? Count(name) : Fault::kNothing;
  const Result result = how == Fault::kFail ? failure : call(how == Fault::kHalf);
  if (how == Fault::kKill) raise(SIGKILL);
  if (how != Fault::kNothing) errno = fault.error;
  return result;
}

int NoteSize(int descriptor) {
  // Of the file, which is flushed before the folder is.
  if (armed && report->count == 3) report->flushed = lseek(descriptor, 0, SEEK_END);
  return descriptor;
}

template <typename Function>
Function* Real(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}
void* operator new(size_t size) {
  void* const data = Allocate(size, __builtin_return_address(0));
  if (data == nullptr) throw std::bad_alloc();
  return data;
}
// Else the compiler sees through them, and that free does not go with new.
[[gnu::noinline]] void operator delete(void* data) noexcept { free(data); }
[[gnu::noinline]] void operator delete(void* data, size_t) noexcept { free(data); }

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* data) {
  static auto* const real = Real("pthread_create", &pthread_create);
  const bool fails = threadsFail && IsOurs(__builtin_return_address(0));
  return fails ? EAGAIN : real(thread, attributes, function, data);
}

#define TRACE(Result, function, failure, parameters, ...)                                 \
  Result function parameters {                                                            \
    static auto* const real = Real(#function, &function);                                 \
    return Traced<Result>(#function, failure,                                             \
                          [&]([[maybe_unused]] bool half) { return real(__VA_ARGS__); }); \
  }

TRACE(FILE*, fopen64, nullptr, (const char* path, const char* mode), path, mode)
TRACE(size_t, fwrite, 0, (const void* data, size_t size, size_t count, FILE* file), data, size,
      half ? count / 2 : count, file)
TRACE(int, fsync, -1, (int descriptor), NoteSize(descriptor))
TRACE(int, fclose, EOF, (FILE * file), file)
TRACE(int, rename, -1, (const char* from, const char* to) noexcept, from, to)
TRACE(int, remove, -1, (const char* path) noexcept, path)

}  // extern "C"

// --- The experiments ---

namespace {

std::string folder;

void Note(const std::string& text) {
  ++report->wrong;
  printf("WRONG: %s, call %d: %.300s\n", report->name, report->call, text.c_str());
  fflush(stdout);
}

/// Has an operation go wrong in its first call, then in its second, until there is no such call; in a process that is
/// made anew when it has ended, or each time.
template <typename Operation>
void TryAll(const std::string& name, bool fresh, Operation attempt) {
  snprintf(report->name, sizeof report->name, "%s", name.c_str());
  report->done = report->killed = false;
  for (report->call = 1; !report->done; ++report->call) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      do {
        attempt();
        report->done = report->count < report->call;
      } while (!fresh && !report->done && ++report->call > 0);
      exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    report->killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    if (status != 0 && !report->killed) Note(WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "a leak");
  }
  printf("%s: %d calls\n", report->name, report->count.load());
}

/// The operation's result, or what it throws.
template <typename Operation>
std::string Attempt(Operation operation) {
  try {
    return operation();
  } catch (const vnjs::VornException& e) {
    return e.msg();
  } catch (const std::exception& e) {
    return e.what();
  }
}

template <typename Operation>
std::string AttemptArmed(Operation operation) {
  report->count = 0;
  armed = true;
  std::string result = Attempt(operation);
  armed = false;
  return result;
}

std::string Run(Automation& automation, const std::string& code) {
  return automation.Run(code.c_str(), "a source name of more than sixteen letters").result();
}

/// With all that the script has left to be done; the result is its own, or else the variable `n`.
std::string RunAndPump(Automation& automation, const std::string& code) {
  const std::string result = Run(automation, code);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (; automation.HasPendingWork(); usleep(2000)) {
    if (!automation.IsThreaded()) automation.ProcessPendingCallbacks();
    if (std::chrono::steady_clock::now() > deadline) return "work was left";
  }
  return result == "undefined" ? Run(automation, "n") : result;
}

/// Whether an operation is one of those.
bool Is(const ListedScript& test, const char* words) { return test.name.find(words) != std::string::npos; }

std::string Operate(Automation& automation, const ListedScript& test) {
  std::string failure;
  threadsFail = Is(test, "without threads");
  if (threadsFail || Is(test, "on the worker")) {
    failure = Attempt([&] { return automation.StartThread(), std::string(); });
    if (!failure.empty()) failure += automation.IsThreaded() ? " but a worker, " : ", ";
  }
  vnjs::VRefCountedPointer<vnjs::SafeValue> value;
  if (Is(test, "dropped")) {
    v8::Isolate* const isolate = automation.GetEnvironment()->GetIsolate();
    const v8::Locker locker(isolate);
    const v8::Isolate::Scope isolateScope(isolate);
    const v8::HandleScope handleScope(isolate);
    value = vnjs::SafeValue::New(isolate, v8::Symbol::New(isolate));
  }
  std::atomic<bool> ended{!Is(test, "interrupted")};
  std::thread other([&] {
    value = nullptr;
    for (; !ended; usleep(1000)) automation.Interrupt();
  });
  const std::string result = Attempt([&] { return RunAndPump(automation, test.code); });
  ended = true;
  other.join();
  threadsFail = false;
  return failure + result;
}

/// Whether a failed allocation is what a text tells of, or the log: nobody else hears of what happens in a callback.
bool IsTold(const std::string& result) {
  std::string texts = result;
  for (const auto& line : vnjs::testing::LinesOf("test")) {
    if (line.level >= 3) texts += line.text;
  }
  constexpr const char* kTexts[] = {"std::bad_alloc", "Bad allocation", "File is too large", "XML error",
                                    "Cannot create script context"};
  return std::any_of(std::begin(kTexts), std::end(kTexts),
                     [&](const char* text) { return texts.find(text) != std::string::npos; });
}

/// One operation in an environment of its own.
void TryAllocations(const ListedScript& test) {
  std::unique_ptr<Automation> automation;
  const auto make = [&] {
    if (automation != nullptr) return;
    automation = std::make_unique<Automation>(folder.c_str());
    automation->SetLogger(vnjs::testing::NewLogger("test"));
  };
  if (!Is(test, "first environment")) make();
  const std::string result = AttemptArmed([&] { return make(), Operate(*automation, test); });
  const bool failed = report->count >= report->call;
  if (result != test.expected && !(failed && IsTold(result))) Note(result);
  if (waitpid(-1, nullptr, WNOHANG) != -1) Note("a command is left");
  const std::string next = Attempt([&] {
    make();
    const bool ended = automation->IsTerminating();
    RunAndPump(*automation, ended ? "last = 2" : "var last = 0; setTimeout(() => { last = 2 }, 1)");
    return Run(*automation, "last");
  });
  if (next != "2") Note("the next script: " + next);
}

const std::string kOld = '"' + std::string(10000, 'o') + '"';
const std::string kNew = '"' + std::string(20000, 'n') + '"';

/// Saves of one object in another's place; null is none.
const struct Save {
  const char* name;
  std::string oldText;
  std::string newText;
} kSaves[] = {{"replace: ", kOld, kNew}, {"first save: ", "null", kNew}, {"remove: ", kOld, "null"}};

/// Whether the folder holds anything but objects.
bool FindRemains() {
  for (const auto& entry : std::filesystem::directory_iterator(folder + "storage")) {
    if (entry.path().extension() != ".json") return true;
  }
  return false;
}

std::string Keep(Automation& automation, const std::string& text) {
  const vnjs::RunResult result = automation.Run(("saveObject('state', " + text + ")").c_str(), "");
  return result.isException() ? result.result() : "";
}

/// Whatever has happened, one of the objects must be there, and saving must work.
std::string Look(Automation& automation, const Save& save) {
  std::string loaded = Run(automation, "loadObject('state')");
  if (loaded != save.oldText && loaded != save.newText) Note("neither the old nor the new object");
  Keep(automation, "[1, 2]");
  if (Run(automation, "loadObject('state')") != "[1,2]" || FindRemains()) Note("the next save");
  return loaded;
}

void TrySave(const Save& save) {
  Automation automation(folder.c_str());
  if (report->killed) Look(automation, save);
  report->killed = false;
  Keep(automation, save.oldText);
  const std::string told = AttemptArmed([&] { return Keep(automation, save.newText); });
  if (!told.empty() && told != std::string("Uncaught Error: ") + strerror(fault.error)) Note(told);
  // What is interrupted is done again where it can be.
  if (!told.empty() && fault.error == EINTR && report->names[report->call][0] != 'r') Note("given up");
  if (fault.how != Fault::kFailForGood && FindRemains()) Note("the temporary file is still there");
  if (Look(automation, save) != (told.empty() ? save.newText : save.oldText)) Note("not as was told");
  if (report->count >= report->call) return;
  std::string calls;
  for (int call = 1; call <= report->count; ++call) calls += std::string(report->names[call]) + ' ';
  const bool saves = save.newText != "null";
  if (calls != (saves ? "fopen64 fwrite fsync fclose rename fsync " : "remove fsync ")) Note(calls);
  if (saves && report->flushed != static_cast<long>(save.newText.size()))
    Note("flushed before all was written");
}

}  // namespace

/// The argument is the list of operations.
int main(int argc, char** argv) {
  xmlMemSetup(
      free, [](size_t size) { return XmlFails() ? nullptr : malloc(size); },
      [](void* data, size_t size) { return XmlFails() ? nullptr : realloc(data, size); },
      [](const char* text) { return XmlFails() ? nullptr : strdup(text); });
  // What it loads when it is first called must not count.
  void* frame = nullptr;
  backtrace(&frame, 1);
  folder = (std::filesystem::temp_directory_path() / "vnjs-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return 1;
  folder += "/";
  std::filesystem::create_directory(folder + "storage");
  std::ofstream(folder + ".syscommands") << "echo\n";
  std::ofstream(folder + "script.js") << R"("a text of more than sixteen letters")";
  void* const shared =
      mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  report = new (shared) Report{};

  for (const Fault::How how : {Fault::kFail, Fault::kFailForGood}) {
    for (const ListedScript& test : vnjs::testing::ReadScripts(argv[argc - 1])) {
      fault = {Is(test, "libxml2 spared") ? Fault::kOwnAllocations : Fault::kAllocations, how};
      const std::string name = test.name + (how == Fault::kFail ? "" : ", for good");
      TryAll(name, Is(test, "first environment"), [&] { TryAllocations(test); });
    }
  }
  const std::pair<Fault::How, int> kWays[] = {{Fault::kKill, 0},
                                              {Fault::kFail, EIO},
                                              {Fault::kFailForGood, EIO},
                                              {Fault::kFail, EINTR},
                                              {Fault::kHalf, EINTR}};
  for (const Save& save : kSaves) {
    for (const auto& [how, error] : kWays) {
      fault = {Fault::kStorage, how, error};
      TryAll(save.name + std::string(error == 0 ? "Killed" : strerror(error)), false, [&] { TrySave(save); });
    }
  }
  std::filesystem::remove_all(folder);
  return report->wrong == 0 ? 0 : 1;
}
