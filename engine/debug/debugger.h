#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vnjs {

class EnvironmentImpl;

/// One environment, as debuggers see it.
///
/// Owner:    the environment.
/// Threads:  made, dispatched and destroyed under the isolate's lock, inside the context; each operation says so
///           where it differs.
/// Ending:   Close, then Join, then destruction, in this order.
class DebugTarget {
 public:
  virtual ~DebugTarget() = default;

  /// Handles what clients have sent. May run script code, and stay for as long as a client has it paused.
  virtual void Dispatch() = 0;

  /// Some code is about to run. Lets it stop at its first statement when a client has asked for that while nothing
  /// ran: what the engine remembers of it itself belongs to a thread, and is lost when the thread leaves.
  virtual void OnScriptStart() = 0;

  /// Shows a line of the log in the clients' consoles. Any thread.
  virtual void Log(int level, const std::string& text) = 0;

  /// Waits until a client is ready and has said so, at most so long, then lets the next code that runs stop at
  /// its first statement. False when none came. Has `dispatch` call Dispatch when there is something to handle.
  virtual bool WaitForClient(std::chrono::milliseconds time, const std::function<void()>& dispatch) = 0;

  /// Whether clients are attached, for whom breakpoints may be set.
  virtual bool IsWatched() const = 0;

  /// While held, what clients have sent waits, the first message of a new one too. Holds are counted.
  virtual void Hold() = 0;
  virtual void Unhold() = 0;

  /// The calling thread leaves the isolate for good: a profile that it has started ends, because the engine would go
  /// on signalling to it.
  virtual void OnThreadEnd() = 0;

  /// Whether scripts run on wherever clients have told them to pause. Any thread.
  virtual void SetReleased(bool released) = 0;

  /// Lets a script that is paused see that it is to end. Any thread.
  virtual void Wake() = 0;

  /// Resumes what is paused, and keeps everything from pausing again. Any thread.
  virtual void Close() = 0;

  /// Ends the target's own thread, which may be waiting for the isolate. Not under the isolate's lock.
  virtual void Join() = 0;
};

/// Opens the port for debuggers, once per process. False when that fails, or when this build has no agent.
bool StartDebugAgent(unsigned short port);

/// Null when the agent does not run. Under the isolate's lock, inside the context.
std::unique_ptr<DebugTarget> NewDebugTarget(EnvironmentImpl* env);

}  // namespace vnjs
