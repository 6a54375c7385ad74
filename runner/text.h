#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vnjs {

/// What a text of a Value is. Lone surrogates stand as the three bytes that UTF-8 would have for them; two halves of a pair
/// beside each other, which is one character in four bytes, are invalid.
enum class TextKind { kAscii, kUtf8, kWithSurrogates, kInvalid };

TextKind KindOf(std::string_view text);

/// Of a text that is not invalid.
std::u16string ToUtf16(std::string_view text);

/// The code point at `place`, which moves behind it; text that is not invalid.
char32_t NextCodePoint(std::string_view text, size_t* place);

/// A surrogate becomes its three bytes.
void AppendUtf8(std::string* text, char32_t codePoint);

inline bool IsAscii(const char* data, size_t size) {
  unsigned char all = 0;
  for (size_t i = 0; i < size; ++i) all |= static_cast<unsigned char>(data[i]);
  return all < 0x80;
}

}  // namespace vnjs
