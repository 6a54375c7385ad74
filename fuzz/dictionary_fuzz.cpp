// Dictionaries that scripts fill, ask, empty and copy, next to a list of entries that is searched from front to back.
#include <algorithm>
#include <initializer_list>
#include <utility>
#include <vector>

#include "fuzz/support.h"

namespace vnjs::fuzz {
namespace {

/// `Native` is the constructor that takes initial entries.
constexpr char kPrelude[] = R"js(
  var d, Native = NameValueDictionary;
  function is(actual, expected, what) {
    const [is, should] = [actual, expected].map(value => JSON.stringify(value));
    if (is !== should) throw new Error(`${what}: is ${is}, should be ${should}`);
  }
  function inherits(name) { return name in Object.getPrototypeOf(d); }
)js";

struct Entry {
  std::u16string name;
  std::string value;
  bool enumerable = true;
};

/// The engine keeps such names apart from the others, and asks no dictionary about them.
bool IsIndex(const std::u16string& name) {
  if (name.empty() || name.size() > 10 || (name[0] == '0' && name.size() > 1)) return false;
  if (!std::all_of(name.begin(), name.end(), [](char16_t c) { return c >= '0' && c <= '9'; })) return false;
  return std::stoull(std::string(name.begin(), name.end())) < 0xffffffff;
}

/// To a dictionary, all halves of surrogate pairs are the same.
std::string Folded(std::u16string name) {
  for (size_t i = 0; i < name.size(); ++i) {
    const bool pair = i + 1 < name.size() && (name[i] & 0xfc00) == 0xd800 && (name[i + 1] & 0xfc00) == 0xdc00;
    if (pair) {
      ++i;
    } else if ((name[i] & 0xf800) == 0xd800) {
      name[i] = 0xfffd;
    } else if (name[i] >= 'A' && name[i] <= 'Z') {
      name[i] += 32;
    }
  }
  return AsRead(name);
}

class Model {
 public:
  /// Every dictionary is born with a function that is no entry.
  Model() : m_entries{{u"toString", "undefined", false}} {}

  const Entry* Find(const std::u16string& name) const {
    for (const Entry& entry : m_entries) {
      if (entry.name == name) return &entry;
    }
    if (IsIndex(name)) return nullptr;
    for (const Entry& entry : m_entries) {
      if (entry.enumerable && Folded(entry.name) == Folded(name)) return &entry;
    }
    return nullptr;
  }

  void Set(const std::u16string& name, const std::string& value) {
    const Entry* const found = Find(name);
    if (found != nullptr && found->name == name) {
      m_entries[static_cast<size_t>(found - m_entries.data())].value = value;
      return;
    }
    // The engine asks twice before it adds a property. That shows where an index has a name's text up to its zero.
    if (!IsIndex(name) && Delete(name)) Delete(name);
    // The engine takes this for an attempt to change the prototype.
    if (name == u"__proto__") return;
    // Indices come first, by number.
    auto place = m_entries.end();
    if (IsIndex(name)) {
      const auto isBehind = [&](const Entry& entry) {
        return !IsIndex(entry.name) ||
               std::make_pair(entry.name.size(), entry.name) > std::make_pair(name.size(), name);
      };
      place = std::find_if(m_entries.begin(), m_entries.end(), isBehind);
    }
    m_entries.insert(place, Entry{name, value, true});
  }

  /// What the script's `delete` says.
  bool Delete(const std::u16string& name) {
    const Entry* const found = Find(name);
    if (found == nullptr) return IsIndex(name);
    m_entries.erase(m_entries.begin() + (found - m_entries.data()));
    return true;
  }

  Model Copy() const {
    Model copy;
    for (const Entry& entry : m_entries) {
      if (entry.enumerable) copy.Set(entry.name, entry.value);
    }
    return copy;
  }

  const std::vector<Entry>& entries() const { return m_entries; }

  std::string List() const {
    std::string list = "[";
    for (const Entry& entry : m_entries) {
      if (entry.enumerable) list += "[" + Literal(entry.name) + "," + entry.value + "],";
    }
    return list + "]";
  }

 private:
  std::vector<Entry> m_entries;
};

/// A name in other letters: bit by bit, whether the case changes. Not all of these characters have one.
std::u16string Respelled(std::u16string name, unsigned bits) {
  for (char16_t& unit : name) {
    const char16_t letter = unit | 0x20;
    const bool changes = (letter >= '`' && letter <= '~') || (letter >= 0xe0 && letter <= 0xfe);
    if (changes && (bits & 1) != 0) unit ^= 0x20;
    bits = bits >> 1 | (bits & 1) << 7;
  }
  return name;
}

std::u16string Name(Reader& reader, const Model& model, std::vector<std::u16string>& names) {
  const unsigned kind = reader.Byte();
  if (kind < 128 && !names.empty()) return Respelled(names[kind % names.size()], reader.Byte());
  if (kind < 192 && !model.entries().empty())
    return Respelled(model.entries()[kind % model.entries().size()].name, reader.Byte());
  names.push_back(kind % 8 == 0 ? FromBytes(std::to_string(reader.Number())) : reader.Text());
  return names.back();
}

/// One script for the whole input: each step, and what it should give.
void RunInput(Scripts& scripts, Reader reader) {
  using std::string_literals::operator""s;
  Model model;
  std::vector<std::u16string> names = {u"Host", u"toString", u"constructor", u"__proto__",
                                       u"7",    u"7\0x"s,    u"az`{\u00e9"};
  std::string script = "d = new Native();\n";
  const auto add = [&script](std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) script += part;
  };
  for (int step = 1; !reader.AtEnd() && step < 200; ++step) {
    const unsigned kind = reader.Below(8);
    const std::u16string name = Name(reader, model, names);
    const std::string key = Literal(name);
    const std::string number = std::to_string(step);
    const Entry* const entry = model.Find(name);
    if (kind < 3) {
      model.Set(name, number);
      add({"d[", key, "] = ", number, ";\n"});
    } else if (kind < 5) {
      add({"is(d[", key, "], ", entry == nullptr ? "undefined" : entry->value, ", 'get ", number, "');\n"});
      // Only here the prototypes show through.
      const std::string isThere = entry == nullptr ? "inherits(" + key + ")" : "true";
      add({"is(", key, " in d, ", isThere, ", 'has ", number, "');\n"});
    } else if (kind < 7) {
      add({"is(delete d[", key, "], ", model.Delete(name) ? "true" : "false", ", 'delete ", number, "');\n"});
    } else {
      model = model.Copy();
      add({"d = new Native(d);\n"});
    }
    if (kind % 2 == 1) {
      add({"is(Object.keys(d).map(name => [name, d[name]]), ", model.List(), ", 'list ", number, "');\n"});
    }
  }
  add({"is(JSON.parse(JSON.stringify(d)), Object.fromEntries(", model.List(), "), 'the end'); 'same'"});
  scripts.Expect(script, "\"same\"");
}

}  // namespace
}  // namespace vnjs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vnjs::fuzz;
  static Scripts scripts("/", kPrelude);
  scripts.NextInput();
  RunInput(scripts, Reader({reinterpret_cast<const char*>(data), size}));
  return 0;
}
