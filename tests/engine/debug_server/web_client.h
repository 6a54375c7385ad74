#pragma once

#include <cstdint>
#include <string>

namespace vnjs::testing {

/// What a WebSocket sends in one piece.
struct Frame {
  /// 1 text, 2 binary, 8 close, 9 ping, 10 pong; 0 goes on with a message. -1: none, the connection has ended.
  int opcode = -1;
  bool final = true;
  std::string payload;
};

/// A client on a socket, able to do everything wrong. What it has waited for in vain, for 20 seconds, it takes
/// for the connection's end.
///
/// Threads: one.
class WebClient {
 public:
  explicit WebClient(uint16_t port);
  ~WebClient() { Close(); }
  WebClient(const WebClient&) = delete;
  WebClient& operator=(const WebClient&) = delete;

  /// False when the server has closed.
  bool Send(const std::string& bytes);

  /// All that comes until the server closes.
  std::string ReceiveAll();

  /// Sends a request for a WebSocket and returns the status of the answer; 0 when there is none.
  int Upgrade(const std::string& path, const std::string& headers = "",
              const std::string& host = "127.0.0.1:9229");

  bool SendFrame(const Frame& frame) { return Send(Encode(frame)); }
  /// Waits for so many seconds.
  Frame ReceiveFrame(int limit = 20);
  static std::string Encode(const Frame& frame, bool masked = true);

  void Close();
  /// Closes so that the server sees an error, as when the client's process is killed.
  void Reset();

 private:
  std::string Receive(size_t bytes);
  void SetLimit(int limit);

  int m_socket;
};

/// A request with its Host header and further ones, each of which ends with "\r\n".
std::string Request(const std::string& method, const std::string& path, const std::string& headers = "",
                    const std::string& host = "127.0.0.1:9229");

/// The headers that make a request for a WebSocket.
extern const char kUpgrade[];

}  // namespace vnjs::testing
