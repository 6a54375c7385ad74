#include "runner/wire.h"

#include <cmath>
#include <cstdint>

#include "runner/payload.h"

namespace vnjs {

using detail::ArrayPayload;
using detail::ObjectPayload;
using detail::TextPayload;
using detail::ValueAccess;

namespace {

constexpr char kVersion[] = "\xff\x0d";
constexpr size_t kMostBytes = 16 * 1024;

/// Beyond, somebody else says that it is too deep.
constexpr int kMostWireLevels = 100;

class Writer {
 public:
  explicit Writer(std::string* wire) : m_wire(*wire) {}

  bool Write(const Value& value, int level) {
    if (level > kMostWireLevels || m_wire.size() > kMostBytes) return false;
    switch (value.type()) {
      case Value::Type::kUndefined:
        return Add('_');
      case Value::Type::kNull:
        return Add('0');
      case Value::Type::kBoolean:
        return Add(ValueAccess::Number(value) != 0 ? 'T' : 'F');
      case Value::Type::kNumber:
        return WriteNumber(ValueAccess::Number(value));
      case Value::Type::kString:
        return WriteText(ValueAccess::Get<TextPayload>(value).text);
      case Value::Type::kArray:
        return WriteArray(ValueAccess::Get<ArrayPayload>(value), level);
      case Value::Type::kObject:
        return WriteObject(ValueAccess::Get<ObjectPayload>(value), level);
      default:
        return false;
    }
  }

 private:
  bool Add(char tag) {
    m_wire += tag;
    return true;
  }

  void AddCount(uint64_t count) {
    for (; count >= 0x80; count >>= 7) m_wire += static_cast<char>(0x80 | (count & 0x7F));
    m_wire += static_cast<char>(count);
  }

  bool WriteNumber(double number) {
    constexpr double kMostSmall = 1 << 30;
    if (std::abs(number) < kMostSmall && std::trunc(number) == number &&
        !(number == 0 && std::signbit(number))) {
      const auto integer = static_cast<int32_t>(number);
      Add('I');
      // Zigzag: the sign comes last.
      AddCount(static_cast<uint32_t>(integer) << 1 ^ (integer < 0 ? UINT32_MAX : 0));
      return true;
    }
    Add('N');
    m_wire.append(reinterpret_cast<const char*>(&number), sizeof number);
    return true;
  }

  bool WriteText(const std::string& text) {
    if (text.size() > kMostBytes) return false;
    const TextKind kind = KindOf(text);
    if (kind != TextKind::kAscii && kind != TextKind::kUtf8) return false;
    Add(kind == TextKind::kAscii ? '"' : 'S');
    AddCount(text.size());
    m_wire += text;
    return true;
  }

  bool WriteArray(const ArrayPayload& array, int level) {
    Add('A');
    AddCount(array.elements.size());
    for (const Value& element : array.elements) {
      if (!Write(element, level + 1)) return false;
    }
    Add('$');
    AddCount(0);
    AddCount(array.elements.size());
    return true;
  }

  bool WriteObject(const ObjectPayload& object, int level) {
    Add('o');
    for (const auto& [name, member] : object.members) {
      if (!WriteText(name) || !Write(member, level + 1)) return false;
    }
    Add('{');
    AddCount(object.members.size());
    return true;
  }

  std::string& m_wire;
};

}  // namespace

bool WriteWire(const Value& value, std::string* wire) {
  wire->assign(kVersion);
  return Writer(wire).Write(value, 0);
}

}  // namespace vnjs
