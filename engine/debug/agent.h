#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "engine/debug/mailbox.h"
#include "engine/debug/server.h"

namespace vnjs {

/// The process's list of targets, and the way of clients to them.
///
/// Owner:    the process, from StartDebugAgent to its end.
/// Threads:  any.
class DebugAgent : public DebugService {
 public:
  /// Null until it was started.
  static DebugAgent* Get();

  /// Returns the id of the target, which nobody can guess.
  std::string Add(const std::string& title, std::shared_ptr<DebugMailbox> mailbox);
  void Remove(const std::string& id);

  std::string ListTargets(const std::string& host) override;
  std::string DescribeVersion() override;
  std::unique_ptr<DebugReceiver> Connect(const std::string& path,
                                         std::shared_ptr<DebugConnection> connection) override;

 private:
  friend bool StartDebugAgent(unsigned short port);

  struct Target {
    std::string title;
    std::shared_ptr<DebugMailbox> mailbox;
  };

  std::mutex m_targetsMutex;
  std::map<std::string, Target> m_targets;
  int m_lastClient = 0;

  std::unique_ptr<DebugServer> m_server;
};

}  // namespace vnjs
