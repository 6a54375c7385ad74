#pragma once

/// Automations that run by themselves, without a header of the engine.

#include <vnjs/convert.h>
#include <vnjs/error.h>
#include <vnjs/export.h>
#include <vnjs/native_function.h>
#include <vnjs/promise.h>
#include <vnjs/script_error.h>
#include <vnjs/script_value.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace vnjs {

namespace detail {
class RunnerCore;
}  // namespace detail

/// One line of a runner's log.
struct LogLine {
  std::string automation{};  ///< RunnerOptions::name.
  std::string module{};      ///< Who speaks: "core" for scripts, "runner" for the runner itself.
  int level = 1;             ///< 1 notes, 3 what a script has thrown, 4 code that does not compile.
  std::string message{};     ///< Without the time and the automation's name.
  ScriptError error{};       ///< What the line tells of, where it tells of one.
};

/// kEnded: by the script's `exit()`. kFailed: its code did not run to its end, and nothing of it is left.
enum class State { kStopped, kStarting, kRunning, kFailed, kEnded };

/// A runner's figures. Those of memory and of timers are as of the last time that the script had nothing to do, or of the
/// last tenth of a second when it is busy; all from `runs` on count since Start, reloads included.
struct Statistics {
  State state = State::kStopped;  ///< At the moment of asking.
  size_t heapBytes = 0;           ///< The script's objects, and
  size_t heapLimit = 0;           ///< what they may take.
  size_t bufferBytes = 0;         ///< Buffers and trees, and
  size_t bufferLimit = 0;         ///< what they may take.
  size_t queued = 0;              ///< Events, calls, code and posted work that wait.
  size_t timers = 0;              ///< Timers that wait.

  uint64_t runs = 0;       ///< Starts, and pieces of code given to Eval.
  uint64_t callbacks = 0;  ///< Events, calls of functions, and timers.
  uint64_t failures =
      0;  ///< What of these threw, did not compile, filled the memory, or left a rejected promise.
  uint64_t interrupted = 0;  ///< What of these a limit, Interrupt, Stop or Reload has ended.
  uint64_t dropped = 0;      ///< What was refused because the queue was full, or dropped uncalled at an end.

  std::chrono::microseconds cpu{0};       ///< Processor time of the runner's thread.
  std::chrono::microseconds longest{0};   ///< Of one start, event, call, piece of code or timer.
  std::chrono::microseconds delayP50{0};  ///< From queued to begun, of the last 1,000; half took longer,
  std::chrono::microseconds delayP99{0};  ///< and one in a hundred longer than this.

  ScriptError lastError;                                ///< kNone when nothing has failed since Start.
  std::chrono::system_clock::time_point lastErrorTime;  ///< The epoch when nothing has.
};

/// What a runner is made with.
struct RunnerOptions {
  std::string name{};        ///< In its log lines, and its thread's.
  std::string storageDir{};  ///< The root of all that scripts reach, as for Automation.

  /// @{ What its scripts may take, as for Automation::SetLimits; 0 for what holds there.
  size_t heapBytes = 0;
  size_t bufferBytes = 0;
  /// @}

  /// How many events, calls, pieces of code and posted functions may wait.
  size_t queueLimit = 10000;

  /// @{ What the code of a start, and each callback, event's handler, timer or piece of code may take with its
  /// microtasks, before it is ended; 0 for no limit. Time in a debugger's break does not count. A native of the host's is
  /// never cut short; the script that has called it ends when it returns.
  std::chrono::milliseconds startLimit{10000};
  std::chrono::milliseconds callbackLimit{0};
  /// @}

  /// Gets each line of the log; without it, the host's vlog functions do. Any thread.
  std::function<void(const LogLine&)> log{};

  /// Hears of each change. On the runner's thread.
  std::function<void(State)> onState{};
};

/// One automation with a thread of its own, which sleeps until there is something to do.
///
/// Scripts:  have `on`, `off`, `once` and `onStop` beside all other globals, and what Define gives them.
/// Threads:  Define, Start, StartCode and the destructor belong to one thread at a time; everything else is for any.
///           Natives, `done`, posted functions and onState run on the runner's thread, and may call everything here:
///           Start, Reload and Stop of their own runner then only ask for it and return at once.
/// Locks:    none of the library's but the isolate's is held while functions of the host run.
/// Order:    what one thread queues is done in that order.
/// Failures: a function of the host's that throws where no script has called it is logged.
/// Ending:   Stop, or the destructor. Values, promises and functions may outlive the runner.
/// Forks:    the child of a process that forks has no runner: all operations there do nothing, answer false or an error.
///           Executing another program is fine.
class VNJS_API Runner {
 public:
  /// Nothing runs yet. Throws VornException "No script environment survives fork()" in a child of a process that had one.
  // cppcheck-suppress passedByValue; moved from
  explicit Runner(RunnerOptions options) : Runner(options, sizeof options) {}
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  /// Stop(0). From a function that the runner itself has called, the runner ends after it.
  ~Runner();

  /// Gives scripts a function, such as "publish(topic, payload)" or "lamp.set(id, level)", which is one of the object
  /// `lamp`. The callable takes and returns `bool`, numbers, std::string, std::vector, std::map by std::string,
  /// std::optional, Value and structs that Convert knows; it may return Promise, or nothing. It is called on the runner's
  /// thread, and destroyed there before Stop returns.
  ///
  /// For the script, an argument of another type is a `TypeError` that names it, as is one that is missing; a
  /// std::optional may be missing, undefined or null. Whatever the callable throws is an `Error`.
  ///
  /// Throws VornException when the declaration is none, has another number of parameters than the callable or a name that
  /// is taken, and when the runner has started.
  template <typename F>
  Runner& Define(const char* declaration, F function) {
    using Native = typename detail::NativeOf<std::decay_t<F>>::Type;
    AddNative(declaration, Native::Signature(), std::make_unique<Native>(std::move(function)));
    return *this;
  }

  /// Runs a file, whose path is as the system has it, and returns when it has run: kNone when it did to its end. kHost when
  /// there is no such file, or the runner runs already. A runner that failed or ended may be started again.
  ScriptError Start(const char* file);

  /// The same with the code itself, and the name that stands for it in errors.
  ScriptError StartCode(const char* code, const char* source);

  /// Queues an event for the handlers that the script has given to `on`. False, and no event, when the queue is full or the
  /// runner does not run. Never waits for a script.
  template <typename... Arguments>
  bool Emit(const std::string& event, Arguments&&... arguments) {
    std::array<Value, sizeof...(Arguments)> values{detail::ToValue(std::forward<Arguments>(arguments))...};
    return EmitValues(event, values.data(), values.size());
  }

  /// Queues code. `done` gets its value, or what a promise that it gives is settled with; it is not called when the runner
  /// ends before, nor when this answers false, as Emit does.
  bool Eval(std::string code, std::string source, std::function<void(const Value&, const ScriptError&)> done);

  /// Queues a function of the host's, for the runner's thread. False as Emit.
  bool Post(std::function<void()> function);

  /// Ends what the script runs now, with its microtasks; never what begins later.
  void Interrupt();

  /// Ends the script as Stop does and starts what was started last anew, with the same definitions; a file is read again.
  /// What is queued waits for the new script, but for calls of the old one's functions, which are dropped. Returns its
  /// error as Start does; the runner is kFailed then. kInterrupted when Stop came before.
  ScriptError Reload(std::chrono::milliseconds grace);

  /// Ends the script: nothing new is queued, what runs may go on for `grace` and is interrupted then, functions given to
  /// `onStop` are called in what is left of it (in 100 ms at least), and what is queued is dropped. Returns when the thread
  /// has ended; with a native in it that never returns, never. Nothing to do when it has stopped.
  void Stop(std::chrono::milliseconds grace);

  /// What the runner has done and what it takes. Never waits for a script.
  Statistics GetStatistics() const {
    Statistics statistics;
    FillStatistics(&statistics, sizeof statistics);
    return statistics;
  }

  /// TypeScript for what was defined. It goes with vnjs.d.ts and runner.d.ts, which declare the rest.
  std::string Declarations() const;

 private:
  // The sizes are those of the headers that the host was compiled with.
  Runner(RunnerOptions& options, size_t size);
  void AddNative(const char* declaration, detail::NativeSignature signature,
                 std::unique_ptr<detail::NativeFunction> function);
  bool EmitValues(const std::string& event, Value* arguments, size_t count);
  void FillStatistics(Statistics* statistics, size_t size) const;

  std::shared_ptr<detail::RunnerCore> m_core;
};

}  // namespace vnjs
