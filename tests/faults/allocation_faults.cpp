// Memory and threads that the library asks for and does not get: for each of a table of operations, its first
// allocation fails, then its second, and so on, alone and with all that follow it. The result is the usual one or says
// what happened; the environment works afterwards; no exception passes through the engine's frames.
#include <dlfcn.h>
#include <execinfo.h>
#include <libxml/xmlmemory.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unwind.h>
#include <vnjs/vnjs.h>

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

#include "tests/support/test_host.h"

namespace {

enum Owner { kOurs, kEngine, kStandard, kOthers };

struct Range {
  uintptr_t first = 0;
  uintptr_t last = 0;
};
Range owners[kOthers];

int FindOwners(dl_phdr_info* info, size_t, void*) {
  constexpr const char* kNames[] = {"libvnjs.so", "libnode.so", "libstdc++.so"};
  for (int owner = kOurs; owner < kOthers; ++owner) {
    if (strstr(info->dlpi_name, kNames[owner]) == nullptr) continue;
    owners[owner].first = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const auto& part = info->dlpi_phdr[i];
      if (part.p_type == PT_LOAD) owners[owner].last = info->dlpi_addr + part.p_vaddr + part.p_memsz;
    }
  }
  return 0;
}

int OwnerOf(uintptr_t code) {
  int owner = kOurs;
  while (owner < kOthers && (code < owners[owner].first || code >= owners[owner].last)) ++owner;
  return owner;
}

/// Whether the library has called, itself or by way of the standard library.
bool IsOurs(void* caller) {
  int owner = OwnerOf(reinterpret_cast<uintptr_t>(caller));
  if (owner != kStandard) return owner == kOurs;
  void* frames[32];
  const int count = backtrace(frames, 32);
  int frame = 0;
  while (frame < count && frames[frame] != caller) ++frame;
  while (frame < count && owner == kStandard) owner = OwnerOf(reinterpret_cast<uintptr_t>(frames[frame++]));
  return owner == kOurs;
}

std::atomic<bool> armed{false};
std::atomic<int> allocations{0};
std::atomic<int> firstFailure{0};
std::atomic<bool> allFollowing{false};
std::atomic<bool> xmlFails{true};
std::atomic<bool> threadsFail{false};

bool Fails() {
  const int number = ++allocations;
  return number == firstFailure || (allFollowing && number > firstFailure);
}

void* Allocate(size_t size, void* caller) {
  return armed && IsOurs(caller) && Fails() ? nullptr : malloc(size == 0 ? 1 : size);
}

// libxml2 works for nobody else.
void* XmlMalloc(size_t size) { return armed && xmlFails && Fails() ? nullptr : malloc(size); }
void* XmlRealloc(void* data, size_t size) {
  return armed && xmlFails && Fails() ? nullptr : realloc(data, size);
}
char* XmlDuplicate(const char* text) { return armed && xmlFails && Fails() ? nullptr : strdup(text); }

/// Where on the stack the engine is, when an exception is thrown; and whether one went past it.
thread_local uintptr_t engineFrame = 0;
std::atomic<bool> passedEngine{false};

_Unwind_Reason_Code FindEngineFrame(_Unwind_Context* context, void*) {
  if (OwnerOf(_Unwind_GetIP(context)) != kEngine) return _URC_NO_REASON;
  engineFrame = _Unwind_GetCFA(context);
  return _URC_END_OF_STACK;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(size_t size) {
  void* const data = Allocate(size, __builtin_return_address(0));
  if (data == nullptr) throw std::bad_alloc();
  return data;
}
void* operator new[](size_t size) {
  void* const data = Allocate(size, __builtin_return_address(0));
  if (data == nullptr) throw std::bad_alloc();
  return data;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, __builtin_return_address(0));
}
// Else the compiler sees through them, and that free does not go with new.
[[gnu::noinline]] void operator delete(void* data) noexcept { free(data); }
[[gnu::noinline]] void operator delete[](void* data) noexcept { free(data); }
[[gnu::noinline]] void operator delete(void* data, size_t) noexcept { free(data); }
[[gnu::noinline]] void operator delete[](void* data, size_t) noexcept { free(data); }

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* data) {
  if (threadsFail && OwnerOf(reinterpret_cast<uintptr_t>(__builtin_return_address(0))) == kOurs)
    return EAGAIN;
  static auto* const create = Next<decltype(pthread_create)>("pthread_create");
  return create(thread, attributes, function, data);
}

[[noreturn]] void __cxa_throw(void* exception, void* type, void (*destructor)(void*)) {
  engineFrame = 0;
  _Unwind_Backtrace(FindEngineFrame, nullptr);
  using Throw = void(void*, void*, void (*)(void*));
  static auto* const next = Next<Throw>("__cxa_throw");
  next(exception, type, destructor);
  abort();
}

void* __cxa_begin_catch(void* exception) noexcept {
  const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (engineFrame != 0 && here > engineFrame) passedEngine = true;
  static auto* const next = Next<void*(void*)>("__cxa_begin_catch");
  return next(exception);
}

}  // extern "C"

namespace {

using vnjs::Automation;
using Clock = std::chrono::steady_clock;

std::string folder;

/// Runs callbacks until nothing is left of timers and queued ones.
void Pump(Automation& automation) {
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (automation.HasPendingWork() && Clock::now() < deadline) {
    if (!automation.IsThreaded()) automation.ProcessPendingCallbacks();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (Clock::now() >= deadline) throw vnjs::VornException("work was left");
}

std::string Run(Automation& automation, const char* code) {
  return automation.Run(code, "a source name of more than sixteen letters").result();
}

/// With everything that the script has left to be done; the result is the script's variable `n`, if there is one.
std::string RunAndPump(Automation& automation, const char* code) {
  std::string result = Run(automation, code);
  Pump(automation);
  return result == "undefined" ? Run(automation, "n") : result;
}

std::string RunOnWorker(Automation& automation, const char* code) {
  automation.StartThread();
  return RunAndPump(automation, code);
}

/// A script value loses its last reference on a thread without the isolate.
std::string DropOnThread(Automation& automation, const char* code) {
  vnjs::VRefCountedPointer<vnjs::SafeValue> value;
  {
    v8::Isolate* const isolate = automation.GetEnvironment()->GetIsolate();
    const v8::Locker locker(isolate);
    const v8::Isolate::Scope isolateScope(isolate);
    const v8::HandleScope handleScope(isolate);
    value = vnjs::SafeValue::New(isolate, v8::Symbol::New(isolate));
  }
  std::thread([&value] { value = nullptr; }).join();
  return Run(automation, code);
}

std::string Interrupt(Automation& automation, const char* code) {
  std::atomic<bool> ended{false};
  std::thread interrupter([&] {
    while (!ended) {
      automation.Interrupt();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::string result;
  try {
    result = Run(automation, code);
  } catch (const std::bad_alloc&) {
    result = "std::bad_alloc";
  }
  ended = true;
  interrupter.join();
  return result;
}

/// No thread of ours can be started.
std::string WithoutThreads(Automation& automation, const char* code) {
  threadsFail = true;
  std::string result;
  try {
    automation.StartThread();
  } catch (const vnjs::VornException& e) {
    result = e.msg() + ", " + Run(automation, code);
  }
  return automation.IsThreaded() ? "a worker" : result;
}

/// Without an operation it is the construction of the process's first environment that fails.
struct Case {
  const char* name;
  const char* code;
  const char* usual;
  std::string (*operation)(Automation&, const char*) = Run;

  /// libxml2 2.9 itself, which frees twice what an expression without memory leaves, is spared.
  bool xmlFails = true;
};

constexpr char kText[] = "\"a text of more than sixteen letters\"";

const Case kCases[] = {
    {"first environment", "1 + 1", "2", nullptr},
    {"compile error", "var the_name = = 1",
     "JavaScript compilation error: Uncaught SyntaxError: Unexpected token '='"},
    {"exception", "throw new Error('of more than sixteen letters')",
     "Uncaught Error: of more than sixteen letters"},
    {"nested",
     "evalPath('JSON.parse')(executeJS(`executeFile('script.js')`, 'the name of some other source'))",
     R"("\"a text of more than sixteen letters\"")"},
    {"exit", "debugPrint('a text of more than sixteen letters', {}, [1, 2, 3]); exit(); 1", "1"},
    {"storage", "saveObject('an object', 'a text of more than sixteen letters'); loadObject('an object')",
     kText},
    {"dictionary",
     "d = new NameValueDictionary({'Content-Type-Of-It': 1}); d['content-type-of-it'] = 2;"
     "d['Another-Long-Name'] = 3; delete d['another-long-name'];"
     "[d['CONTENT-TYPE-OF-IT'], Object.keys(d), 'CONTENT-type-of-it' in d]",
     R"([2,["content-type-of-it"],true])"},
    {"fs",
     "[fs.list('/'), fs.load('script.js'), fs.loadText('script.js')].map(x => x.length).concat("
     "fs.stat('script.js').size, fs.loadJSON('script.js').length)",
     "[3,37,37,37,35]"},
    {"system", "system('echo', 'a text of', 'more than sixteen letters')",
     R"([0,"a text of more than sixteen letters\n"])"},
    {"xml edit",
     "x = new VXmlDocument(); x.root = {name: 'a', attributes: {b: '1'}, children: [{name: 'c', text: 't'}]};"
     "r = x.root; r.insertChild({name: 'd'}, 0); r.insertChild({name: 'e'}); r.attributes.f = '2';"
     "r.attributes.b = '3'; r.children[2].text = 'u'; r.removeChild(0); x.toString().slice(22)",
     R"("<a b=\"3\" f=\"2\">\n  <c>t</c>\n  <e>u</e>\n</a>\n")"},
    {"xml read",
     "r = new VXmlDocument('<a b=\"1\"><c>t</c><d/></a>').root;"
     "[r.name, r.children[0].text, r.children[1].parent.name, r.attributes.b, Object.keys(r.attributes)]",
     R"(["a","t","a","1",["b"]])"},
    {"xml find",
     "x = new VXmlDocument('<a><c>t</c><c>u</c><p:d xmlns:p=\"u\">v</p:d></a>');"
     "[x.findAll('//c/text()'), x.findOne('//q:d', {q: 'u'}).text, x.root.findAll('c[. = \"u\"]').length]",
     R"([["t","u"],"v",1])", Run, false},
    {"timers",
     "var n = 0; i = setInterval(() => { if ((n = Math.min(3, n + 1)) == 3) clearInterval(i) }, 1);"
     "clearTimeout(setTimeout(() => { n = 100 }, 10)); undefined",
     "3", RunAndPump},
    {"failing timer",
     "var n = 0; setTimeout(() => { n = 1; throw new Error('some message') }, 0); processPendingCallbacks();"
     "undefined",
     "1", RunAndPump},
    {"rejections", "Promise.reject(new Error('some message')); Promise.reject('another message of it'); 7",
     "7"},
    {"dropped value", "7", "7", DropOnThread},
    {"interrupt", "for (;;);", "Script execution was interrupted", Interrupt},
    {"worker", "'a text of more than sixteen letters'", kText, RunOnWorker},
    {"worker's timer",
     "var n = 0; setTimeout(() => { n = 1; Promise.reject('some text or other') }, 1); undefined", "1",
     RunOnWorker},
    {"no threads", "setTimeout(() => {}, 1)", "Cannot create thread, Uncaught Error: Cannot create thread",
     WithoutThreads},
};

/// What a process of its own reports, in memory that outlives it.
struct Report {
  int next;
  bool done;
  int usual;
  int told;
  int wrong;
  char texts[1000];
} * report;

void Note(const Case& test, const std::string& text) {
  ++report->wrong;
  printf("WRONG: %s, allocation %d%s: %.300s\n", test.name, report->next,
         allFollowing ? " and all that follow" : "", text.c_str());
  fflush(stdout);
}

/// The texts that a failed allocation may lead to.
bool IsTold(const std::string& result) {
  for (const char* text : {"std::bad_alloc", "Bad allocation", "File is too large", "XML error",
                           "Cannot create script context"}) {
    if (result.find(text) == std::string::npos) continue;
    if (strstr(report->texts, text) != nullptr) return true;
    const size_t length = strlen(report->texts);
    snprintf(report->texts + length, sizeof report->texts - length, length > 0 ? ", %s" : "%s", text);
    return true;
  }
  return false;
}

/// Whether the log has it: nobody else is told of what happens in a callback.
bool IsLogged() {
  for (const auto& line : vnjs::testing::LinesOf("test")) {
    if (line.level >= 3 && IsTold(line.text)) return true;
  }
  return false;
}

/// One operation in an environment of its own, with the failures that are set.
std::string Try(const Case& test) {
  std::string result;
  const auto attempt = [&](const auto& operation) {
    armed = true;
    try {
      result = operation();
    } catch (const std::bad_alloc&) {
      result = "std::bad_alloc";
    } catch (const vnjs::VornException& e) {
      result = e.msg();
    }
    armed = false;
    threadsFail = false;
  };
  std::filesystem::remove_all(folder + "storage");
  std::filesystem::create_directory(folder + "storage");
  try {
    if (test.operation == nullptr)
      attempt([&] { return Run(*std::make_unique<Automation>(folder.c_str()), test.code); });
    Automation automation(folder.c_str());
    automation.SetLogger(vnjs::testing::NewLogger("test"));
    if (test.operation != nullptr) attempt([&] { return test.operation(automation, test.code); });
    const bool ended = automation.IsTerminating();
    Run(automation, ended ? "last = 2" : "var last = 0; setTimeout(() => { last = 2 }, 1)");
    Pump(automation);
    if (Run(automation, "last") != "2") Note(test, "the next script");
  } catch (const vnjs::VornException& e) {
    Note(test, e.msg());
  } catch (const std::exception& e) {
    Note(test, e.what());
  }
  return result;
}

void TryAll(const Case& test) {
  for (bool first = true; first || test.operation != nullptr; first = false) {
    allocations = 0;
    passedEngine = false;
    firstFailure = report->next;
    const std::string result = Try(test);
    report->done = allocations < firstFailure;
    if (passedEngine) Note(test, "an exception passed through the engine");
    if (result == test.usual) {
      ++report->usual;
    } else if (!report->done && (IsTold(result) || IsLogged())) {
      ++report->told;
    } else {
      Note(test, result);
    }
    if (report->done) return;
    ++report->next;
  }
}

/// Each case in a process of its own, and what follows a crash in another.
void RunCase(const Case& test) {
  while (!report->done) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
      TryAll(test);
      exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (status == 0) continue;
    Note(test, WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "a leak");
    ++report->next;
  }
}

}  // namespace

int main(int argc, char** argv) {
  xmlMemSetup(free, XmlMalloc, XmlRealloc, XmlDuplicate);
  dl_iterate_phdr(FindOwners, nullptr);
  void* frame = nullptr;
  backtrace(&frame, 1);
  folder = (std::filesystem::temp_directory_path() / "vnjs-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return 1;
  folder += "/";
  std::ofstream(folder + ".syscommands") << "echo\n";
  std::ofstream(folder + "script.js") << kText;
  void* const shared =
      mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  report = static_cast<Report*>(shared);

  int wrong = 0;
  for (const bool following : {false, true}) {
    for (const Case& test : kCases) {
      if (argc > 1 && strcmp(argv[1], test.name) != 0) continue;
      *report = {};
      report->next = 1;
      allFollowing = following;
      xmlFails = test.xmlFails;
      RunCase(test);
      printf("%-18s %5d %5d %5d %5d  %s\n", test.name, report->next - 1, report->usual, report->told,
             report->wrong, report->texts);
      wrong += report->wrong;
    }
  }
  std::filesystem::remove_all(folder);
  return wrong == 0 ? 0 : 1;
}
