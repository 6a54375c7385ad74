#pragma once

#include <vnjs/export.h>
#include <vnjs/result.h>

#include <cstddef>
#include <string>
#include <vector>

struct _VNLog;

namespace vnjs {

class Environment;

/// What a host uses: one script environment.
///
/// Threads:  without the worker, one thread makes all calls; with it, Run and RunFile come from any thread.
/// Order:    EnableDebug (optional), constructor, SetLogger and StartThread (optional), Run and RunFile as
///           often as wanted, StopThread, destructor.
/// Ending:   the destructor waits for the worker, the named threads and callers inside Run, and drops what is
///           queued. It must not run inside one of the environment's own scripts.
class VNJS_API Automation {
 public:
  /// `storageDir` is the root of everything scripts reach; a missing "/" at its end is added, and empty means
  /// "/". Throws VornException when no context can be made.
  explicit Automation(const char* storageDir);
  Automation(const Automation&) = delete;
  Automation& operator=(const Automation&) = delete;
  virtual ~Automation();

  /// @{ The environment's operation of the same name; see Environment.
  RunResult Run(const char* code, const char* source);
  RunResult RunFile(const char* path);
  void StartThread();
  void StopThread();
  bool IsThreaded() const;
  bool IsTerminating() const;
  bool ProcessPendingCallbacks();
  std::string StorageDir() const;
  _VNLog* GetLogger() const;
  void SetLogger(_VNLog* logger);
  /// @}

  /// True while a timer waits, or a callback is queued or running, and the environment is not terminating:
  /// more script work will come without the host's doing. Any thread.
  bool HasPendingWork() const;

  /// True when scripts have filled the heap again and again, and what they left takes more than twice what SetLimits
  /// allows. Those that follow get an eighth of the limit, enough to let go of something, which ends this; the
  /// environment is best replaced by a new one. Any thread.
  bool IsMemoryFull() const;

  /// For people to read, a line for each timer that waits: "timeout 3 in 250 ms", "interval 4 every 1000 ms, next in
  /// 250 ms", and one for callbacks that are queued. Any thread.
  std::vector<std::string> PendingWork() const;

  /// Owned by this object.
  Environment* GetEnvironment() const { return m_environment; }

  /// Ends what the environment is running now, with all that it has called and the microtasks that it has left:
  /// "Script execution was interrupted" is its result, or in the log for a callback. Natives end first; a shell
  /// command is killed. It never reaches code that begins later, and does nothing when nothing runs. The destructor
  /// is the exception: when no Run came after an Interrupt, it interrupts whatever still begins. Any thread, but not
  /// while the destructor runs.
  void Interrupt();

  /// For environments made afterwards: how much script objects (`heapBytes`, 8 MB at least), and buffers, trees and
  /// texts that natives take (`bufferBytes`) of each may take. When never called, each is an eighth of the machine's
  /// memory, or of what the process's control group may use if that is less: 64 MB at least and 1 GB at most. A script
  /// that fills its heap ends with "Script ran out of memory"; more buffers are refused. An environment that uses an isolate of the
  /// host's has the host's limits. Throws VornException "Invalid argument". Any thread; before EnableDebug, which
  /// makes an isolate.
  static void SetLimits(size_t heapBytes, size_t bufferBytes);

  /// Turns remote debugging on for the process, before any Automation is made: debuggers find each environment on
  /// this port of 127.0.0.1. m_debug tells whether the port could be opened; 0 is a port that the system chooses. The calling
  /// thread gets a current isolate if it has none, which the first environment it makes uses. With debugging on,
  /// a second call does nothing.
  static void EnableDebug(unsigned short port);

  /// Waits until a debugger has attached to this environment and is ready (`Runtime.runIfWaitingForDebugger`), at
  /// most so long; the next script then stops at its first statement. False when none came, or debugging is off.
  /// Keeps all scripts of the environment waiting. Not from a script.
  bool WaitForDebugger(unsigned int milliseconds);

  /// Whether debugging is on. To be read only.
  static bool m_debug;

 private:
  Environment* m_environment;
};

}  // namespace vnjs
