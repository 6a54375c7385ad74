#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace vnjs {

/// A client's WebSocket, to write to.
///
/// Threads:  any.
/// Ending:   everything is dropped once the client has gone; the object may be kept for as long as wanted.
class DebugConnection {
 public:
  virtual ~DebugConnection() = default;

  /// Queues a message, in UTF-8. A client that lets too much of it pile up is disconnected.
  virtual void Send(std::string message) = 0;

  /// Sends what is queued and closes.
  virtual void Close() = 0;

  /// Waits, at most so long, until what was queued before Close is sent. Not on the server's thread.
  virtual void WaitUntilSent(std::chrono::milliseconds time) = 0;
};

/// The other end of a client: destroyed when the client has gone, however that happened.
///
/// Threads:  the server's. Must not block.
class DebugReceiver {
 public:
  virtual ~DebugReceiver() = default;
  virtual void OnMessage(std::string message) = 0;
};

/// What a server serves.
///
/// Threads:  the server's. Must not block.
class DebugService {
 public:
  virtual ~DebugService() = default;

  /// The JSON texts of `/json/list` and `/json/version`. `host` is what the client has addressed, as
  /// "127.0.0.1:9229".
  virtual std::string ListTargets(const std::string& host) = 0;
  virtual std::string DescribeVersion() = 0;

  /// A client asks for the target of that path, without the '/' before it. Null when there is none.
  virtual std::unique_ptr<DebugReceiver> Connect(const std::string& path,
                                                 std::shared_ptr<DebugConnection> connection) = 0;
};

/// Answers debuggers: HTTP and WebSocket on one port of 127.0.0.1, on a thread of its own, "vorn/debug".
///
/// Only clients on this machine are served, and only those that have addressed it by a loopback address or
/// "localhost": a web page that a browser has opened, under whatever name, gets nothing.
///
/// Owner:    whoever started it; `service` must live longer.
/// Ending:   the destructor closes all connections and joins the thread.
/// Failures: whatever clients send costs them their connection and nobody anything else.
class DebugServer {
 public:
  /// Null when the port cannot be opened.
  static std::unique_ptr<DebugServer> Start(unsigned short port, DebugService* service);
  virtual ~DebugServer() = default;
};

}  // namespace vnjs
