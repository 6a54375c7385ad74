#pragma once

#include <vnjs/export.h>

#include <string>

namespace vnjs {

/// The one native exception of the library. Natives that scripts call turn it into a script `Error` with the
/// same message, so a host meets it only from functions that it calls itself.
class VNJS_API VornException {
 public:
  /// @{ With its message; a copy has the same.
  explicit VornException(std::string message);
  VornException(const VornException& other);
  /// @}
  VornException& operator=(const VornException&) = delete;
  virtual ~VornException();

  /// Throws a copy of this exception.
  [[noreturn]] virtual void raise();

  /// The message, for as long as this exception lives.
  virtual const std::string& msg() const;

 private:
  const std::string m_message;
};

/// The message of one of the controller's error codes: null for 0, "Unknown error" for a code without one.
/// A static string.
VNJS_API const char* GetVornError(int code);

}  // namespace vnjs
