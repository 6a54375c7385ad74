#include "engine/debug/mailbox.h"

#include <algorithm>
#include <utility>

namespace vnjs {

namespace {

/// The lines of the log that a client sees which comes late.
constexpr size_t kKeptLines = 200;

/// How much may wait while nobody can read, as during a long command: twice the longest message.
constexpr size_t kMostBytes = 32 * 1024 * 1024;

/// Messages without a text take memory too.
size_t CostOf(const DebugMessage& message) { return sizeof message + message.text.size(); }

}  // namespace

DebugMailbox::DebugMailbox(v8::Isolate* isolate, v8::InterruptCallback interrupt)
    : m_isolate(isolate), m_interrupt(interrupt) {}

bool DebugMailbox::Post(DebugMessage message) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_closed) return false;
  if (message.kind == DebugMessage::kDisconnect && RemoveMailOf(message.client)) return true;
  const size_t cost = CostOf(message);
  if (message.kind == DebugMessage::kText && cost > kMostBytes - m_bytes) return false;
  m_bytes += cost;
  m_messages.push_back(std::move(message));
  m_changed.notify_all();
  m_isolate->RequestInterrupt(m_interrupt, nullptr);
  return true;
}

bool DebugMailbox::RemoveMailOf(int client) {
  bool isNew = false;
  const auto end = std::remove_if(m_messages.begin(), m_messages.end(),
                                  [this, client, &isNew](const DebugMessage& message) {
                                    if (message.client != client) return false;
                                    isNew |= message.kind == DebugMessage::kConnect;
                                    m_bytes -= CostOf(message);
                                    return true;
                                  });
  m_messages.erase(end, m_messages.end());
  return isNew;
}

bool DebugMailbox::Take(DebugMessage* message) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_messages.empty()) return false;
  *message = std::move(m_messages.front());
  m_messages.pop_front();
  m_bytes -= CostOf(*message);
  return true;
}

bool DebugMailbox::Wait(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, time, [this] { return m_closed || !m_messages.empty(); }) &&
         !m_messages.empty();
}

bool DebugMailbox::WaitForMailOrClose() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait(lock, [this] { return m_closed || !m_messages.empty(); });
  return !m_closed;
}

bool DebugMailbox::WaitWhilePaused() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait(lock, [this] { return m_closed || m_released || m_woken || !m_messages.empty(); });
  m_woken = false;
  return !m_closed && !m_released;
}

void DebugMailbox::Wake() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_woken = true;
  m_changed.notify_all();
}

void DebugMailbox::SetReleased(bool released) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_released = released;
  m_changed.notify_all();
}

void DebugMailbox::Close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_closed = true;
  m_changed.notify_all();
}

bool DebugMailbox::IsClosed() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_closed;
}

void DebugMailbox::Log(std::string line) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  for (const auto& listener : m_listeners) listener->Send(line);
  m_lines.push_back(std::move(line));
  if (m_lines.size() > kKeptLines) m_lines.pop_front();
}

void DebugMailbox::Listen(const std::shared_ptr<DebugConnection>& connection) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (std::find(m_listeners.begin(), m_listeners.end(), connection) != m_listeners.end()) return;
  for (const std::string& line : m_lines) connection->Send(line);
  m_listeners.push_back(connection);
}

void DebugMailbox::Forget(const std::shared_ptr<DebugConnection>& connection) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_listeners.erase(std::remove(m_listeners.begin(), m_listeners.end(), connection), m_listeners.end());
}

}  // namespace vnjs
