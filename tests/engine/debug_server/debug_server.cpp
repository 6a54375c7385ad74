// What debuggers and others may do to the server: web pages that ask, requests of all kinds, messages of all
// sizes, clients that stall, break the rules, read nothing or vanish, and a server that ends in the middle.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vnjs/host.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "engine/debug/server.h"
#include "tests/engine/debug_server/web_client.h"

namespace {
std::mutex threadNameMutex;
std::string threadName;
}  // namespace

extern "C" void set_thread_name(const char* name) {
  const std::lock_guard<std::mutex> lock(threadNameMutex);
  threadName = name;
}

namespace vnjs::testing {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr size_t kMegabyte = 1024 * 1024;

bool WaitFor(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// A port that nobody has at the moment.
uint16_t FreePort() {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  (void)bind(probe, reinterpret_cast<sockaddr*>(&address), size);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  close(probe);
  return ntohs(address.sin_port);
}

/// Has a target "echo" that sends back what it gets.
class Service : public DebugService {
 public:
  std::string ListTargets(const std::string& host) override { return "targets of " + host; }
  std::string DescribeVersion() override { return "version"; }
  std::unique_ptr<DebugReceiver> Connect(const std::string& path,
                                         std::shared_ptr<DebugConnection> connection) override {
    if (path == "bad") throw std::bad_alloc();
    if (path != "echo") return nullptr;
    connection->Send("welcome");
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_last = connection;
    return std::make_unique<Echo>(this, std::move(connection));
  }

  /// The connection of the client that came last.
  std::shared_ptr<DebugConnection> Last() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
  }

  std::atomic<int> receivers{0};
  std::atomic<int> endedOnWrongThread{0};

 private:
  class Echo : public DebugReceiver {
   public:
    Echo(Service* service, std::shared_ptr<DebugConnection> connection)
        : m_service(service), m_connection(std::move(connection)), m_thread(std::this_thread::get_id()) {
      ++m_service->receivers;
    }
    ~Echo() override {
      m_connection->Send("farewell");
      if (std::this_thread::get_id() != m_thread) ++m_service->endedOnWrongThread;
      --m_service->receivers;
    }
    void OnMessage(std::string message) override {
      if (message == "throw") throw std::bad_alloc();
      if (message == "close") m_connection->Close();
      m_connection->Send(std::move(message));
    }

   private:
    Service* const m_service;
    const std::shared_ptr<DebugConnection> m_connection;
    const std::thread::id m_thread;
  };

  std::mutex m_mutex;
  std::shared_ptr<DebugConnection> m_last;
};

class DebugServerTest : public ::testing::Test {
 protected:
  DebugServerTest() {
    for (int tries = 0; m_server == nullptr && tries < 20; ++tries) {
      m_port = FreePort();
      m_server = DebugServer::Start(m_port, &m_service);
    }
  }
  ~DebugServerTest() override {
    m_server.reset();
    EXPECT_EQ(m_service.receivers, 0);
    EXPECT_EQ(m_service.endedOnWrongThread, 0);
  }

  std::string Ask(const std::string& request) {
    WebClient client(m_port);
    client.Send(request);
    return client.ReceiveAll();
  }

  /// A client with a WebSocket that has been welcomed.
  std::unique_ptr<WebClient> Join() {
    auto client = std::make_unique<WebClient>(m_port);
    EXPECT_EQ(client->Upgrade("/echo"), 101);
    EXPECT_EQ(client->ReceiveFrame().payload, "welcome");
    return client;
  }

  /// Others are served as ever.
  void ExpectService() {
    EXPECT_THAT(Ask(Request("GET", "/json/version")), StartsWith("HTTP/1.1 200 "));
    const auto client = Join();
    client->SendFrame({1, true, "hello"});
    EXPECT_EQ(client->ReceiveFrame().payload, "hello");
  }

  bool WaitForReceivers(int count) {
    return WaitFor([&] { return m_service.receivers == count; });
  }

  Service m_service;
  uint16_t m_port = 0;
  std::unique_ptr<DebugServer> m_server;
};

TEST_F(DebugServerTest, AnswersOnlyWhatHasAddressedThisMachine) {
  const auto expect = [&](const std::string& host, bool served) {
    SCOPED_TRACE(host);
    const std::string list = Ask(Request("GET", "/json", "", host));
    EXPECT_THAT(list, StartsWith(served ? "HTTP/1.1 200 " : "HTTP/1.1 403 "));
    EXPECT_EQ(list.find("targets of " + host) != std::string::npos, served);
    EXPECT_EQ(WebClient(m_port).Upgrade("/echo", "", host), served ? 101 : 403);
  };
  for (const char* host :
       {"127.0.0.1:9229", "127.255.3.1:1", "localhost:9229", "LocalHost", "[::1]:9229", "[::1]"}) {
    expect(host, true);
  }
  for (const char* host :
       {"", ":9229", "rebound.example:9229", "localhost.rebound.example", "localhost.", "127.0.0.1.example",
        "127.1", "2130706433", "128.0.0.1", "0.0.0.0", "[::2]", "[::1", "[::1]x", "::1", "localhost:80x",
        "localhost@rebound.example", "localhost\r\nHost: x", "x\r\nHost: localhost"}) {
    expect(host, false);
  }
  EXPECT_THAT(Ask("GET /json HTTP/1.1\r\n\r\n"), StartsWith("HTTP/1.1 403 "));
}

TEST_F(DebugServerTest, RefusesWebPages) {
  const auto expect = [&](const std::string& origins, bool served) {
    SCOPED_TRACE(origins);
    EXPECT_THAT(Ask(Request("GET", "/json", origins)),
                StartsWith(served ? "HTTP/1.1 200 " : "HTTP/1.1 403 "));
    EXPECT_EQ(WebClient(m_port).Upgrade("/echo", origins), served ? 101 : 403);
  };
  for (const char* origin : {"Origin: devtools://devtools\r\n", "Origin: Chrome-DevTools://devtools\r\n"}) {
    expect(origin, true);
  }
  for (const char* origins :
       {"Origin: http://localhost:9229\r\n", "Origin: null\r\n", "Origin: file://\r\n", "Origin:\r\n",
        "Origin: devtools\r\nOrigin: http://page.example\r\n", "Origin: devtools.example://devtools\r\n",
        "Origin: http://devtools://devtools\r\n"}) {
    expect(origins, false);
  }
}

TEST_F(DebugServerTest, AnswersRequests) {
  const std::string json = "Content-Type: application/json; charset=UTF-8\r\n";
  const struct {
    std::string request;
    std::string status;
    std::string part;
  } kCases[] = {
      {Request("GET", "/json"), "HTTP/1.1 200 ", json},
      {Request("GET", "/json/list"), "HTTP/1.1 200 ", "\r\n\r\ntargets of 127.0.0.1:9229"},
      {Request("GET", "/json/version"), "HTTP/1.1 200 ", "\r\n\r\nversion"},
      {Request("GET", "/"), "HTTP/1.1 404 ", ""},
      {Request("GET", "/echo"), "HTTP/1.1 404 ", ""},
      {Request("HEAD", "/json"), "HTTP/1.1 405 ", "\r\nAllow: GET\r\n"},
      {Request("POST", "/json", "Content-Length: 5\r\n") + "hello", "HTTP/1.1 405 ", ""},
      {Request("GET", "/other", kUpgrade), "HTTP/1.1 404 ", ""},
      {Request("GET", "echo", kUpgrade), "HTTP/1.1 404 ", ""},
      {Request("POST", "/echo", kUpgrade), "HTTP/1.1 405 ", ""},
      {Request("GET", "/echo", "Connection: Upgrade\r\nUpgrade: websocket\r\n"), "HTTP/1.1 400 ", ""},
      {Request("GET", "/echo", kUpgrade) + WebClient::Encode({1, true, "early"}), "HTTP/1.1 400 ", ""},
      {Request("GET", "/bad", kUpgrade), "", ""},
      {Request("GET", "/json", "X: " + std::string(8 * 1024, 'x') + "\r\n"), "", ""},
      {"\r\n\r\n", "", ""},
      {"GET /json HTTP/9.9\r\n\r\n", "", ""},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.request.substr(0, 200));
    const std::string answer = Ask(test.request);
    if (test.status.empty()) {
      EXPECT_THAT(answer, IsEmpty());
    } else {
      EXPECT_THAT(answer, StartsWith(test.status));
      EXPECT_THAT(answer, HasSubstr(test.part));
    }
  }
}

TEST_F(DebugServerTest, CarriesMessagesOfAllSizes) {
  const auto client = Join();
  std::string utf8;
  while (utf8.size() < kMegabyte) utf8 += "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x94\xA7";
  const std::string kMessages[] = {"", utf8, std::string(16 * kMegabyte, 'x')};
  for (const std::string& message : kMessages) {
    SCOPED_TRACE(message.size());
    ASSERT_TRUE(client->SendFrame({1, true, message}));
    const Frame echo = client->ReceiveFrame();
    EXPECT_EQ(echo.opcode, 1);
    EXPECT_TRUE(echo.final);
    EXPECT_TRUE(echo.payload == message);
  }
}

TEST_F(DebugServerTest, EndsClientsThatBreakTheRules) {
  const std::string halfText(9 * kMegabyte, 'x');
  const struct {
    const char* what;
    std::string bytes;
    std::string code;
  } kCases[] = {
      {"binary", WebClient::Encode({2, true, "x"}), "\x03\xEB"},
      // Refused by its head alone.
      {"too large", std::string("\x81\xFF\0\0\0\0\x01\0\0\x01mask", 14), "\x03\xF1"},
      {"too large together", WebClient::Encode({1, false, halfText}) + WebClient::Encode({0, true, halfText}),
       "\x03\xF1"},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    const auto client = Join();
    client->Send(test.bytes);
    const Frame close = client->ReceiveFrame();
    EXPECT_EQ(close.opcode, 8);
    EXPECT_EQ(close.payload.substr(0, 2), test.code);
    client->Close();
    EXPECT_TRUE(WaitForReceivers(0));
  }
}

TEST_F(DebugServerTest, SendsWhatIsQueuedBeforeItCloses) {
  const auto client = Join();
  const std::string large(kMegabyte, 'x');
  for (int i = 0; i < 20; ++i) m_service.Last()->Send(large);
  m_service.Last()->Close();
  m_service.Last()->Close();
  m_service.Last()->Send("late");
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client->ReceiveFrame().payload.size(), large.size());
  const Frame close = client->ReceiveFrame();
  EXPECT_EQ(close.opcode, 8);
  EXPECT_EQ(close.payload, "\x03\xE8");
  client->SendFrame(close);
  EXPECT_EQ(client->ReceiveFrame().opcode, -1);
  client->Close();
  EXPECT_TRUE(WaitForReceivers(0));
}

// All of them are dropped after about five seconds, at the same time.
TEST_F(DebugServerTest, DropsClientsThatStall) {
  const auto start = std::chrono::steady_clock::now();
  WebClient silent(m_port);
  WebClient half(m_port);
  half.Send("GET /json HTTP/1.1\r\nHost: loc");
  const auto deaf = Join();
  m_service.Last()->Close();
  const auto clogged = Join();
  for (int i = 0; i < 60; ++i) m_service.Last()->Send(std::string(kMegabyte, 'x'));
  m_service.Last()->Close();
  const auto closing = Join();
  closing->SendFrame({1, true, "close"});
  WebClient slow(m_port);
  std::thread trickle([&] {
    for (int i = 0; i < 400 && slow.Send("G"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  ExpectService();
  EXPECT_THAT(silent.ReceiveAll(), IsEmpty());
  EXPECT_THAT(half.ReceiveAll(), IsEmpty());
  EXPECT_TRUE(WaitForReceivers(0));
  trickle.join();
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GT(time, seconds(4));
  EXPECT_LT(time, seconds(15));
}

// Takes a minute.
TEST_F(DebugServerTest, PingsClientsThatKnowPings) {
  const char kOffer[] = "Sec-WebSocket-Extensions: permessage-deflate\r\n";
  WebClient mute(m_port);
  WebClient awake(m_port);
  ASSERT_EQ(mute.Upgrade("/echo", kOffer), 101);
  ASSERT_EQ(awake.Upgrade("/echo", kOffer), 101);
  const auto simple = Join();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(mute.ReceiveFrame().payload, "welcome");
  EXPECT_EQ(awake.ReceiveFrame().payload, "welcome");
  EXPECT_EQ(awake.ReceiveFrame(40).opcode, 9);
  EXPECT_EQ(mute.ReceiveFrame().opcode, 9);
  awake.SendFrame({10, true, ""});
  EXPECT_EQ(mute.ReceiveFrame(40).opcode, -1);
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GT(time, seconds(50));
  EXPECT_LT(time, seconds(70));
  EXPECT_TRUE(WaitForReceivers(2));
  EXPECT_EQ(awake.ReceiveFrame().opcode, 9);
  for (WebClient* const client : {&awake, simple.get()}) {
    client->SendFrame({1, true, "hello"});
    EXPECT_EQ(client->ReceiveFrame().payload, "hello");
  }
}

TEST_F(DebugServerTest, DropsClientsThatReadNothing) {
  const std::string large(kMegabyte, 'x');
  const auto reader = Join();
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 60; ++i) m_service.Last()->Send(large);
    for (int i = 0; i < 60; ++i) ASSERT_EQ(reader->ReceiveFrame().payload.size(), large.size());
  }
  const auto idle = Join();
  for (int i = 0; i < 60; ++i) m_service.Last()->Send(large);
  reader->SendFrame({1, true, "hello"});
  EXPECT_EQ(reader->ReceiveFrame().payload, "hello");
  EXPECT_EQ(m_service.receivers, 2);

  for (int i = 0; i < 60; ++i) m_service.Last()->Send(large);
  EXPECT_TRUE(WaitForReceivers(1));
  m_service.Last()->Send(large);
  ExpectService();
}

TEST_F(DebugServerTest, OutlivesGarbage) {
  std::mt19937 random(20);
  for (int i = 0; i < 200; ++i) {
    WebClient client(m_port);
    if (i % 4 == 1) client.Upgrade("/echo");
    std::string garbage = i % 4 == 2 ? "GET /json HTTP/1.1\r\n" : "";
    for (size_t size = random() % 3000; size > 0; --size) garbage += static_cast<char>(random());
    client.Send(garbage);
    if (i % 2 == 0) client.Reset();
  }
  ExpectService();
  EXPECT_TRUE(WaitForReceivers(0));
}

TEST_F(DebugServerTest, TakesSixteenClients) {
  std::vector<std::unique_ptr<WebClient>> clients(16);
  for (auto& client : clients) client = Join();
  EXPECT_THAT(Ask(Request("GET", "/json")), IsEmpty());
  clients.back()->Close();
  EXPECT_TRUE(WaitFor([&] { return !Ask(Request("GET", "/json")).empty(); }));
  for (size_t i = 0; i < 15; ++i) {
    clients[i]->SendFrame({1, true, "still here"});
    EXPECT_EQ(clients[i]->ReceiveFrame().payload, "still here");
  }
}

TEST_F(DebugServerTest, LetsGoOfClientsThatVanish) {
  void (*const kEndings[])(WebClient*) = {
      [](WebClient* client) { client->Close(); },
      [](WebClient* client) { client->Reset(); },
      [](WebClient* client) { client->Send("\x81\xFE"); },
      [](WebClient* client) {
        client->SendFrame({8, true, "\x03\xE9"});
      },
      [](WebClient* client) {
        client->SendFrame({1, true, "throw"});
      },
  };
  const auto other = Join();
  for (const auto ending : kEndings) {
    auto client = Join();
    const auto connection = m_service.Last();
    ending(client.get());
    client.reset();
    EXPECT_TRUE(WaitForReceivers(1));
    connection->Send("to nobody");
    connection->Close();
  }
  other->SendFrame({1, true, "hello"});
  EXPECT_EQ(other->ReceiveFrame().payload, "hello");
}

TEST_F(DebugServerTest, EndsInTheMiddleOfEverything) {
  WebClient silent(m_port);
  const auto reader = Join();
  const auto connection = m_service.Last();
  const auto idle = Join();
  const auto clogged = m_service.Last();
  std::atomic<bool> done{false};
  std::vector<std::thread> senders;
  for (int i = 0; i < 3; ++i)
    senders.emplace_back([&] {
      while (!done) connection->Send("message");
    });
  for (int i = 0; i < 30; ++i) clogged->Send(std::string(kMegabyte, 'x'));
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(reader->ReceiveFrame().payload, "message");
  m_server.reset();
  EXPECT_EQ(m_service.receivers, 0);
  clogged->Send("late");
  clogged->Close();
  done = true;
  for (std::thread& sender : senders) sender.join();
}

TEST_F(DebugServerTest, NeedsAPortOfItsOwn) {
  EXPECT_EQ(DebugServer::Start(m_port, &m_service), nullptr);
  EXPECT_EQ(DebugServer::Start(0, &m_service), nullptr);
  const auto client = Join();
  m_server.reset();
  m_server = DebugServer::Start(m_port, &m_service);
  ASSERT_NE(m_server, nullptr);
  ExpectService();
  const std::lock_guard<std::mutex> lock(threadNameMutex);
  EXPECT_EQ(threadName, "vorn/debug");
}

TEST_F(DebugServerTest, WaitsForDescriptors) {
  const auto early = Join();
  rlimit usual = {};
  getrlimit(RLIMIT_NOFILE, &usual);
  const int next = dup(0);
  const rlimit none = {static_cast<rlim_t>(next) + 1, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  close(next);
  // Takes the last descriptor, so that the server gets none.
  WebClient waiting(m_port);
  const clock_t before = clock();
  std::this_thread::sleep_for(seconds(1));
  EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 10);
  early->SendFrame({1, true, "hello"});
  EXPECT_EQ(early->ReceiveFrame().payload, "hello");
  EXPECT_EQ(dup(0), -1);
  setrlimit(RLIMIT_NOFILE, &usual);
  waiting.Send(Request("GET", "/json"));
  EXPECT_THAT(waiting.ReceiveAll(), StartsWith("HTTP/1.1 200 "));
}

TEST_F(DebugServerTest, LeavesNothingToChildProcesses) {
  const auto client = Join();
  int sockets = 0;
  DIR* const descriptors = opendir("/proc/self/fd");
  ASSERT_NE(descriptors, nullptr);
  while (const dirent* const entry = readdir(descriptors)) {
    const int descriptor = atoi(entry->d_name);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) continue;
    if (address.sin_family != AF_INET || ntohs(address.sin_port) != m_port) continue;
    ++sockets;
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  }
  closedir(descriptors);
  EXPECT_EQ(sockets, 2);
}

}  // namespace
}  // namespace vnjs::testing
