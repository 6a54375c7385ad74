#pragma once

#include <v8.h>

#include <array>
#include <cstdint>
#include <string>

namespace vnjs {

/// Compiled scripts of one context, by text and source name: hosts run the same small texts again and again.
///
/// Bounds:   the kScripts texts used last, of at most kLongestText bytes, from their second use on; everything else is
///           compiled each time and not kept.
/// Threads:  under the isolate's lock.
class ScriptStore {
 public:
  /// Compiles the text, which ends at its first NUL, or finds it compiled. An empty handle, with what went
  /// wrong pending, when it does not compile; with nothing pending when it is longer than a script string can
  /// be.
  v8::MaybeLocal<v8::Script> Compile(v8::Local<v8::Context> context, const std::string& text,
                                     const std::string& source);
  void Clear();

 private:
  static constexpr size_t kScripts = 32;
  static constexpr size_t kLongestText = 4096;

  struct Entry {
    size_t hash = 0;
    uint64_t lastUse = 0;

    // From the second use on.
    std::string text;
    std::string source;
    v8::Global<v8::Script> script;
  };

  std::array<Entry, kScripts> m_entries;
  uint64_t m_uses = 0;
};

}  // namespace vnjs
