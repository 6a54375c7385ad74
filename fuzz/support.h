// What the fuzz targets have in common.
#pragma once

#include <vnjs/vnjs.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vnjs::fuzz {

/// Ends the process.
[[noreturn]] void Break(const std::string& what);

/// Takes an input apart. There is nothing but zeros behind its end.
class Reader {
 public:
  explicit Reader(std::string_view input) : m_rest(input) {}

  bool AtEnd() const { return m_rest.empty(); }
  unsigned Byte();

  /// From 0 to `end` - 1.
  unsigned Below(unsigned end) { return Byte() % end; }

  /// Any number of 32 bits, but most often a small one.
  uint32_t Number();
  std::string_view Bytes();

  /// Characters of one byte or of two.
  std::u16string Text();

 private:
  std::string_view m_rest;
};

/// The text as a script has it in its source.
std::string Literal(std::u16string_view text);

/// The text as natives read it: in UTF-8, up to its first zero. Half of a surrogate pair is encoded by itself.
std::string AsRead(std::u16string_view text);

std::u16string FromBytes(std::string_view bytes);

/// The environment of many inputs, and another one after so many of them, so that environments also end.
class Scripts {
 public:
  /// `prelude` runs first in each environment.
  Scripts(std::string folder, std::string prelude);

  void NextInput();
  Environment* environment() { return m_automation->GetEnvironment(); }
  RunResult Run(const std::string& code) { return m_automation->Run(code.c_str(), "input"); }

  /// Breaks when the script throws or has another result.
  void Expect(const std::string& code, const std::string& expected);

 private:
  static constexpr int kMostInputs = 200;

  const std::string m_folder;
  const std::string m_prelude;
  int m_inputs = 0;
  std::unique_ptr<Automation> m_automation;
};

/// All that it takes to use an environment's engine.
class Scope {
 public:
  explicit Scope(Environment* environment);
  v8::Isolate* isolate() const { return m_isolate; }
  v8::Local<v8::Context> context() const { return m_context; }

 private:
  v8::Isolate* const m_isolate;
  const v8::Locker m_locker;
  const v8::Isolate::Scope m_isolateScope;
  const v8::HandleScope m_handleScope;
  const v8::Local<v8::Context> m_context;
  const v8::Context::Scope m_contextScope;
};

/// A folder of our own, in memory where possible: files are flushed after each change.
class Folder {
 public:
  Folder();
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return m_path; }

 private:
  std::string m_path;
};

void WriteFile(const std::string& path, std::string_view content);

/// Every descriptor that is left open makes it rise sooner or later.
int LowestFreeDescriptor();

}  // namespace vnjs::fuzz
