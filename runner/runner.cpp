#include <vnjs/runner.h>

#include <new>
#include <utility>

#include "runner/runner_core.h"

namespace vnjs {

Runner::Runner(RunnerOptions& options, size_t size)
    : m_core(std::make_shared<detail::RunnerCore>(std::move(options))) {
  // There is only one layout so far.
  static_cast<void>(size);
}

Runner::~Runner() {
  if (m_core->IsOfAnotherProcess()) {
    // Its thread is not here, and its lock may be held for ever.
    static_cast<void>(new (std::nothrow) std::shared_ptr<detail::RunnerCore>(std::move(m_core)));
    return;
  }
  m_core->Leave();
}

void Runner::AddNative(const char* declaration, detail::NativeSignature signature,
                       std::unique_ptr<detail::NativeFunction> function) {
  m_core->Define(declaration, std::move(signature), std::move(function));
}

ScriptError Runner::Start(const char* file) { return m_core->Start(file, nullptr, true); }
ScriptError Runner::StartCode(const char* code, const char* source) {
  return m_core->Start(code, source, false);
}

bool Runner::EmitValues(const std::string& event, Value* arguments, size_t count) {
  return m_core->Push({Event{event, {arguments, count}}, {}});
}

bool Runner::Eval(std::string code, std::string source,
                  std::function<void(const Value&, const ScriptError&)> done) {
  return m_core->Push({Evaluation{std::move(code), std::move(source), std::move(done)}, {}});
}

bool Runner::Post(std::function<void()> function) {
  return function && m_core->Push({Work{std::move(function)}, {}});
}

void Runner::Interrupt() { m_core->Interrupt(); }
ScriptError Runner::Reload(std::chrono::milliseconds grace) { return m_core->Reload(grace); }
void Runner::Stop(std::chrono::milliseconds grace) { m_core->Stop(grace); }

void Runner::FillStatistics(Statistics* statistics, size_t size) const {
  static_cast<void>(size);
  m_core->Fill(statistics);
}

std::string Runner::Declarations() const { return m_core->Declare(); }

}  // namespace vnjs
