// What the fuzz targets have in common: environments in which a target's script says what an input means.
#pragma once

#include <vnjs/vnjs.h>

#include <string>
#include <utility>
#include <vector>

namespace vnjs::fuzz {

using Info = v8::FunctionCallbackInfo<v8::Value>;

/// What a target has beside its script: a storage directory, what the script can call, and paths that nobody may open
/// or change.
struct Target {
  std::string folder;
  std::vector<std::pair<const char*, v8::FunctionCallback>> natives;
  std::vector<std::string> forbidden;
  void (*afterEnvironment)() = [] {};
};

/// Called once; each target has its own.
Target MakeTarget();

/// Ends the process.
[[noreturn]] void Break(const std::string& what);

/// Bytes are strings to scripts, with a character for each.
std::string GetBytes(v8::Local<v8::Value> value);
void ReturnBytes(const Info& info, const std::string& bytes);

}  // namespace vnjs::fuzz
