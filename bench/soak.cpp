// What months do to a controller, in minutes: threaded environments that use everything at once. One of them is made
// and destroyed again and again; all but one have to stand scripts that never end or fill the heap. Prints what the
// process holds and how late timers are, and judges it at the end.
//
//     soak [SECONDS]     30 when not given; the exit status is 0 when all went well
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>
#include <vnjs/vnjs.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/median.h"

/// The logger of one environment, which also carries what the scripts report.
struct _VNLog {
  explicit _VNLog(bool ticks) : timed(ticks) {}

  /// The host leaves this environment in peace: its ticks tell how late timers are.
  const bool timed;

  /// What runs now ends by an interrupt only.
  std::atomic<bool> stuck{false};

  /// The environment is being destroyed; whatever begins now is interrupted.
  std::atomic<bool> ending{false};
};

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kInterrupted[] = "Script execution was interrupted";
constexpr char kEndless[] = "debugPrint('stuck'); for (;;);";

struct Step {
  const char* name;
  const char* code;
  const char* expected;
};

/// What the hosts ask for: the first ones everywhere, the others only where timers are not measured.
const Step kSteps[] = {
    {"storage", "storage()", "undefined"},
    {"command", "command()", "undefined"},
    {"xml", "xml()", "undefined"},
    {"nested", "nested()", "undefined"},
    {"throw", "throw new Error('meant')", "Uncaught Error: meant"},
    {"syntax", "var = 1", "JavaScript compilation error: Uncaught SyntaxError: Unexpected token '='"},
    {"buffers", "buffers()", "undefined"},
    {"full heap", "(function () { for (var all = [];;) all.push(new Array(1000).fill({})); })()",
     "Script ran out of memory"},
    {"endless loop", kEndless, kInterrupted},
    {"endless expression", "debugPrint('stuck'); /(x+x+)+y/.test('x'.repeat(50))", kInterrupted},
    {"endless microtasks", "debugPrint('stuck'); (function f() { Promise.resolve().then(f); })()",
     kInterrupted},
    {"endless command", "debugPrint('stuck'); system('exec sleep 15')", kInterrupted},
};
constexpr size_t kPeacefulSteps = 6;

/// How the errors begin that the log may hold.
const char* const kMeant[] = {"result: Error: Error: meant",
                              "Callback execution error: Error: meant",
                              "Unhandled promise rejection: Error: meant",
                              "result: Error: Script ran out of memory",
                              "result: Error: Script execution was interrupted",
                              "JavaScript compilation error at "};

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

/// What all threads have seen so far.
struct Tally {
  void Count(const std::string& what) {
    const std::lock_guard lock(mutex);
    ++done[what];
  }
  void Unexpected(const std::string& what) {
    const std::lock_guard lock(mutex);
    if (++unexpected <= 20) printf("unexpected: %s\n", what.c_str());
  }
  void Tick(uint64_t now) {
    const std::lock_guard lock(mutex);
    if (lastTick != 0) late.push_back(std::max(0.0, static_cast<double>(now - lastTick) - 100));
    lastTick = now;
  }

  std::mutex mutex;
  std::map<std::string, long> done;
  long unexpected = 0;

  /// Milliseconds; emptied when they are printed.
  std::vector<double> late;

  /// 0: the next one tells nothing.
  uint64_t lastTick = 0;
};

Tally tally;

/// One environment with its worker, and the threads of its host: two that run scripts, and the one that calls Live and
/// the destructor, which interrupts what does not end by itself.
class Home {
 public:
  Home(const std::string& folder, bool peaceful)
      : m_steps(peaceful ? kPeacefulSteps : std::size(kSteps)),
        m_log(new _VNLog(peaceful)),
        m_automation(std::make_unique<vnjs::Automation>(folder.c_str())) {
    m_automation->SetLogger(m_log);
    m_automation->StartThread();
    const vnjs::RunResult started = m_automation->RunFile((folder + "automation.js").c_str());
    if (started.isException()) tally.Unexpected("start: " + started.result());
  }

  /// Ends in the middle of everything, with a caller inside.
  ~Home() {
    std::thread caller([this] { m_automation->Run(kEndless, "last.js"); });
    while (!m_log->stuck) usleep(1000);
    m_log->ending = true;
    m_automation->Interrupt();
    m_automation.reset();
    caller.join();
    tally.Count("end in a loop");
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  void Live(const std::function<bool()>& isOver) {
    std::atomic<int> busy{2};
    const auto call = [&](unsigned seed) {
      std::minstd_rand random(seed);
      while (!isOver()) TakeStep(kSteps[random() % m_steps]);
      --busy;
    };
    std::thread callers[] = {std::thread(call, ++m_seed), std::thread(call, ++m_seed)};
    while (busy > 0) {
      usleep(5000);
      if (m_log->stuck.exchange(false)) m_automation->Interrupt();
    }
    for (std::thread& caller : callers) caller.join();
  }

  v8::Isolate* isolate() const { return m_automation->GetEnvironment()->GetIsolate(); }

 private:
  void TakeStep(const Step& step) {
    const vnjs::RunResult result = m_automation->Run(step.code, "soak.js");
    if (result.result() == step.expected) return tally.Count(step.name);
    tally.Unexpected(std::string(step.name) + ": " + result.result());
  }

  static std::atomic<unsigned> m_seed;
  const size_t m_steps;

  /// The environment's, which closes it.
  _VNLog* const m_log;
  std::unique_ptr<vnjs::Automation> m_automation;
};

std::atomic<unsigned> Home::m_seed{0};

/// In bytes, and with all environments stopped.
struct Sample {
  double live = 0;
  double resident = 0;
  double dirty = 0;
  std::ptrdiff_t threads = 0;
  std::ptrdiff_t descriptors = 0;
};

std::ptrdiff_t CountEntries(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return std::distance(begin(entries), end(entries));
}

/// Each environment stops where it is between two scripts or lets others have the isolate: no command runs, no file
/// is open, and what waits for a collection is collected.
///
/// The bytes alive are those of the engine's heaps and those that malloc has given out. They repeat to a few KB, so
/// that one in a hundred more is more than chance. Pages do not: the engine has its heap in pieces of 256 KB, and
/// malloc keeps what was freed, so they come and go by a megabyte.
Sample Measure(const std::vector<std::unique_ptr<Home>>& homes) {
  Sample sample;
  std::list<v8::Locker> stopped;
  for (const auto& home : homes) {
    v8::Isolate* const isolate = home->isolate();
    stopped.emplace_back(isolate);
    const v8::Isolate::Scope scope(isolate);
    // The second one waits for what the first one has left to another thread.
    isolate->LowMemoryNotification();
    isolate->LowMemoryNotification();
    v8::HeapStatistics heap;
    isolate->GetHeapStatistics(&heap);
    sample.live += static_cast<double>(heap.used_heap_size());
  }
  const struct mallinfo2 allocated = mallinfo2();
  sample.live += static_cast<double>(allocated.uordblks + allocated.hblkhd);
  malloc_trim(0);
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    const double bytes = atof(line.c_str() + line.find(':') + 1) * 1024;
    if (StartsWith(line, "Rss:")) sample.resident = bytes;
    if (StartsWith(line, "Private_Dirty:")) sample.dirty = bytes;
  }
  sample.threads = CountEntries("/proc/self/task");
  sample.descriptors = CountEntries("/proc/self/fd");
  // Being stopped is not being late.
  const std::lock_guard lock(tally.mutex);
  tally.lastTick = 0;
  return sample;
}

void Print(double elapsed, const Sample& sample) {
  const std::lock_guard lock(tally.mutex);
  std::vector<double>& late = tally.late;
  std::sort(late.begin(), late.end());
  const double p95 = late.empty() ? 0 : late[late.size() * 95 / 100];
  const double worst = late.empty() ? 0 : late.back();
  long runs = 0;
  for (const Step& step : kSteps) runs += tally.done[step.name];
  printf("%6.1f s %7.0f KB %6.1f MB %6.1f MB %8td %12td %5.0f ms %5.0f ms %7ld %7ld\n", elapsed,
         sample.live / 1024, sample.dirty / 1048576, sample.resident / 1048576, sample.threads,
         sample.descriptors, p95, worst, runs, tally.unexpected);
  fflush(stdout);
  late.clear();
}

/// From the first quarter to the last one, in percent.
double Growth(const std::vector<Sample>& samples, double Sample::*member) {
  std::vector<double> quarters[2];
  for (size_t i = 0; i < (samples.size() + 3) / 4; ++i) {
    quarters[0].push_back(samples[i].*member);
    quarters[1].push_back(samples[samples.size() - 1 - i].*member);
  }
  return (vnjs::bench::Median(quarters[1]) / vnjs::bench::Median(quarters[0]) - 1) * 100;
}

/// Prints what happened and what went wrong. `samples` are those after warm-up. Returns whether all is well.
bool Judge(const std::vector<Sample>& samples) {
  bool good = true;
  const auto require = [&good](bool condition, const std::string& failure) {
    if (!condition) printf("FAILED: %s\n", failure.c_str());
    good &= condition;
  };
  std::vector<std::string> wanted = {"tick", "did timeout", "did microtask", "did interval", "end in a loop"};
  for (const Step& step : kSteps) wanted.emplace_back(step.name);
  for (const char* start : kMeant) wanted.emplace_back(start);
  for (const std::string& what : wanted) {
    printf("%8ld  %s\n", tally.done[what], what.c_str());
    require(tally.done[what] > 0, "it never happened");
  }
  require(tally.unexpected == 0, "unexpected errors");
  require(samples.size() >= 4, "too few samples");
  if (samples.size() < 4) return false;
  const auto stays = [&samples](std::ptrdiff_t Sample::*member) {
    return std::all_of(samples.begin(), samples.end(),
                       [&](const Sample& sample) { return sample.*member == samples.front().*member; });
  };
  require(stays(&Sample::threads), "the number of threads changes");
  require(stays(&Sample::descriptors), "the number of descriptors changes");
  const double growth = Growth(samples, &Sample::live);
  printf("Growth after warm-up: %+.2f %% of the bytes alive, %+.2f %% of the private pages\n", growth,
         Growth(samples, &Sample::dirty));
#ifndef VNJS_SANITIZED
  // The sanitizers' own malloc tells nothing.
  require(growth < 1, "memory grows");
#endif
  return good;
}

}  // namespace

extern "C" {

_VNLog* vlog_create(FILE* stream, int level) { return new _VNLog(false); }

void vlog_write(_VNLog* logger, const char* module, int level, const char* format, ...) {
  char buffer[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  const std::string text = buffer;
  if (level >= 3) {
    for (const char* start : kMeant) {
      if (StartsWith(text, start)) return tally.Count(start);
    }
    if (!logger->ending || text.find(kInterrupted) == std::string::npos) tally.Unexpected(text);
  } else if (text == "stuck") {
    logger->stuck = true;
  } else if (text == "tick" && logger->timed) {
    tally.Count(text);
    tally.Tick(get_local_time_ms());
  } else if (StartsWith(text, "did ")) {
    tally.Count(text);
  }
}

void vlog_close(_VNLog* logger) { delete logger; }

void* _vassert(void* pointer, const char* text) { return pointer != nullptr ? pointer : (abort(), nullptr); }

uint64_t get_local_time_ms(void) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
}

void set_thread_name(const char* name) { pthread_setname_np(pthread_self(), name); }

char* sys_last_err_string(void) { return strdup(strerror(errno)); }

}  // extern "C"

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? atoi(argv[1]) : 30;
  if (seconds < 10) return puts("soak: at least 10 seconds"), 1;
  // Without it, malloc counts what its threads' caches keep among what it gave out, and lets pages go when it likes.
  if (getenv("GLIBC_TUNABLES") == nullptr) {
    setenv("GLIBC_TUNABLES",
           "glibc.malloc.tcache_count=0:glibc.malloc.mxfast=0:glibc.malloc.arena_max=1:"
           "glibc.malloc.mmap_threshold=131072",
           1);
    execv("/proc/self/exe", argv);
  }
  // Whatever hangs ends here.
  alarm(static_cast<unsigned>(seconds) + 60);
  vnjs::Automation::SetLimits(16 << 20, 16 << 20);

  std::string folder = (std::filesystem::temp_directory_path() / "vnjs-soak-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return perror("soak"), 1;
  const auto storage = [&folder](int number) {
    std::string path = folder + '/' + std::to_string(number) + '/';
    std::filesystem::create_directories(path + "storage");
    std::ofstream(path + ".syscommands") << "# no rm\necho\nexit\nexec\n";
    std::filesystem::copy_file(VNJS_SOAK_SCRIPT, path + "automation.js");
    return path;
  };

  std::atomic<bool> over{false};
  std::vector<std::unique_ptr<Home>> homes;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    homes.push_back(std::make_unique<Home>(storage(i), i == 0));
    threads.emplace_back([&over, home = homes.back().get()] { home->Live([&over] { return over.load(); }); });
  }
  std::mutex betweenLives;
  threads.emplace_back([&over, &betweenLives, path = storage(3)] {
    while (!over) {
      // Here the mutex is free for long enough that another thread gets it.
      usleep(20000);
      const std::lock_guard life(betweenLives);
      const Clock::time_point end = Clock::now() + std::chrono::milliseconds(700);
      Home(path, false).Live([&over, end] { return over || Clock::now() > end; });
    }
  });

  puts(" elapsed      alive   private  resident  threads  descriptors  late 95%   worst    runs  errors");
  const Clock::time_point start = Clock::now();
  const auto step = std::chrono::seconds(seconds > 60 ? 10 : 1);
  const auto end = start + std::chrono::seconds(seconds);
  std::vector<Sample> samples;
  while (Clock::now() < end) {
    std::this_thread::sleep_for(step);
    const std::lock_guard life(betweenLives);
    const Sample sample = Measure(homes);
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    Print(elapsed.count(), sample);
    if (elapsed.count() > seconds / 3.0) samples.push_back(sample);
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
  homes.clear();
  std::filesystem::remove_all(folder);
  const bool good = Judge(samples);
  puts(good ? "Verdict: passed" : "Verdict: FAILED");
  return good ? 0 : 1;
}
