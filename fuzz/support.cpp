#include "fuzz/support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

extern "C" {

/// Freed memory is overwritten, so that the libraries that are not compiled with the sanitizer stumble over it, too.
/// Of the stacks of allocations, each of which is kept for good, it takes only what is above the script.
const char* __asan_default_options() {
  return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1:"
         "max_free_fill_size=65536:free_fill_byte=221:malloc_context_size=8";
}

}  // extern "C"

namespace vnjs::fuzz {

void Break(const std::string& what) {
  fprintf(stderr, "BROKEN: %s\n", what.c_str());
  abort();
}

unsigned Reader::Byte() {
  if (m_rest.empty()) return 0;
  const auto byte = static_cast<unsigned char>(m_rest.front());
  m_rest.remove_prefix(1);
  return byte;
}

uint32_t Reader::Number() {
  const unsigned first = Byte();
  if (first < 192) return first;
  uint32_t number = 0;
  for (unsigned i = 192; i <= first && i < 196; ++i) number = number << 8 | Byte();
  return number;
}

std::string_view Reader::Bytes() {
  const size_t size = Byte();
  const std::string_view bytes = m_rest.substr(0, size);
  m_rest.remove_prefix(bytes.size());
  return bytes;
}

std::u16string Reader::Text() {
  const unsigned head = Byte();
  std::u16string text;
  for (unsigned i = 0; i < head / 2 && !AtEnd(); ++i) {
    unsigned unit = Byte();
    if (head % 2 == 1) unit = unit << 8 | Byte();
    text += static_cast<char16_t>(unit);
  }
  return text;
}

std::string Literal(std::u16string_view text) {
  std::string result = "'";
  for (const char16_t unit : text) {
    if (unit >= ' ' && unit < 0x7f && unit != '\'' && unit != '\\') {
      result += static_cast<char>(unit);
    } else {
      char escape[8];
      snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(unit));
      result += escape;
    }
  }
  return result + "'";
}

std::string AsRead(std::u16string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size() && text[i] != 0; ++i) {
    uint32_t point = text[i];
    const bool pair = (point & 0xfc00) == 0xd800 && i + 1 < text.size() && (text[i + 1] & 0xfc00) == 0xdc00;
    if (pair) point = 0x10000 + ((point & 0x3ff) << 10 | (text[++i] & 0x3ff));
    const int following = point < 0x80 ? 0 : point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    constexpr unsigned kFirst[] = {0, 0xc0, 0xe0, 0xf0};
    result += static_cast<char>(kFirst[following] | point >> 6 * following);
    for (int rest = following - 1; rest >= 0; --rest)
      result += static_cast<char>(0x80 | (point >> 6 * rest & 0x3f));
  }
  return result;
}

std::u16string FromBytes(std::string_view bytes) {
  std::u16string text;
  for (const char byte : bytes) text += static_cast<char16_t>(static_cast<unsigned char>(byte));
  return text;
}

Scripts::Scripts(std::string folder, std::string prelude)
    : m_folder(std::move(folder)), m_prelude(std::move(prelude)) {
  // Threads of the engine would make a finding hard to repeat. Tests of detached buffers need natives.
  v8::V8::SetFlagsFromString("--single-threaded --allow-natives-syntax");
}

void Scripts::NextInput() {
  if (m_automation && m_inputs++ < kMostInputs) return;
  m_inputs = 0;
  m_automation.reset();
  m_automation = std::make_unique<Automation>(m_folder.c_str());
  const RunResult result = Run(m_prelude);
  if (result.isException()) Break(result.result());
}

void Scripts::Expect(const std::string& code, const std::string& expected) {
  const RunResult result = Run(code);
  if (result.isException() || result.result() != expected) {
    Break(code + "\nresult:   " + result.result() + "\nexpected: " + expected);
  }
}

Scope::Scope(Environment* environment)
    : m_isolate(environment->GetIsolate()),
      m_locker(m_isolate),
      m_isolateScope(m_isolate),
      m_handleScope(m_isolate),
      m_context(environment->GetContext()),
      m_contextScope(m_context) {}

Folder::Folder() {
  for (const char* const place : {"/dev/shm/", "/tmp/"}) {
    m_path = std::string(place) + "vnjs-fuzz-XXXXXX";
    if (mkdtemp(m_path.data()) != nullptr) return;
  }
  Break("no place for a folder");
}

Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

void WriteFile(const std::string& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) Break("cannot write " + path);
}

int LowestFreeDescriptor() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(descriptor);
  return descriptor;
}

}  // namespace vnjs::fuzz
