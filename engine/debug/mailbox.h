#pragma once

#include <v8.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/debug/server.h"

namespace vnjs {

/// What a client has done.
struct DebugMessage {
  enum Kind { kConnect, kText, kDisconnect };

  Kind kind = kText;
  int client = 0;
  std::string text;
  std::shared_ptr<DebugConnection> connection;
};

/// The way from the server's thread to the thread that holds an isolate, and from any thread to the clients'
/// consoles.
///
/// Owner:    shared by the target and its clients, which may outlive it.
/// Threads:  any.
/// Ending:   once Close was called it takes nothing more, touches the isolate no more, and nobody waits.
class DebugMailbox {
 public:
  /// `interrupt` is called on the thread that runs script code when there is mail for it.
  DebugMailbox(v8::Isolate* isolate, v8::InterruptCallback interrupt);

  /// False when closed, and for texts when too many wait. A client that leaves takes its texts with it.
  bool Post(DebugMessage message);
  bool Take(DebugMessage* message);

  /// Waits for mail, at most so long. False when there is none.
  bool Wait(std::chrono::milliseconds time);
  bool WaitForMailOrClose();

  /// The same for a script that is paused: false when it is not to pause any longer. Wake ends one such wait, or
  /// the next.
  bool WaitWhilePaused();
  void Wake();

  /// Whether scripts are to run on, whatever clients have asked for.
  void SetReleased(bool released);
  void Close();
  bool IsClosed();

  /// Sends a line to all listeners, and keeps it for those to come.
  void Log(std::string line);

  /// Sends the last lines, and from now on each. Once for each connection.
  void Listen(const std::shared_ptr<DebugConnection>& connection);
  void Forget(const std::shared_ptr<DebugConnection>& connection);

 private:
  /// Returns whether the client was among it: the target has never heard of it.
  bool RemoveMailOf(int client);

  std::mutex m_mutex;
  std::condition_variable m_changed;
  v8::Isolate* const m_isolate;
  const v8::InterruptCallback m_interrupt;
  bool m_closed = false;
  bool m_released = false;
  bool m_woken = false;
  std::deque<DebugMessage> m_messages;
  size_t m_bytes = 0;
  std::deque<std::string> m_lines;
  std::vector<std::shared_ptr<DebugConnection>> m_listeners;
};

}  // namespace vnjs
