#include "engine/debug/target.h"

#include <vnjs/thread.h>

#include <boost/locale/encoding_utf.hpp>
#include <cctype>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <utility>

#include "engine/debug/agent.h"
#include "engine/debug/inspector_api.h"
#include "engine/environment_impl.h"

namespace vnjs {

namespace {

using v8_inspector::StringBuffer;
using v8_inspector::StringView;

/// A longer line of the log is cut: the last ones are kept for clients that come later.
constexpr size_t kLongestLine = 4096;

/// The longest answer that is worth making, in characters. The server would not take it.
constexpr size_t kLongestAnswer = 64 * 1024 * 1024;

/// Contexts of a group are debugged together; an environment has one context.
constexpr int kGroup = 1;

/// How long the thread that runs scripts has to read its mail: its next turn comes after 10 ms.
constexpr std::chrono::milliseconds kPatience(50);

/// How long the end of an environment waits for a client that reads slowly.
constexpr std::chrono::milliseconds kFarewell(100);

StringView ToView(const std::string& ascii) {
  return {reinterpret_cast<const uint8_t*>(ascii.data()), ascii.size()};
}

StringView ToView(const std::u16string& text) {
  return {reinterpret_cast<const uint16_t*>(text.data()), text.size()};
}

std::u16string ToUtf16(const std::string& text) {
  return boost::locale::conv::utf_to_utf<char16_t>(text.data(), text.data() + text.size());
}

/// The engine's 8-bit texts are Latin-1.
std::string ToUtf8(const StringView& view) {
  const std::u16string text = view.is8Bit()
                                  ? std::u16string(view.characters8(), view.characters8() + view.length())
                                  : std::u16string(view.characters16(), view.characters16() + view.length());
  return boost::locale::conv::utf_to_utf<char>(text.data(), text.data() + text.size());
}

double NowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// How a level of the log looks in a console.
const char* ConsoleType(int level) {
  if (level <= 0) return "debug";
  return level == 1 ? "log" : level == 2 ? "warning" : "error";
}

/// What a message asks for; empty for long ones, none of which we look at.
std::string MethodOf(const std::string& message) {
  constexpr size_t kLong = 1024;
  if (message.size() > kLong) return {};
  const nlohmann::json parsed = nlohmann::json::parse(message, nullptr, false);
  const auto method = parsed.is_object() ? parsed.find("method") : parsed.end();
  return method != parsed.end() && method->is_string() ? method->get<std::string>() : std::string();
}

void OnInterrupt(v8::Isolate*, void*) { EnvironmentImpl::DispatchDebugMessages(); }

}  // namespace

/// One client of a target.
class InspectedTarget::Session : public v8_inspector::V8Inspector::Channel {
 public:
  Session(v8_inspector::V8Inspector* inspector, std::shared_ptr<DebugConnection> connection)
      : m_connection(std::move(connection)), m_session(ConnectToInspector(inspector, kGroup, this)) {}

  /// Handling a message may take as long as a pause. Until it has ended, the session must stay.
  void Dispatch(const std::string& message) {
    const std::u16string text = ToUtf16(message);
    ++m_dispatching;
    m_session->dispatchProtocolMessage(ToView(text));
    --m_dispatching;
  }

  /// Asks something that the client has not asked, and does not get the answer to.
  void Command(const char* message) {
    m_ownCommand = true;
    Dispatch(message);
    m_ownCommand = false;
  }

  /// The client has gone: nothing pauses for it any more, and what it has paused goes on.
  void Leave() {
    m_gone = true;
    Command(R"({"id":0,"method":"Debugger.disable"})");
  }

  bool IsGone() const { return m_gone; }
  bool CanBeDropped() const { return m_gone && m_dispatching == 0; }
  const std::shared_ptr<DebugConnection>& connection() const { return m_connection; }
  /// A profile is one of the thread that was asked for it, and is wanted of the one that runs scripts.
  void NoteProfile(const std::string& method) {
    if (method == "Profiler.start") m_profiled = pthread_self();
    if (method == "Profiler.stop" || method == "Profiler.disable") m_profiled = 0;
  }
  void MoveProfile() {
    if (m_profiled == 0 || m_profiled == pthread_self()) return;
    Command(R"({"id":0,"method":"Profiler.stop"})");
    Command(R"({"id":0,"method":"Profiler.start"})");
    m_profiled = pthread_self();
  }
  /// The client wants the next code to stop, whatever it is.
  void PauseAtStart() { m_pausesAtStart = true; }
  void OnScriptStart() {
    MoveProfile();
    if (std::exchange(m_pausesAtStart, false)) {
      // What it remembers of an earlier wish would keep the engine from taking this one.
      m_session->cancelPauseOnNextStatement();
      m_session->schedulePauseOnNextStatement(ToView(std::string("Break on start")), {});
    }
  }

  void sendResponse(int, std::unique_ptr<StringBuffer> message) override {
    if (!m_ownCommand) Send(message->string());
  }
  void sendNotification(std::unique_ptr<StringBuffer> message) override { Send(message->string()); }
  void flushProtocolNotifications() override {}

 private:
  /// The engine's frames, which nothing may be thrown through, are around it.
  void Send(const StringView& message) {
    try {
      if (message.length() > kLongestAnswer) throw std::length_error("answer");
      m_connection->Send(ToUtf8(message));
    } catch (const std::exception&) {
      m_connection->Close();
    }
  }

  const std::shared_ptr<DebugConnection> m_connection;
  const std::unique_ptr<v8_inspector::V8InspectorSession> m_session;
  int m_dispatching = 0;
  bool m_gone = false;
  bool m_ownCommand = false;
  bool m_pausesAtStart = false;
  unsigned long m_profiled = 0;
};

InspectedTarget::InspectedTarget(EnvironmentImpl* env)
    : m_env(env),
      m_isolate(env->GetIsolate()),
      m_mailbox(std::make_shared<DebugMailbox>(m_isolate, OnInterrupt)),
      m_inspector(v8_inspector::V8Inspector::create(m_isolate, this)) {
  const v8::Local<v8::Context> context = env->GetContext();
  const std::u16string name = ToUtf16(env->StorageDir());
  const std::string auxiliary = R"({"isDefault":true})";
  VCreateThread(ThreadFunc, this, &m_thread);
  v8_inspector::V8ContextInfo info(context, kGroup, ToView(name));
  info.auxData = ToView(auxiliary);
  m_inspector->contextCreated(info);
  m_contextId = v8_inspector::V8ContextInfo::executionContextId(context);
  // From here on clients come; they wait for the isolate.
  m_id = DebugAgent::Get()->Add(env->StorageDir(), m_mailbox);
}

InspectedTarget::~InspectedTarget() {
  const auto dismiss = [](DebugConnection& connection) {
    connection.Send(R"({"method":"Inspector.detached","params":{"reason":"target_closed"}})");
    connection.Close();
  };
  for (const auto& [client, session] : m_sessions) dismiss(*session->connection());
  // Those that came at the last moment.
  DebugMessage message;
  while (m_mailbox->Take(&message)) {
    if (message.connection != nullptr) dismiss(*message.connection);
  }
  // The process may end next, and clients would not hear of it.
  for (const auto& [client, session] : m_sessions) session->connection()->WaitUntilSent(kFarewell);
  m_sessions.clear();
  m_inspector->contextDestroyed(m_env->GetContext());
}

void InspectedTarget::Close() {
  DebugAgent::Get()->Remove(m_id);
  m_mailbox->Close();
  // What a client has set going need not end by itself.
  if (m_runsClientCode) m_isolate->TerminateExecution();
}

void InspectedTarget::SetReleased(bool released) { m_mailbox->SetReleased(released); }

void InspectedTarget::Wake() { m_mailbox->Wake(); }

void InspectedTarget::OnThreadEnd() {
  for (const auto& [client, session] : m_sessions)
    session->Command(R"({"id":0,"method":"Profiler.disable"})");
}

void InspectedTarget::Join() { VJoinThread(&m_thread); }

void* InspectedTarget::ThreadFunc(void* target) {
  auto* const self = static_cast<InspectedTarget*>(target);
  set_thread_name("vorn/debug");
  bool hasEntered = false;
  while (self->m_mailbox->WaitForMailOrClose()) {
    // The thread that runs the scripts goes first: a profile is one of the thread that started it.
    std::this_thread::sleep_for(kPatience);
    if (!self->m_mailbox->Wait(std::chrono::milliseconds(0))) continue;
    hasEntered = self->m_env->GetObserver() == nullptr;
    self->m_env->ProcessDebugMessages();
  }
  // A host may hold the isolate's Locker where it destroys the environment.
  if (hasEntered) self->m_env->LeaveDebugThread();
  return nullptr;
}

void InspectedTarget::Dispatch() {
  if (IsIdle()) m_terminating = false;
  DebugMessage message;
  while (m_holds == 0 && !m_terminating && !m_env->GetRunGuard().IsStopping() && m_mailbox->Take(&message)) {
    Handle(std::move(message));
  }
}

bool InspectedTarget::IsIdle() const {
  const v8::HandleScope handleScope(m_isolate);
  return v8::StackTrace::CurrentStackTrace(m_isolate, 1)->GetFrameCount() == 0;
}

void InspectedTarget::OnScriptStart() {
  m_terminating = false;
  for (const auto& [client, session] : m_sessions) session->OnScriptStart();
}

void InspectedTarget::Unhold() {
  // What the engine was to interrupt for may have been read in vain.
  if (--m_holds == 0) m_isolate->RequestInterrupt(OnInterrupt, nullptr);
}

void InspectedTarget::Handle(DebugMessage message) {
  const v8::HandleScope handleScope(m_isolate);
  if (message.kind == DebugMessage::kConnect) {
    m_sessions[message.client] = std::make_unique<Session>(m_inspector.get(), std::move(message.connection));
    return;
  }
  const auto found = m_sessions.find(message.client);
  if (found == m_sessions.end()) return;
  Session& session = *found->second;
  if (message.kind == DebugMessage::kText) {
    const bool wasClientCode = m_runsClientCode.exchange(true);
    try {
      // Close ends what runs, so nothing begins after it.
      if (!m_mailbox->IsClosed()) HandleText(session, message.text);
    } catch (const std::exception&) {
      // No memory for what the client wants. What it leaves behind is seen to when it has gone.
      session.connection()->Close();
    }
    m_runsClientCode = wasClientCode;
    // A termination ends the client's code alone, and what that has interrupted, another's or the script, is to end too.
    if (wasClientCode && m_mailbox->IsClosed()) m_isolate->TerminateExecution();
    m_env->GetRunGuard().StopAgain();
    // The engine asks those that watch the heap from the last one on, and its debugger may have come.
    m_env->GetRunGuard().WatchHeap();
  } else {
    m_mailbox->Forget(session.connection());
    session.Leave();
  }
  DropGoneSessions();
}

void InspectedTarget::HandleText(Session& session, const std::string& text) {
  const std::string method = MethodOf(text);
  const bool isIdle = IsIdle();
  session.Dispatch(text);
  if (method == "Runtime.terminateExecution" && !isIdle && !m_paused) m_terminating = true;
  session.NoteProfile(method);
  if (method == "Debugger.pause" && isIdle) session.PauseAtStart();
  if (method == "Runtime.enable" && !session.IsGone()) m_mailbox->Listen(session.connection());
}

void InspectedTarget::DropGoneSessions() {
  bool isWatched = false;
  for (auto entry = m_sessions.begin(); entry != m_sessions.end();) {
    isWatched |= !entry->second->IsGone();
    // Its end resumes what it alone has paused.
    entry = entry->second->CanBeDropped() ? m_sessions.erase(entry) : std::next(entry);
  }
  // What a client has run itself may have paused, and the client gone.
  if (!isWatched) m_paused = m_clientReady = false;
}

void InspectedTarget::Log(int level, const std::string& text) {
  const nlohmann::json line = {{"method", "Runtime.consoleAPICalled"},
                               {"params",
                                {{"type", ConsoleType(level)},
                                 {"args", {{{"type", "string"}, {"value", text.substr(0, kLongestLine)}}}},
                                 {"executionContextId", m_contextId},
                                 {"timestamp", NowMs()}}}};
  m_mailbox->Log(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

bool InspectedTarget::WaitForClient(std::chrono::milliseconds time, const std::function<void()>& dispatch) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (!m_clientReady && !m_mailbox->IsClosed()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (m_mailbox->Wait(left)) dispatch();
  }
  for (const auto& [client, session] : m_sessions) session->PauseAtStart();
  return m_clientReady;
}

void InspectedTarget::runMessageLoopOnPause(int) {
  m_paused = true;
  m_env->GetRunGuard().HoldTime();
  while (m_paused && !m_env->GetRunGuard().IsStopping() && m_mailbox->WaitWhilePaused()) {
    DebugMessage message;
    while (m_paused && !m_env->GetRunGuard().IsStopping() && m_mailbox->Take(&message))
      Handle(std::move(message));
  }
  m_paused = false;
  m_env->GetRunGuard().ReleaseTime();
}

void InspectedTarget::quitMessageLoopOnPause() { m_paused = false; }

void InspectedTarget::runIfWaitingForDebugger(int) { m_clientReady = true; }

v8::Local<v8::Context> InspectedTarget::ensureDefaultContextInGroup(int) { return m_env->GetContext(); }

/// Tools look for source maps and folders beside addresses, not beside paths.
std::unique_ptr<StringBuffer> InspectedTarget::resourceNameToUrl(const StringView& name) {
  const std::string path = ToUtf8(name);
  if (path.empty() || path[0] != '/') return nullptr;
  std::string url = "file://";
  for (const char c : path) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    if (isalnum(byte) != 0 || strchr("/-_.~!$&'()*+,;=:@", c) != nullptr) {
      url += c;
    } else {
      url += {'%', kDigits[byte / 16], kDigits[byte % 16]};
    }
  }
  return StringBuffer::create(ToView(url));
}

double InspectedTarget::currentTimeMS() { return NowMs(); }

std::unique_ptr<DebugTarget> NewDebugTarget(EnvironmentImpl* env) {
  if (DebugAgent::Get() == nullptr) return nullptr;
  return std::make_unique<InspectedTarget>(env);
}

}  // namespace vnjs
