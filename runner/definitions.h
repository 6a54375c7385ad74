#pragma once

#include <v8.h>
#include <vnjs/native_function.h>

#include <memory>
#include <string>
#include <vector>

namespace vnjs {

class RunnerEnvironment;

/// One function that the host has defined.
struct Definition {
  std::string name;                     ///< "lamp.set"
  std::vector<std::string> path;        ///< "lamp", "set"
  std::vector<std::string> parameters;  ///< "id", "level"
  detail::NativeSignature signature;
  std::unique_ptr<detail::NativeFunction> function;

  /// Whose scripts see it now.
  RunnerEnvironment* environment = nullptr;
};

/// The functions that a host has defined for one runner.
///
/// Threads:  changed before the runner starts, used on its thread, cleared there.
class Definitions {
 public:
  /// Throws VornException.
  void Add(const char* declaration, detail::NativeSignature signature,
           std::unique_ptr<detail::NativeFunction> function);

  /// Puts all into the context's global object. Throws VornException when something is in their way.
  void Install(v8::Local<v8::Context> context, RunnerEnvironment* environment);

  /// The host's functions go.
  void Clear() { m_definitions.clear(); }

  /// TypeScript.
  std::string Declare() const;

 private:
  std::vector<std::unique_ptr<Definition>> m_definitions;
};

}  // namespace vnjs
