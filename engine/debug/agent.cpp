#include "engine/debug/agent.h"

#include <sys/random.h>

#include <atomic>
#include <csignal>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "engine/debug/debugger.h"
#include "version_record.h"

namespace vnjs {

namespace {

std::atomic<DebugAgent*> g_agent{nullptr};

/// A random UUID, version 4.
std::string NewId() {
  unsigned char bytes[16] = {};
  size_t filled = 0;
  while (filled < sizeof bytes) {
    const ssize_t got = getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (got > 0) filled += static_cast<size_t>(got);
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string id;
  for (size_t i = 0; i < sizeof bytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) id += '-';
    id += kDigits[bytes[i] >> 4];
    id += kDigits[bytes[i] & 0x0F];
  }
  return id;
}

/// Puts what a client does into the mailbox of its target.
class Client : public DebugReceiver {
 public:
  Client(std::shared_ptr<DebugMailbox> mailbox, int id) : m_mailbox(std::move(mailbox)), m_id(id) {}
  ~Client() override { m_mailbox->Post({DebugMessage::kDisconnect, m_id, {}, nullptr}); }
  void OnMessage(std::string message) override {
    // The server ends the client for it. A target that ends does so itself, and says why.
    if (!m_mailbox->Post({DebugMessage::kText, m_id, std::move(message), nullptr}) &&
        !m_mailbox->IsClosed()) {
      throw std::length_error("too much mail");
    }
  }

 private:
  const std::shared_ptr<DebugMailbox> m_mailbox;
  const int m_id;
};

}  // namespace

DebugAgent* DebugAgent::Get() { return g_agent; }

std::string DebugAgent::Add(const std::string& title, std::shared_ptr<DebugMailbox> mailbox) {
  std::string id = NewId();
  const std::lock_guard<std::mutex> lock(m_targetsMutex);
  m_targets[id] = {title, std::move(mailbox)};
  return id;
}

void DebugAgent::Remove(const std::string& id) {
  const std::lock_guard<std::mutex> lock(m_targetsMutex);
  m_targets.erase(id);
}

std::string DebugAgent::ListTargets(const std::string& host) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  const std::lock_guard<std::mutex> lock(m_targetsMutex);
  for (const auto& [id, target] : m_targets) {
    std::string address = host;
    address.append("/").append(id);
    list.push_back({{"description", "vnjs environment"},
                    {"devtoolsFrontendUrl",
                     "devtools://devtools/bundled/js_app.html?experiments=true&v8only=true&ws=" + address},
                    {"id", id},
                    {"title", target.title},
                    {"type", "node"},
                    {"url", "file://" + target.title},
                    {"webSocketDebuggerUrl", "ws://" + address}});
  }
  // The title is a path, which need not be UTF-8.
  return list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string DebugAgent::DescribeVersion() {
  return nlohmann::ordered_json{{"Browser", "vorn/" VNJS_RELEASE}, {"Protocol-Version", "1.3"}}.dump(2);
}

std::unique_ptr<DebugReceiver> DebugAgent::Connect(const std::string& path,
                                                   std::shared_ptr<DebugConnection> connection) {
  const std::lock_guard<std::mutex> lock(m_targetsMutex);
  const auto found = m_targets.find(path);
  if (found == m_targets.end()) return nullptr;
  const std::shared_ptr<DebugMailbox>& mailbox = found->second.mailbox;
  const int client = ++m_lastClient;
  if (!mailbox->Post({DebugMessage::kConnect, client, {}, std::move(connection)})) return nullptr;
  return std::make_unique<Client>(mailbox, client);
}

bool StartDebugAgent(unsigned short port) {
  // Never destroyed: environments may end after everything that is destroyed at the process's end.
  auto agent = std::make_unique<DebugAgent>();
  agent->m_server = DebugServer::Start(port, agent.get());
  if (agent->m_server == nullptr) return false;
  // When a profile ends, the engine puts back what it has found here while a last signal may be on its way.
  struct sigaction action {};
  if (sigaction(SIGPROF, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) signal(SIGPROF, SIG_IGN);
  g_agent = agent.release();
  return true;
}

}  // namespace vnjs
