#include "engine/debug/server.h"

// Everything runs on one thread, and what others post passes a lock; fences are nothing that
// ThreadSanitizer knows.
#define BOOST_ASIO_DISABLE_FENCED_BLOCK

#include <sys/socket.h>
#include <unistd.h>
#include <vnjs/host.h>

#include <algorithm>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace vnjs {

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;

using boost::system::error_code;
using net::ip::tcp;
using Clock = std::chrono::steady_clock;
// With the executor named, the library's templates stay small.
using Executor = net::io_context::executor_type;
using Acceptor = net::basic_socket_acceptor<tcp, Executor>;
using Socket = net::basic_stream_socket<tcp, Executor>;
using Timer = net::basic_waitable_timer<Clock, net::wait_traits<Clock>, Executor>;

/// Debuggers come alone or in twos, and some open a second connection for a moment.
constexpr size_t kMaxClients = 16;

/// Requests of debuggers have a few hundred bytes.
constexpr uint32_t kMaxHeader = 8 * 1024;

/// From the connection to the end of the answer. A tunnel from another machine needs a part of a second.
constexpr std::chrono::seconds kRequestTime(5);

/// What has to be enough for the rest of the queue and the closing handshake.
constexpr std::chrono::seconds kClosingTime(5);

/// A client that is silent for that long has gone, as its machine or its tunnel has. After half of it, it is
/// pinged.
constexpr std::chrono::seconds kSilence(60);

/// What clients send is small, but for a changed script's whole text.
constexpr size_t kMaxMessage = 16 * 1024 * 1024;

/// A heap snapshot is sent at once, faster than anybody reads; a client that reads nothing must not cost more.
constexpr size_t kMaxQueue = 64 * 1024 * 1024;

/// How long no client is taken when there are no more descriptors: trying on at once would only burn time.
constexpr std::chrono::milliseconds kPause(200);

constexpr char kJson[] = "application/json; charset=UTF-8";
constexpr char kText[] = "text/plain; charset=UTF-8";

/// Whether an authority, such as "localhost:9229", can only mean this machine. A name of somebody else may
/// lead here too, at the moment when a browser has loaded that somebody's page.
bool IsThisMachine(beast::string_view authority) {
  const size_t end = authority.starts_with('[') ? authority.find(']') + 1 : authority.find(':');
  const beast::string_view host = authority.substr(0, end);
  const beast::string_view port = authority.substr(host.size());
  if (!port.empty() && (port[0] != ':' || port.find_first_not_of("0123456789", 1) != port.npos)) return false;
  if (beast::iequals(host, "localhost") || host == "[::1]") return true;
  error_code error;
  const auto address = net::ip::make_address_v4(std::string(host), error);
  return !error && address.is_loopback();
}

/// Whether a request comes from a debugger on this machine, not from a web page. Debuggers outside of
/// browsers have no origin.
bool IsTrusted(const http::request<http::empty_body>& request) {
  if (request.count(http::field::host) != 1 || !IsThisMachine(request[http::field::host])) return false;
  for (const auto& field : request) {
    if (field.name() != http::field::origin) continue;
    const beast::string_view scheme = field.value().substr(0, field.value().find("://"));
    if (!beast::iequals(scheme, "devtools") && !beast::iequals(scheme, "chrome-devtools")) return false;
  }
  return true;
}

class Connection;

/// One connection: a request and its answer, or a request and a WebSocket.
///
/// Owner:   the operations under way; when the last one ends, the client goes.
/// Threads: the server's.
class Client : public std::enable_shared_from_this<Client> {
 public:
  using Step = void (Client::*)();

  Client(net::io_context* context, Socket socket, DebugService* service)
      : m_context(context), m_service(service), m_deadline(*context), m_stream(std::move(socket)) {}
  ~Client() { Drop(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Does a step. Whatever it throws ends this client alone.
  void Try(Step step);

  void ReadRequest();
  void Write();
  void PrepareClosing();
  void Drop();

 private:
  /// What a finished operation calls.
  auto Then(Step step) {
    return [self = shared_from_this(), step](error_code error, size_t = 0) {
      self->Try(error ? &Client::Drop : step);
    };
  }
  /// Has the client do a step when that time has passed. Takes the place of any limit set before.
  void Limit(Clock::duration time, Step step = &Client::Drop);
  void HandleRequest();
  void Open(beast::string_view path);
  void Answer(http::status status, const char* type, std::string body);
  void Refuse(http::status status);
  void FinishAnswer();
  void AwaitEnd();
  void BeginMessages();
  void Read();
  void HandleRead();
  void Watch();
  void EndPing() { m_pinging = false; }
  void Close(websocket::close_code code);

  net::io_context* const m_context;
  DebugService* const m_service;
  Timer m_deadline;
  Step m_atDeadline = nullptr;
  websocket::stream<Socket, false> m_stream;
  beast::flat_buffer m_incoming;
  std::string m_outgoing;
  http::request_parser<http::empty_body> m_request;
  http::response<http::string_body> m_response;
  std::shared_ptr<Connection> m_connection;
  std::unique_ptr<DebugReceiver> m_receiver;
  /// No more messages are asked for.
  bool m_ending = false;
  /// The closing handshake has begun.
  bool m_closing = false;
  bool m_pinging = false;
  /// Something has come since the last ping.
  bool m_heard = true;
  bool m_gone = false;
};

/// The part of a client that others may hold: what it is still to be sent.
class Connection : public DebugConnection {
 public:
  enum class Next { kNothing, kMessage, kEnd };

  Connection(net::io_context* context, std::weak_ptr<Client> client)
      : m_client(std::move(client)), m_context(context) {}

  void Send(std::string message) override;
  void Close() override;
  void WaitUntilSent(std::chrono::milliseconds time) override;

  /// Moves the next message out, once the one before is written.
  Next Take(std::string* message);

  /// The client has gone.
  void Abandon();

 private:
  /// Has the client do a step on its thread. With the lock held: it keeps the context alive.
  void Post(Client::Step step) {
    net::post(*m_context, [client = m_client, step] {
      if (const auto self = client.lock()) self->Try(step);
    });
  }

  const std::weak_ptr<Client> m_client;

  std::mutex m_queueMutex;
  std::condition_variable m_done;
  bool m_sent = false;
  /// Null once the client has gone.
  net::io_context* m_context;
  std::deque<std::string> m_queue;
  /// Of the queue and of the message that is being written.
  size_t m_bytes = 0;
  /// The client will ask for the next message by itself; so it does first after the opening handshake.
  bool m_busy = true;
  bool m_ending = false;
};

void Connection::Send(std::string message) {
  const std::lock_guard<std::mutex> queueLock(m_queueMutex);
  if (m_context == nullptr || m_ending) return;
  if (message.size() > kMaxQueue - m_bytes) {
    Post(&Client::Drop);
    m_context = nullptr;
    return;
  }
  m_bytes += message.size();
  m_queue.push_back(std::move(message));
  if (m_busy) return;
  Post(&Client::Write);
  m_busy = true;
}

void Connection::Close() {
  const std::lock_guard<std::mutex> queueLock(m_queueMutex);
  if (m_context == nullptr || m_ending) return;
  Post(&Client::PrepareClosing);
  m_ending = true;
  if (m_busy) return;
  Post(&Client::Write);
  m_busy = true;
}

void Connection::WaitUntilSent(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> queueLock(m_queueMutex);
  m_done.wait_for(queueLock, time, [this] { return m_sent || m_context == nullptr; });
}

Connection::Next Connection::Take(std::string* message) {
  const std::lock_guard<std::mutex> queueLock(m_queueMutex);
  m_bytes -= message->size();
  message->clear();
  if (!m_queue.empty()) {
    *message = std::move(m_queue.front());
    m_queue.pop_front();
    return Next::kMessage;
  }
  if (m_ending) {
    m_sent = true;
    m_done.notify_all();
    return Next::kEnd;
  }
  m_busy = false;
  return Next::kNothing;
}

void Connection::Abandon() {
  std::deque<std::string> dropped;
  const std::lock_guard<std::mutex> queueLock(m_queueMutex);
  m_context = nullptr;
  m_done.notify_all();
  m_queue.swap(dropped);
}

void Client::Try(Step step) {
  // An operation may have been done before the client went, and be heard of afterwards.
  if (m_gone) return;
  try {
    (this->*step)();
  } catch (...) {
    Drop();
  }
}

void Client::Drop() {
  if (m_gone) return;
  m_gone = true;
  if (m_connection != nullptr) m_connection->Abandon();
  m_receiver.reset();
  error_code ignored;
  m_stream.next_layer().close(ignored);
}

void Client::Limit(Clock::duration time, Step step) {
  m_atDeadline = step;
  m_deadline.expires_after(time);
  m_deadline.async_wait([client = weak_from_this()](error_code) {
    const auto self = client.lock();
    // Also heard of when another limit has taken the place of this one.
    if (self != nullptr && self->m_deadline.expiry() <= Clock::now()) self->Try(self->m_atDeadline);
  });
}

void Client::ReadRequest() {
  Limit(kRequestTime);
  error_code ignored;
  m_stream.next_layer().set_option(tcp::no_delay(true), ignored);
  m_request.header_limit(kMaxHeader);
  http::async_read_header(m_stream.next_layer(), m_incoming, m_request, Then(&Client::HandleRequest));
}

void Client::HandleRequest() {
  const auto& request = m_request.get();
  if (!IsTrusted(request)) return Refuse(http::status::forbidden);
  if (request.method() != http::verb::get) {
    m_response.set(http::field::allow, "GET");
    return Refuse(http::status::method_not_allowed);
  }
  const beast::string_view path = request.target().substr(0, request.target().find('?'));
  if (websocket::is_upgrade(request)) return Open(path);
  if (path == "/json" || path == "/json/list")
    return Answer(http::status::ok, kJson, m_service->ListTargets(std::string(request[http::field::host])));
  if (path == "/json/version") return Answer(http::status::ok, kJson, m_service->DescribeVersion());
  Refuse(http::status::not_found);
}

void Client::Open(beast::string_view path) {
  // A client has to wait for the answer before it sends more.
  if (m_incoming.size() != 0) return Refuse(http::status::bad_request);
  if (!path.starts_with('/')) return Refuse(http::status::not_found);
  m_connection = std::make_shared<Connection>(m_context, weak_from_this());
  m_receiver = m_service->Connect(std::string(path.substr(1)), m_connection);
  if (m_receiver == nullptr) return Refuse(http::status::not_found);
  m_stream.async_accept(m_request.get(), Then(&Client::BeginMessages));
}

void Client::Answer(http::status status, const char* type, std::string body) {
  m_response.result(status);
  m_response.set(http::field::content_type, type);
  m_response.keep_alive(false);
  m_response.body() = std::move(body);
  m_response.prepare_payload();
  http::async_write(m_stream.next_layer(), m_response, Then(&Client::FinishAnswer));
}

void Client::Refuse(http::status status) {
  Answer(status, kText, std::string(http::obsolete_reason(status)) + '\n');
}

void Client::FinishAnswer() {
  // Closing at once would take the answer away from a client that is still sending.
  error_code ignored;
  m_stream.next_layer().shutdown(Socket::shutdown_send, ignored);
  AwaitEnd();
}

void Client::AwaitEnd() {
  m_incoming.clear();
  m_stream.next_layer().async_read_some(m_incoming.prepare(kMaxHeader), Then(&Client::AwaitEnd));
}

void Client::BeginMessages() {
  if (!m_ending) Limit(kSilence / 2, &Client::Watch);
  m_stream.control_callback([this](websocket::frame_type, beast::string_view) { m_heard = true; });
  m_stream.read_message_max(kMaxMessage);
  // Some clients take every frame for a whole message.
  m_stream.auto_fragment(false);
  Read();
  Write();
}

void Client::Read() { m_stream.async_read_some(m_incoming, 0, Then(&Client::HandleRead)); }

void Client::HandleRead() {
  m_heard = true;
  if (!m_stream.got_text()) return Close(websocket::close_code::unknown_data);
  if (m_stream.is_message_done()) {
    std::string message = beast::buffers_to_string(m_incoming.data());
    // Made anew, so that a large message holds no memory.
    m_incoming = beast::flat_buffer();
    m_receiver->OnMessage(std::move(message));
  }
  Read();
}

void Client::Watch() {
  // Nothing has come of a ping, or a closing handshake does not end.
  if (!m_heard || !m_stream.is_open()) return Drop();
  Limit(kSilence / 2, &Client::Watch);
  // The simplest clients, "node inspect" for one, crash at a ping. Those that know all frames offer extensions.
  if (m_request.get().count(http::field::sec_websocket_extensions) == 0) return;
  m_heard = false;
  if (m_pinging) return;
  m_pinging = true;
  m_stream.async_ping({}, Then(&Client::EndPing));
}

void Client::Write() {
  if (m_closing) return;
  switch (m_connection->Take(&m_outgoing)) {
    case Connection::Next::kMessage:
      m_stream.async_write(net::buffer(m_outgoing), Then(&Client::Write));
      break;
    case Connection::Next::kEnd:
      Close(websocket::close_code::normal);
      break;
    case Connection::Next::kNothing:
      break;
  }
}

void Client::PrepareClosing() {
  m_ending = true;
  Limit(kClosingTime);
}

void Client::Close(websocket::close_code code) {
  if (m_closing) return;
  m_closing = true;
  Limit(kClosingTime);
  m_stream.async_close(code, Then(&Client::Drop));
}

class Server : public DebugServer {
 public:
  explicit Server(DebugService* service) : m_service(service) {}
  ~Server() override {
    m_context.stop();
    if (m_thread.joinable()) m_thread.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// False when there are no descriptors. Other failures throw.
  bool Listen(unsigned short port);

 private:
  void Run();
  void AwaitClient();
  void TakeClient();

  DebugService* const m_service;
  net::io_context m_context{1};
  /// Keeps the thread in the context until it is stopped.
  const net::executor_work_guard<Executor> m_work{m_context.get_executor()};
  Acceptor m_acceptor{m_context};
  Timer m_pause{m_context};
  /// Someone will see to the next client.
  bool m_awaiting = false;
  std::vector<std::weak_ptr<Client>> m_clients;
  std::thread m_thread;
};

bool Server::Listen(unsigned short port) {
  // Made here, and accepted in TakeClient, by the system's own functions: theirs leave a moment in which a
  // process that the host starts inherits the descriptor.
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return false;
  error_code error;
  m_acceptor.assign(tcp::v4(), descriptor, error);
  if (error) {
    close(descriptor);
    return false;
  }
  m_acceptor.set_option(Acceptor::reuse_address(true));
  m_acceptor.bind({net::ip::address_v4::loopback(), port});
  m_acceptor.listen();
  m_thread = std::thread(&Server::Run, this);
  return true;
}

void Server::Run() {
  set_thread_name("vorn/debug");
  for (;;) {
    try {
      if (!m_awaiting) AwaitClient();
      m_context.run();
      break;
    } catch (...) {
      // There is no memory for an operation. The client whose it was has gone with it.
      std::this_thread::sleep_for(kPause);
    }
  }
  for (const auto& client : m_clients) {
    if (const auto self = client.lock()) self->Drop();
  }
}

void Server::AwaitClient() {
  m_acceptor.async_wait(Acceptor::wait_read, [this](error_code) {
    m_awaiting = false;
    TakeClient();
  });
  m_awaiting = true;
}

void Server::TakeClient() {
  Socket socket(m_context);
  const int descriptor = accept4(m_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
  if (descriptor < 0) {
    m_pause.expires_after(kPause);
    m_pause.async_wait([this](error_code) {
      m_awaiting = false;
      AwaitClient();
    });
    m_awaiting = true;
    return;
  }
  error_code error;
  socket.assign(tcp::v4(), descriptor, error);
  if (error) close(descriptor);

  m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                 [](const std::weak_ptr<Client>& client) { return client.expired(); }),
                  m_clients.end());
  if (!error && m_clients.size() < kMaxClients) {
    const auto client = std::make_shared<Client>(&m_context, std::move(socket), m_service);
    m_clients.push_back(client);
    client->Try(&Client::ReadRequest);
  }
  AwaitClient();
}

}  // namespace

std::unique_ptr<DebugServer> DebugServer::Start(unsigned short port, DebugService* service) {
  try {
    auto server = std::make_unique<Server>(service);
    if (server->Listen(port)) return server;
  } catch (const std::exception&) {
    // Somebody else has the port.
  }
  return nullptr;
}

}  // namespace vnjs
