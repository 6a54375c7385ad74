#include <vnjs/error.h>

#include <utility>

namespace vnjs {

VornException::VornException(std::string message) : m_message(std::move(message)) {}
VornException::VornException(const VornException& other) = default;
VornException::~VornException() = default;

void VornException::raise() { throw VornException(*this); }

const std::string& VornException::msg() const { return m_message; }

const char* GetVornError(int code) {
  switch (code) {
    case 0:
      return nullptr;
    case -1:
      return "Invalid argument";
    case -2:
      return "Bad allocation";
    case -3:
      return "Method not implemented";
    case -4:
      return "Operation not supported";
    case -5:
      return "Access denied";
    case -6:
      return "Threading error";
    case -7:
      return "Invalid operation";
    case -8:
      return "Internal error";
    case -9:
      return "Bad data - communication failed";
    case -10:
      return "Invalid data type";
    case -12:
      return "Object accessed from invalid thread";
    case -20:
      return "Invalid port";
    case -21:
      return "Invalid config";
    case -30:
      return "Job not found";
    case -31:
      return "Job already queued";
    case -32:
      return "Duplicate object";
    case -40:
      return "Packet is too big to be encapsulated";
    default:
      return "Unknown error";
  }
}

}  // namespace vnjs
