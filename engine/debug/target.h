#pragma once

#include <v8-inspector.h>
#include <v8.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "engine/debug/debugger.h"
#include "engine/debug/mailbox.h"

namespace vnjs {

/// A target served by the engine's inspector.
///
/// What clients send reaches the isolate in one of three ways: while script code runs, the engine interrupts it;
/// while nothing runs, the target's thread takes the isolate; while a client has the script paused, the paused
/// thread reads its mail itself.
class InspectedTarget final : public DebugTarget, private v8_inspector::V8InspectorClient {
 public:
  explicit InspectedTarget(EnvironmentImpl* env);
  ~InspectedTarget() override;

  void Dispatch() override;
  void OnScriptStart() override;
  void Log(int level, const std::string& text) override;
  bool WaitForClient(std::chrono::milliseconds time, const std::function<void()>& dispatch) override;
  bool IsWatched() const override { return !m_sessions.empty(); }
  void Hold() override { ++m_holds; }
  void Unhold() override;
  void OnThreadEnd() override;
  void SetReleased(bool released) override;
  void Wake() override;
  void Close() override;
  void Join() override;

 private:
  class Session;

  void Handle(DebugMessage message);
  bool IsIdle() const;
  void HandleText(Session& session, const std::string& text);
  void DropGoneSessions();
  static void* ThreadFunc(void* target);

  void runMessageLoopOnPause(int group) override;
  void quitMessageLoopOnPause() override;
  void runIfWaitingForDebugger(int group) override;
  v8::Local<v8::Context> ensureDefaultContextInGroup(int group) override;
  std::unique_ptr<v8_inspector::StringBuffer> resourceNameToUrl(
      const v8_inspector::StringView& name) override;
  double currentTimeMS() override;

  EnvironmentImpl* const m_env;
  v8::Isolate* const m_isolate;
  const std::shared_ptr<DebugMailbox> m_mailbox;
  unsigned long m_thread = 0;

  /// Of the context, for the inspector and for lines of the log.
  int m_contextId = 0;
  std::string m_id;

  /// Code may be running that a client has sent.
  std::atomic<bool> m_runsClientCode{false};

  // Guarded by the isolate's Locker.
  std::unique_ptr<v8_inspector::V8Inspector> m_inspector;
  std::map<int, std::unique_ptr<Session>> m_sessions;
  bool m_paused = false;
  /// The script below is about to end because a client wants it. Mail waits until it has: the engine crashes at some
  /// commands meanwhile.
  bool m_terminating = false;
  bool m_clientReady = false;
  int m_holds = 0;
};

}  // namespace vnjs
