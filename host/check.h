#pragma once

#include <string>

namespace vnjs::host {

/// Compiles a file and runs nothing. False when it does not compile, which is reported on standard error with its
/// place. Throws VornException when the file cannot be read.
bool CheckSyntax(const std::string& path);

}  // namespace vnjs::host
