#include <vnjs/error.h>
#include <vnjs/value.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "bridge/native.h"
#include "engine/environment_impl.h"
#include "engine/failure.h"

namespace vnjs {

namespace {

ScriptPosition Position(v8::Local<v8::Context> context, v8::Local<v8::Message> message) {
  if (message.IsEmpty()) return {};
  return {GetText(message->GetScriptResourceName()), message->GetLineNumber(context).FromMaybe(0),
          message->GetStartColumn() + 1};
}

/// The text of a script's result: JSON for all that JSON can say.
std::string ResultText(v8::Local<v8::Context> context, const JsonStringifier& json,
                       v8::Local<v8::Value> value, bool* terminated) {
  if (value.IsEmpty()) return {};
  if (value->IsUndefined()) return "undefined";
  if (value->IsNull()) return "null";
  if (!value->IsFunction()) value = json.Stringify(context, value, terminated);
  // Converted here and not by GetString, which would keep a termination to itself.
  v8::Local<v8::String> text;
  if (value.IsEmpty() || value->IsNullOrUndefined() || !value->ToString(context).ToLocal(&text)) return {};
  return GetText(text);
}

}  // namespace

RunResult EnvironmentImpl::Run(const char* code, const char* source) {
  if (code == nullptr) return {};
  if (source == nullptr) source = "";
  const Caller caller(this);
  if (!OnWorker()) m_guard->Resume();
  if (m_threaded && !OnWorker()) return RunOnWorker(code, source);
  return Execute(PendingCode(code, source));
}

RunResult EnvironmentImpl::RunFile(const char* path) {
  if (path == nullptr) return {};
  const std::string text = ReadFile(path);
  return Run(text.c_str(), path);
}

class EnvironmentImpl::Request {
 public:
  explicit Request(EnvironmentImpl* env) : m_env(env) {
    const QueueLock queueLock(env);
    m_id = ++env->m_lastCodeId;
  }
  /// Code that the worker has not taken by now is never run; a result that comes later is dropped.
  ~Request() {
    const QueueLock queueLock(m_env);
    m_env->m_waiting.erase(m_id);
    m_env->m_results.erase(m_id);
    m_env->m_pendingCode.erase(m_id);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  /// The places for the result come first: the worker has nobody to tell that there is no memory.
  void Queue(PendingCode code) {
    const QueueLock queueLock(m_env);
    m_env->m_waiting[m_id] = true;
    m_env->m_results[m_id] = RunResult();
    m_env->m_pendingCode[m_id] = std::move(code);
  }

  bool TakeResult(RunResult* result) {
    const QueueLock queueLock(m_env);
    if (m_env->m_waiting[m_id]) return false;
    *result = std::move(m_env->m_results[m_id]);
    return true;
  }

 private:
  EnvironmentImpl* const m_env;
  uint32_t m_id = 0;
};

RunResult EnvironmentImpl::RunOnWorker(const char* code, const char* source) {
  Request request(this);
  request.Queue(PendingCode(code, source));

  RunResult result("Code took too long to return result", true);
  bool found = false;
  for (int polls = 0; polls < 100 && !found && !m_ending; ++polls) {
    // Not by usleep, which the host's signals end early.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    found = request.TakeResult(&result);
  }
  return result;
}

RunResult EnvironmentImpl::Execute(const PendingCode& code) {
  Entry entry(this);
  entry.Begin();
  // What came while nobody had the isolate: the engine forgets that it was to interrupt.
  if (m_debugTarget != nullptr && entry.IsOutermost()) m_debugTarget->Dispatch();
  RunResult result;
  try {
    // What a debugger had the environment do may be what was ended.
    result = m_guard->IsStopping() && entry.IsOutermost() ? ExecuteStopped()
                                                          : ExecuteEntered(entry.context(), code);
  } catch (const std::exception&) {
    // The text of the code or of its result is larger than the memory that is left.
    result = RunResult(GetVornError(-2), true);
    LogToHost(3, m_noMemoryForResult, nullptr);
  }
  entry.Settle();
  return result;
}

RunResult EnvironmentImpl::ExecuteEntered(v8::Local<v8::Context> context, const PendingCode& code) {
  if (context.IsEmpty()) return {"Environment is not ready to run code", true};
  // What the result's handles hold does not outlive this, and does not count when the heap is measured.
  const v8::HandleScope scope(m_isolate);
  v8::TryCatch caught(m_isolate);
  // What only we catch, a debugger takes for uncaught.
  caught.SetVerbose(m_debugTarget != nullptr);
  v8::Local<v8::Script> script;
  const bool compiled = m_scripts.Compile(context, code.m_code, code.m_source).ToLocal(&script);
  LogExecuting(code.m_code);
  if (!compiled) {
    if (caught.HasTerminated()) return ExecuteStopped();
    const v8::Local<v8::Message> message = caught.Message();
    const std::string text = message.IsEmpty() ? "the text is too long" : MessageText(caught);
    const ScriptPosition position = Position(context, message);
    Log(4,
        "JavaScript compilation error at " + position.source + ":" + std::to_string(position.line) + ": " +
            StackText(context, caught, text),
        nullptr);
    return {"JavaScript compilation error: " + text, true, position};
  }

  if (m_debugTarget != nullptr) m_debugTarget->OnScriptStart();
  v8::Local<v8::Value> value;
  const bool ended = script->Run(context).ToLocal(&value);
  // The script itself may have returned in time, and what was ended be its microtasks alone.
  if (caught.HasTerminated() || m_isolate->IsExecutionTerminating() || m_guard->IsStopping()) {
    return ExecuteStopped();
  }
  // A debugger can have taken the termination back that it had asked for.
  if (!ended && caught.Message().IsEmpty()) return ExecuteStopped();
  if (!ended) {
    const std::string text = MessageText(caught);
    const ScriptPosition position = Position(context, caught.Message());
    const std::string stack = StackText(context, caught, text);
    // The stack can be a getter of the script's.
    if (m_guard->IsStopping()) return ExecuteStopped();
    Log(3, "result: Error: " + stack, nullptr);
    return {text, true, position};
  }
  bool terminated = false;
  const std::string text = ResultText(context, m_json, value, &terminated);
  if (terminated || caught.HasTerminated() || m_isolate->IsExecutionTerminating()) return ExecuteStopped();
  return {text, false};
}

RunResult EnvironmentImpl::ExecuteStopped() {
  RunResult result = m_guard->Stopped();
  // Code that is nested ends the code around it as well.
  if (m_entries == 1) Log(3, "result: Error: " + StoppedText(result), nullptr);
  return result;
}

void EnvironmentImpl::LogExecuting(const std::string& code) {
  const size_t end = code.find('\n');
  std::string line;
  line.reserve(32 + std::min(end, code.size()));
  line = "Executing script: ";
  line.append(code, 0, end);
  if (end != std::string::npos) line += " ...";
  Log(1, line, nullptr);
}

}  // namespace vnjs
