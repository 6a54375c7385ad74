#include <vnjs/result.h>
#include <vnjs/value.h>

#include <utility>

namespace vnjs {

PendingCode::PendingCode(std::string code, std::string source)
    : m_code(std::move(code)), m_source(std::move(source)) {}

PendingCode PendingCode::FromFile(const char* path) {
  return PendingCode(ReadFile(path), path == nullptr ? "" : path);
}

RunResult::RunResult(std::string result, bool isException) : RunResult(std::move(result), isException, {}) {}

RunResult::RunResult(std::string result, bool isException, ScriptPosition position)
    : m_result(std::move(result)), m_isException(isException), m_position(std::move(position)) {}

}  // namespace vnjs
