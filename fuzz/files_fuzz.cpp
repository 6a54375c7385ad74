// Objects that scripts store, load and forget, files of them that were damaged, and paths that try to leave the storage
// directory. What is stored is compared with a map; nothing outside of the directory may be opened or told of.
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>

#include "fuzz/support.h"

namespace vnjs::fuzz {
namespace {

namespace fs = std::filesystem;

constexpr char kPrelude[] = R"js(
  function attempt(f) {
    try {
      return ['ok', f()];
    } catch (e) {
      return ['threw', e.message];
    }
  }
  var cycle = [];
  cycle.push(cycle);
)js";

/// Beside the storage directory. No file inside has this size, and no test writes this text.
constexpr char kSecretName[] = "secret.json";
constexpr size_t kSecretSize = 7919;

/// A storage directory and its surroundings, which are watched.
class Storage {
 public:
  Storage() : m_watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    for (const char* const folder : {"storage", "ab", "aa\\bb", "..."})
      fs::create_directories(base() + folder);
    WriteFile(base() + "b", std::string("b\0\xff", 3));
    WriteFile(base() + "ab/c.json", "{\"c\":1}");
    WriteFile(m_folder.path() + '/' + kSecretName, '"' + std::string(kSecretSize - 2, '?') + '"');
    constexpr uint32_t kEvents = IN_OPEN | IN_ACCESS | IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVE;
    if (inotify_add_watch(m_watch, m_folder.path().c_str(), kEvents) < 0) Break("cannot watch a folder");
  }

  std::string base() const { return m_folder.path() + "/base/"; }

  std::set<std::string> Stored() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(base() + "storage"))
      names.insert(entry.path().filename());
    return names;
  }

  void Forget() const {
    for (const std::string& name : Stored()) fs::remove(base() + "storage/" + name);
  }

  /// The directory itself may be listed; that is seen from its parent, too.
  void CheckSurroundings() const {
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(m_watch, events, sizeof events);
    for (ssize_t at = 0; at < size;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(events + at);
      if (event->len == 0 || std::string(event->name) != "base") Break("somebody was outside");
      at += static_cast<ssize_t>(sizeof *event) + event->len;
    }
    if (std::distance(fs::directory_iterator(base()), {}) != 5) Break("the storage directory has changed");
  }

 private:
  const Folder m_folder;
  const int m_watch;
};

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The objects that were stored, by what natives take for their names.
class Objects {
 public:
  Objects(const Storage& storage, Scripts& scripts) : m_storage(storage), m_scripts(scripts) {}

  void Save(const std::u16string& name, const std::string& value) {
    const std::string code = "attempt(() => saveObject(" + Literal(name) + ", " + value + "))";
    const auto letters = std::count_if(name.begin(), std::find(name.begin(), name.end(), u'\0'),
                                       [](char16_t c) { return c < 0x80 && isalnum(c) != 0; });
    // The digest, and what the name of the file ends in while it is written.
    if (AsRead(name).empty()) return m_scripts.Expect(code, R"(["threw","Invalid arguments"])");
    if (letters + 42 > 255) return m_scripts.Expect(code, R"(["threw","File name too long"])");
    m_scripts.Expect(code, R"(["ok",null])");
    m_texts[AsRead(name)] = m_scripts.Run("(" + value + ")").result();
    const std::string file = m_storage.base() + "storage/" + FileOf(AsRead(name), letters);
    if (ReadAll(file) != m_texts[AsRead(name)]) Break(code + "\nleaves " + ReadAll(file));
  }

  void Remove(const std::u16string& name, unsigned kind) {
    const bool bad = AsRead(name).empty();
    constexpr const char* kNothing[] = {"null", "undefined", "function () {}", "cycle"};
    const std::string code =
        "attempt(() => saveObject(" + Literal(name) + ", " + kNothing[kind % 4] + "))[0]";
    const auto result = m_scripts.Run(code);
    if (bad || result.isException()) return;
    m_texts.erase(AsRead(name));
    const auto file = m_files.find(AsRead(name));
    if (file != m_files.end() && m_storage.Stored().count(file->second) != 0)
      Break(code + "\nkeeps the object");
  }

  void Load(const std::u16string& name) {
    if (AsRead(name).empty()) return;
    const std::string call = "loadObject(" + Literal(name) + ")";
    const auto text = m_texts.find(AsRead(name));
    const auto file = m_files.find(AsRead(name));
    if (text != m_texts.end()) {
      m_scripts.Expect(call, text->second);
    } else if (file == m_files.end() || m_storage.Stored().count(file->second) == 0 ||
               fs::file_size(m_storage.base() + "storage/" + file->second) == 0) {
      m_scripts.Expect("[attempt(() => " + call +
                           ")].every(([how, what]) => what === null || what === 'File name too long')",
                       "true");
    } else {
      // A damaged one is what the other reader of JSON makes of it.
      const std::string other = "attempt(() => fs.loadJSON('storage/" + file->second + "'))";
      m_scripts.Expect("attempt(() => " + call + ")", m_scripts.Run(other).result());
    }
  }

  void Damage(const std::u16string& name, std::string_view content) {
    const auto file = m_files.find(AsRead(name));
    if (file == m_files.end()) return;
    m_texts.erase(AsRead(name));
    WriteFile(m_storage.base() + "storage/" + file->second, content);
  }

 private:
  /// A new name gets a file that was not there before, always the same.
  std::string FileOf(const std::string& name, int64_t letters) {
    static const std::regex kPattern("[A-Za-z0-9]*-[0-9a-f]{32}\\.json");
    for (const std::string& file : m_storage.Stored()) {
      const bool isKnown =
          std::any_of(m_files.begin(), m_files.end(), [&](auto& known) { return known.second == file; });
      if (isKnown) continue;
      if (!std::regex_match(file, kPattern) || m_files.count(name) != 0 ||
          file.size() != static_cast<size_t>(letters) + 38)
        Break("unexpected: " + file);
      m_files[name] = file;
    }
    if (m_files.count(name) == 0) Break("two objects in one file, or none");
    return m_files[name];
  }

  const Storage& m_storage;
  Scripts& m_scripts;
  std::map<std::string, std::string> m_texts;
  std::map<std::string, std::string> m_files;
};

/// A path that may well lead somewhere.
std::u16string Path(Reader& reader, const Storage& storage) {
  std::u16string path;
  for (unsigned parts = reader.Below(8); parts > 0; --parts) {
    constexpr const char16_t* kNames[] = {u"..",  u".",       u"ab",   u"b", u"c.json", u"aa\\bb",
                                          u"...", u"storage", u"base", u"",  u"..\\x"};
    const unsigned kind = reader.Byte();
    if (kind == 255) path += reader.Text();
    if (kind == 254) path += FromBytes(kSecretName);
    if (kind == 253) path += FromBytes(storage.base());
    if (kind < 253) path += kNames[kind / 4 % std::size(kNames)];
    path += kind % 4 == 3 ? u'\\' : u'/';
    if (kind % 4 == 2) path.pop_back();
  }
  return path;
}

/// Asks for a file or a folder by its path.
void Ask(const Storage& storage, Scripts& scripts, unsigned kind, const std::u16string& path) {
  constexpr const char* kNames[] = {"list", "stat", "load", "loadText", "loadJSON"};
  const std::string name = kNames[kind % 5];
  const std::string code = "fs." + name + "(" + Literal(path) + ")";
  const std::string result = scripts.Run("attempt(() => " + code + ")").result();
  const std::string text = AsRead(path);
  const bool refused = result == R"(["threw","Invalid arguments"])";
  const bool plain = !text.empty() && text.find_first_of(".\\") == std::string::npos;
  if (refused && plain) Break(code + " is refused");
  if (refused) return;

  std::string meant = text;
  const bool trimmed = name == "list" || name == "stat";
  while (trimmed && !meant.empty() && (meant.back() == '/' || meant.back() == '\\')) meant.pop_back();
  // Elsewhere, a backslash is a letter to the kernel.
  if (name != "list") meant.erase(0, meant.find_first_not_of("/\\"));
  const std::string file = storage.base() + meant;
  if (fs::path(file).lexically_normal().string().compare(0, storage.base().size(), storage.base()) != 0)
    Break(code + " leaves to " + file);
  const std::string secret = name == "stat"   ? std::to_string(kSecretSize)
                             : name == "list" ? kSecretName
                                              : "?????";
  if (result.compare(0, 6, "[\"ok\",") == 0 && result.find(secret) != std::string::npos)
    Break(code + " tells " + result);
  std::error_code ignored;
  if (name == "load" && fs::is_regular_file(file, ignored))
    scripts.Expect(code + " === " + Literal(FromBytes(ReadAll(file))), "true");
}

void RunInput(const Storage& storage, Scripts& scripts, Reader reader) {
  Objects objects(storage, scripts);
  for (int steps = 0; !reader.AtEnd() && steps < 20; ++steps) {
    const unsigned kind = reader.Below(10);
    if (kind >= 5) {
      Ask(storage, scripts, kind, Path(reader, storage));
      continue;
    }
    std::u16string name = reader.Text();
    // So that few bytes meet the same object again, or the longest names.
    if (name.size() == 1) name.assign(name[0] & 1, u'a' + name[0] % 4);
    if (name.size() == 2) name.assign(name[1] & 0xff, name[0]);
    if (kind < 2) {
      const std::string inner = Literal(reader.Text());
      objects.Save(name,
                   kind == 0 ? inner : "{[" + inner + "]: [" + std::to_string(reader.Number()) + ", null]}");
    } else if (kind == 2) {
      objects.Load(name);
    } else if (kind == 3) {
      objects.Remove(name, reader.Byte());
    } else {
      objects.Damage(name, reader.Bytes());
      objects.Load(name);
    }
  }
  storage.CheckSurroundings();
  storage.Forget();
}

}  // namespace
}  // namespace vnjs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vnjs::fuzz;
  static const Storage storage;
  static Scripts scripts(storage.base(), kPrelude);
  scripts.NextInput();
  const int descriptor = LowestFreeDescriptor();
  RunInput(storage, scripts, Reader({reinterpret_cast<const char*>(data), size}));
  if (LowestFreeDescriptor() != descriptor) Break("a descriptor is left open");
  return 0;
}
