#include "runner/text.h"

namespace vnjs {

namespace {

constexpr char32_t kNone = 0xFFFFFFFF;

bool IsHigh(char32_t c) { return c >= 0xD800 && c < 0xDC00; }
bool IsLow(char32_t c) { return c >= 0xDC00 && c < 0xE000; }

/// The code point at `place`, which moves behind it; kNone when there is none.
char32_t Decode(std::string_view text, size_t* place) {
  const auto first = static_cast<unsigned char>(text[*place]);
  if (first < 0x80) return ++*place, first;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || length > text.size() - *place) return kNone;
  char32_t result = first & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[*place + i]);
    if ((next & 0xC0U) != 0x80) return kNone;
    result = result << 6 | (next & 0x3FU);
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (result < kLeast[length] || result > 0x10FFFF) return kNone;
  *place += length;
  return result;
}

}  // namespace

TextKind KindOf(std::string_view text) {
  if (IsAscii(text.data(), text.size())) return TextKind::kAscii;
  TextKind kind = TextKind::kUtf8;
  char32_t before = 0;
  for (size_t place = 0; place < text.size();) {
    const char32_t c = Decode(text, &place);
    if (c == kNone || (IsHigh(before) && IsLow(c))) return TextKind::kInvalid;
    if (IsHigh(c) || IsLow(c)) kind = TextKind::kWithSurrogates;
    before = c;
  }
  return kind;
}

char32_t NextCodePoint(std::string_view text, size_t* place) { return Decode(text, place); }

std::u16string ToUtf16(std::string_view text) {
  std::u16string result;
  result.reserve(text.size());
  for (size_t place = 0; place < text.size();) {
    const char32_t c = Decode(text, &place);
    if (c < 0x10000) {
      result += static_cast<char16_t>(c);
    } else {
      result += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
      result += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
  }
  return result;
}

void AppendUtf8(std::string* text, char32_t c) {
  const auto add = [text](char32_t byte) { *text += static_cast<char>(static_cast<unsigned char>(byte)); };
  if (c < 0x80) {
    add(c);
  } else if (c < 0x800) {
    add(0xC0 | c >> 6);
    add(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    add(0xE0 | c >> 12);
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  } else {
    add(0xF0 | c >> 18);
    add(0x80 | (c >> 12 & 0x3F));
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  }
}

}  // namespace vnjs
