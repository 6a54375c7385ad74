#include <vnjs/automation.h>

#include "engine/environment_impl.h"

namespace vnjs {

bool Automation::m_debug = false;

Automation::Automation(const char* storageDir)
    : m_environment(new EnvironmentImpl(storageDir, Automation::m_debug)) {}

Automation::~Automation() {
  delete m_environment;
  m_environment = nullptr;
}

RunResult Automation::Run(const char* code, const char* source) { return m_environment->Run(code, source); }
RunResult Automation::RunFile(const char* path) { return m_environment->RunFile(path); }
void Automation::StartThread() { m_environment->StartThread(); }
void Automation::StopThread() { m_environment->StopThread(); }
bool Automation::IsThreaded() const { return m_environment->IsThreaded(); }
bool Automation::IsTerminating() const { return m_environment->IsTerminating(); }
bool Automation::ProcessPendingCallbacks() { return m_environment->ProcessPendingCallbacks(); }
std::string Automation::StorageDir() const { return m_environment->StorageDir(); }
_VNLog* Automation::GetLogger() const { return m_environment->GetLogger(); }
void Automation::SetLogger(_VNLog* logger) { m_environment->SetLogger(logger); }

bool Automation::HasPendingWork() const {
  return static_cast<EnvironmentImpl*>(m_environment)->HasPendingWork();
}

bool Automation::IsMemoryFull() const {
  return static_cast<EnvironmentImpl*>(m_environment)->GetRunGuard().IsFull();
}

std::vector<std::string> Automation::PendingWork() const {
  return static_cast<EnvironmentImpl*>(m_environment)->PendingWork();
}

void Automation::Interrupt() { static_cast<EnvironmentImpl*>(m_environment)->Interrupt(); }

void Automation::SetLimits(size_t heapBytes, size_t bufferBytes) {
  EnvironmentImpl::SetLimits(heapBytes, bufferBytes);
}

void Automation::EnableDebug(unsigned short port) {
  if (m_debug) return;
  m_debug = StartDebugAgent(port);
  if (m_debug) EnvironmentImpl::ProvideCurrentIsolate();
}

bool Automation::WaitForDebugger(unsigned int milliseconds) {
  return static_cast<EnvironmentImpl*>(m_environment)
      ->WaitForDebugger(std::chrono::milliseconds(milliseconds));
}

}  // namespace vnjs
