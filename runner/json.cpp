// Values as JSON text and back.
#include <vnjs/script_value.h>

#include <charconv>
#include <cmath>
#include <cstring>

#include "runner/payload.h"

namespace vnjs {

using detail::ArrayPayload;
using detail::BigIntPayload;
using detail::ObjectPayload;
using detail::TextPayload;
using detail::ValueAccess;

namespace {

/// Longer integers take minutes to convert.
constexpr size_t kMostDigits = 10000;
constexpr size_t kMostWords = 520;
constexpr uint64_t kTenTo9 = 1000000000;
constexpr size_t kDigitsAtOnce = 9;

/// The layout of scripts for these digits, of which the first stands for ten to the power of `exponent`.
std::string LayOut(const std::string& digits, int exponent) {
  const int count = static_cast<int>(digits.size());
  if (exponent >= 21 || exponent < -6) {
    const std::string fraction = count > 1 ? '.' + digits.substr(1) : "";
    return digits[0] + fraction + 'e' + (exponent < 0 ? "" : "+") + std::to_string(exponent);
  }
  if (exponent < 0) return "0." + std::string(static_cast<size_t>(-exponent - 1), '0') + digits;
  const auto whole = static_cast<size_t>(exponent) + 1;
  if (count <= exponent + 1) return digits + std::string(whole - digits.size(), '0');
  return digits.substr(0, whole) + '.' + digits.substr(whole);
}

}  // namespace

std::string NumberText(double number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number < 0 ? "-Infinity" : "Infinity";
  char text[32];
  if (std::trunc(number) == number && std::abs(number) < 1e15) {
    if (number == 0 && std::signbit(number)) return "-0";
    const auto end = std::to_chars(text, text + sizeof text, static_cast<int64_t>(number));
    return {text, end.ptr};
  }
  // The shortest digits that are this number: d.dddde+xx.
  const auto end = std::to_chars(text, text + sizeof text, std::abs(number), std::chars_format::scientific);
  const char* const mark = static_cast<const char*>(memchr(text, 'e', static_cast<size_t>(end.ptr - text)));
  std::string digits(text, static_cast<size_t>(mark - text));
  if (digits.size() > 1) digits.erase(1, 1);
  int exponent = 0;
  std::from_chars(mark[1] == '+' ? mark + 2 : mark + 1, end.ptr, exponent);
  return (number < 0 ? "-" : "") + LayOut(digits, exponent);
}

namespace {

std::string Digits(const BigIntPayload& number) {
  if (number.words.size() > kMostWords) ThrowHostError("a big integer is too large for JSON");
  // In halves of words, for which all machines can divide.
  std::vector<uint32_t> rest;
  for (const uint64_t word : number.words) {
    rest.push_back(static_cast<uint32_t>(word));
    rest.push_back(static_cast<uint32_t>(word >> 32));
  }
  std::string result;
  while (true) {
    while (!rest.empty() && rest.back() == 0) rest.pop_back();
    if (rest.empty()) break;
    uint64_t remainder = 0;
    for (size_t i = rest.size(); i-- > 0;) {
      const uint64_t part = remainder << 32 | rest[i];
      rest[i] = static_cast<uint32_t>(part / kTenTo9);
      remainder = part % kTenTo9;
    }
    const std::string part = std::to_string(remainder);
    result.insert(0, std::string(kDigitsAtOnce - part.size(), '0') + part);
  }
  if (result.empty()) return "0";
  result.erase(0, result.find_first_not_of('0'));
  return number.isNegative ? '-' + result : result;
}

class Writer {
 public:
  std::string Write(const Value& value) {
    Add(value, 0);
    return std::move(m_text);
  }

 private:
  static bool IsNothing(const Value& value) {
    return value.type() == Value::Type::kUndefined || value.type() == Value::Type::kFunction;
  }

  void Add(const Value& value, int level) {
    if (level > kMostLevels) ThrowHostError("a value is nested too deeply for JSON");
    switch (value.type()) {
      case Value::Type::kUndefined:
      case Value::Type::kFunction:
        return;
      case Value::Type::kNull:
        m_text += "null";
        return;
      case Value::Type::kBoolean:
        m_text += ValueAccess::Number(value) != 0 ? "true" : "false";
        return;
      case Value::Type::kNumber:
        m_text += std::isfinite(ValueAccess::Number(value)) ? NumberText(ValueAccess::Number(value)) : "null";
        return;
      case Value::Type::kBigInt:
        m_text += Digits(ValueAccess::Get<BigIntPayload>(value));
        return;
      case Value::Type::kString:
        AddText(ValueAccess::Get<TextPayload>(value).text);
        return;
      case Value::Type::kBytes:
        m_text += '[';
        for (const char byte : ValueAccess::Get<TextPayload>(value).text) {
          if (m_text.back() != '[') m_text += ',';
          m_text += std::to_string(static_cast<unsigned char>(byte));
        }
        m_text += ']';
        return;
      case Value::Type::kArray:
        AddArray(value, level);
        return;
      case Value::Type::kObject:
        AddObject(value, level);
    }
  }

  void AddArray(const Value& value, int level) {
    m_text += '[';
    bool isFirst = true;
    for (const Value& element : ValueAccess::Get<ArrayPayload>(value).elements) {
      if (!std::exchange(isFirst, false)) m_text += ',';
      if (IsNothing(element)) {
        m_text += "null";
      } else {
        Add(element, level + 1);
      }
    }
    m_text += ']';
  }

  void AddObject(const Value& value, int level) {
    m_text += '{';
    bool isFirst = true;
    for (const auto& [name, member] : ValueAccess::Get<ObjectPayload>(value).members) {
      if (IsNothing(member)) continue;
      if (!std::exchange(isFirst, false)) m_text += ',';
      AddText(name);
      m_text += ':';
      Add(member, level + 1);
    }
    m_text += '}';
  }

  void AddText(const std::string& text) {
    const TextKind kind = KindOf(text);
    if (kind == TextKind::kInvalid) ThrowHostError("a text is not UTF-8");
    m_text += '"';
    size_t plain = 0;
    for (size_t place = 0; place < text.size();) {
      const size_t start = place;
      const char32_t c = kind == TextKind::kWithSurrogates ? NextCodePoint(text, &place)
                                                           : static_cast<unsigned char>(text[place++]);
      if (c >= 0x20 && c != '"' && c != '\\' && (c < 0xD800 || c >= 0xE000)) continue;
      m_text.append(text, plain, start - plain);
      plain = place;
      if (c == '"' || c == '\\') {
        m_text += {'\\', static_cast<char>(c)};
      } else {
        AddEscape(c);
      }
    }
    m_text.append(text, plain);
    m_text += '"';
  }

  void AddEscape(char32_t c) {
    constexpr char kShort[] = "btn\vfr";
    if (c >= '\b' && c <= '\r' && c != '\v') {
      m_text += {'\\', kShort[c - '\b']};
      return;
    }
    constexpr char kHex[] = "0123456789abcdef";
    m_text += {'\\', 'u', kHex[c >> 12], kHex[c >> 8 & 15], kHex[c >> 4 & 15], kHex[c & 15]};
  }

  std::string m_text;
};

class Parser {
 public:
  explicit Parser(const std::string& text) : m_text(text), m_at(text.data()), m_end(m_at + text.size()) {}

  Value Parse() {
    if (KindOf(m_text) == TextKind::kInvalid) Fail("the text is not UTF-8");
    Value result = ParseValue(0);
    SkipBlanks();
    if (m_at != m_end) Fail("something follows the value");
    return result;
  }

 private:
  [[noreturn]] void Fail(const std::string& problem) const {
    ScriptError error{ErrorKind::kSyntax, "JSON: " + problem, {}, {}, 1, 1};
    for (const char* c = m_text.data(); c < m_at; ++c) {
      error.column = *c == '\n' ? 1 : error.column + 1;
      if (*c == '\n') ++error.line;
    }
    throw ScriptError(error);
  }

  void SkipBlanks() {
    while (m_at != m_end && (*m_at == ' ' || *m_at == '\n' || *m_at == '\r' || *m_at == '\t')) ++m_at;
  }

  bool Accept(char c) {
    SkipBlanks();
    if (m_at == m_end || *m_at != c) return false;
    ++m_at;
    return true;
  }

  void Expect(char c) {
    if (!Accept(c)) Fail(m_at == m_end ? "the text ends too early" : std::string("'") + c + "' is missing");
  }

  bool AcceptWord(const char* word) {
    const size_t length = strlen(word);
    if (static_cast<size_t>(m_end - m_at) < length || memcmp(m_at, word, length) != 0) return false;
    m_at += length;
    return true;
  }

  Value ParseValue(int level) {
    if (level > kMostLevels) Fail("it is nested too deeply");
    SkipBlanks();
    if (m_at == m_end) Fail("the text ends too early");
    if (*m_at == '"') return MakeText(ParseText());
    if (*m_at == '{') return ParseObject(level);
    if (*m_at == '[') return ParseArray(level);
    if (AcceptWord("null")) return nullptr;
    if (AcceptWord("true")) return true;
    if (AcceptWord("false")) return false;
    return ParseNumber();
  }

  Value ParseObject(int level) {
    ++m_at;
    Value result = Value::Object();
    if (Accept('}')) return result;
    do {
      SkipBlanks();
      if (m_at == m_end || *m_at != '"') Fail("a name is missing");
      std::string name = ParseText();
      Expect(':');
      // The last one of a name counts, as for scripts.
      result.Set(std::move(name), ParseValue(level + 1));
    } while (Accept(','));
    Expect('}');
    return result;
  }

  Value ParseArray(int level) {
    ++m_at;
    auto array = std::make_unique<ArrayPayload>();
    if (!Accept(']')) {
      do array->elements.push_back(ParseValue(level + 1));
      while (Accept(','));
      Expect(']');
    }
    return ValueAccess::Make(Value::Type::kArray, array.release());
  }

  /// Digits from here on; false when there are none.
  bool SkipDigits() {
    const char* const start = m_at;
    while (m_at != m_end && *m_at >= '0' && *m_at <= '9') ++m_at;
    return m_at != start;
  }

  Value ParseNumber() {
    const char* const start = m_at;
    const bool isNegative = *m_at == '-';
    if (isNegative) ++m_at;
    const char* const digits = m_at;
    if (!SkipDigits()) {
      m_at = start;
      Fail("a value is missing");
    }
    const auto count = static_cast<size_t>(m_at - digits);
    if (count > 1 && *digits == '0') Fail("a number begins with 0");
    bool isInteger = true;
    if (m_at != m_end && *m_at == '.') {
      isInteger = false;
      ++m_at;
      if (!SkipDigits()) Fail("a digit is missing");
    }
    if (m_at != m_end && (*m_at == 'e' || *m_at == 'E')) {
      isInteger = false;
      ++m_at;
      if (m_at != m_end && (*m_at == '+' || *m_at == '-')) ++m_at;
      if (!SkipDigits()) Fail("a digit is missing");
    }
    if (isInteger && count >= 16) return ParseInteger(isNegative, {digits, count});
    double number = 0;
    const auto [end, error] = std::from_chars(start, m_at, number);
    if (error == std::errc::result_out_of_range) {
      // Too small is as good as 0.
      number = strtod(std::string(start, m_at).c_str(), nullptr);
      if (std::isinf(number)) Fail("a number is too large");
    }
    return number;
  }

  Value ParseInteger(bool isNegative, std::string_view digits) const {
    if (digits.size() > kMostDigits) Fail("a number has too many digits");
    std::vector<uint32_t> halves;
    for (size_t place = 0; place < digits.size();) {
      // As many at first that the others are full parts.
      const size_t length = (digits.size() - place - 1) % kDigitsAtOnce + 1;
      uint64_t carry = 0;
      std::from_chars(digits.data() + place, digits.data() + place + length, carry);
      for (uint32_t& half : halves) {
        const uint64_t product = half * kTenTo9 + carry;
        half = static_cast<uint32_t>(product);
        carry = product >> 32;
      }
      if (carry > 0) halves.push_back(static_cast<uint32_t>(carry));
      place += length;
    }
    std::vector<uint64_t> words((halves.size() + 1) / 2);
    for (size_t i = 0; i < halves.size(); ++i) words[i / 2] |= uint64_t{halves[i]} << (32 * (i % 2));
    constexpr uint64_t kLargest = uint64_t{1} << 53;
    if (words.size() == 1 && words[0] <= kLargest) {
      return isNegative ? -static_cast<double>(words[0]) : static_cast<double>(words[0]);
    }
    return MakeBigInt(isNegative, std::move(words));
  }

  char32_t ParseHex() {
    uint32_t unit = 0;
    const bool fits = m_end - m_at >= 4;
    if (!fits || std::from_chars(m_at, m_at + 4, unit, 16).ptr != m_at + 4) Fail("\\u takes four digits");
    m_at += 4;
    return unit;
  }

  std::string ParseText() {
    ++m_at;
    std::string result;
    while (true) {
      const char* const start = m_at;
      while (m_at != m_end && *m_at != '"' && *m_at != '\\' && static_cast<unsigned char>(*m_at) >= 0x20)
        ++m_at;
      result.append(start, m_at);
      if (m_at == m_end) Fail("a text does not end");
      if (*m_at == '"') break;
      if (*m_at != '\\') Fail("a text has a control character");
      if (++m_at == m_end) Fail("a text does not end");
      ParseEscape(&result);
    }
    ++m_at;
    return result;
  }

  void ParseEscape(std::string* result) {
    const char c = *m_at++;
    constexpr char kShort[] = "\"\"\\\\//b\bf\fn\nr\rt\t";
    for (const char* pair = kShort; *pair != 0; pair += 2) {
      if (*pair != c) continue;
      *result += pair[1];
      return;
    }
    if (c != 'u') {
      --m_at;
      Fail("no such escape in a text");
    }
    char32_t point = ParseHex();
    if (point >= 0xD800 && point < 0xDC00 && AcceptWord("\\u")) {
      const char32_t low = ParseHex();
      if (low >= 0xDC00 && low < 0xE000) {
        point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
      } else {
        // No half of it: it is read once more.
        m_at -= 6;
      }
    }
    AppendUtf8(result, point);
  }

  const std::string& m_text;
  const char* m_at;
  const char* const m_end;
};

}  // namespace

Value Value::FromJson(const std::string& text) { return Parser(text).Parse(); }

std::string Value::Json() const { return Writer().Write(*this); }

}  // namespace vnjs
