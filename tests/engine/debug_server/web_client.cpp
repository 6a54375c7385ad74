#include "tests/engine/debug_server/web_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

namespace vnjs::testing {

const char kUpgrade[] =
    "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n";

std::string Request(const std::string& method, const std::string& path, const std::string& headers,
                    const std::string& host) {
  return method + ' ' + path + " HTTP/1.1\r\nHost: " + host + "\r\n" + headers + "\r\n";
}

WebClient::WebClient(uint16_t port) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  SetLimit(20);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) Close();
}

void WebClient::SetLimit(int limit) {
  const timeval time = {limit, 0};
  setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

bool WebClient::Send(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

std::string WebClient::ReceiveAll() {
  std::string all;
  char part[4096];
  for (;;) {
    const ssize_t count = recv(m_socket, part, sizeof part, 0);
    if (count <= 0) return all;
    all.append(part, static_cast<size_t>(count));
  }
}

std::string WebClient::Receive(size_t bytes) {
  std::string data(bytes, '\0');
  size_t received = 0;
  while (received < bytes) {
    const ssize_t count = recv(m_socket, &data[received], bytes - received, 0);
    if (count <= 0) return "";
    received += static_cast<size_t>(count);
  }
  return data;
}

int WebClient::Upgrade(const std::string& path, const std::string& headers, const std::string& host) {
  Send(Request("GET", path, kUpgrade + headers, host));
  std::string answer;
  while (answer.find("\r\n\r\n") == std::string::npos) {
    const std::string next = Receive(1);
    if (next.empty()) return 0;
    answer += next;
  }
  return atoi(answer.c_str() + sizeof "HTTP/1.1");
}

std::string WebClient::Encode(const Frame& frame, bool masked) {
  std::string bytes;
  bytes += static_cast<char>(frame.opcode | (frame.final ? 0x80 : 0));
  const size_t size = frame.payload.size();
  const int lengthBytes = size < 126 ? 0 : size < 65536 ? 2 : 8;
  const char masks = masked ? '\x80' : '\0';
  bytes += static_cast<char>(masks | (lengthBytes == 0 ? size : lengthBytes == 2 ? 126 : 127));
  for (int i = lengthBytes - 1; i >= 0; --i) bytes += static_cast<char>(uint64_t{size} >> (8 * i));
  constexpr char kMask[] = "mask";
  if (masked) bytes += kMask;
  for (size_t i = 0; i < size; ++i)
    bytes += static_cast<char>(frame.payload[i] ^ (masked ? kMask[i % 4] : 0));
  return bytes;
}

Frame WebClient::ReceiveFrame(int limit) {
  SetLimit(limit);
  const std::string head = Receive(2);
  if (head.empty()) return {};
  Frame frame;
  frame.final = (head[0] & 0x80) != 0;
  size_t size = head[1] & 0x7F;
  if (size >= 126) {
    const std::string length = Receive(size == 126 ? 2 : 8);
    size = 0;
    for (const char byte : length) size = size << 8 | static_cast<unsigned char>(byte);
  }
  if (size > 0) frame.payload = Receive(size);
  if (frame.payload.size() == size) frame.opcode = head[0] & 0x0F;
  return frame;
}

void WebClient::Close() {
  if (m_socket >= 0) close(m_socket);
  m_socket = -1;
}

void WebClient::Reset() {
  const linger atOnce = {1, 0};
  setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  Close();
}

}  // namespace vnjs::testing
