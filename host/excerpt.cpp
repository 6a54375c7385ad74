#include "host/excerpt.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>
#include <system_error>

namespace vnjs::host {
namespace {

/// Of a longer line only the part around the column is shown.
constexpr size_t kWidest = 100;

/// Texts of errors may be long; places stand near their beginning.
constexpr size_t kSearched = 4000;

/// No script is as large. What scripts write into texts of errors may be the name of any file.
constexpr uintmax_t kLargest = 16 << 20;

std::mutex mutex;
std::string lastPlace;
std::map<std::string, std::string> keptSources;

std::string LineOf(std::istream& source, size_t number) {
  std::string line;
  for (size_t i = 0; i < number; ++i) {
    if (!std::getline(source, line)) return {};
  }
  return line;
}

/// Not of devices and pipes, nor of what the kernel makes up, which may have no end.
std::string LineOfFile(const std::string& path, size_t number) {
  std::error_code error;
  const uintmax_t size = std::filesystem::file_size(path, error);
  if (error || size == 0 || size > kLargest) return {};
  std::ifstream file(path);
  return LineOf(file, number);
}

bool BeginsCharacter(char c) { return (c & 0xC0) != 0x80; }

/// Where the engine's column is in UTF-8: it counts from one, and in units of UTF-16.
size_t ByteOf(const std::string& line, size_t column) {
  size_t byte = 0;
  for (size_t units = 1; byte < line.size() && units < column; ++units) {
    if ((line[byte] & 0xF8) == 0xF0) ++units;
    do {
      ++byte;
    } while (byte < line.size() && !BeginsCharacter(line[byte]));
  }
  return byte;
}

/// What moves the caret as far as the text before it.
std::string Blank(const std::string& text) {
  std::string blank;
  for (const char c : text) {
    if (BeginsCharacter(c)) blank += c == '\t' ? '\t' : ' ';
  }
  return blank;
}

std::string Show(const std::string& line, size_t number, size_t column) {
  const size_t caret = ByteOf(line, column);
  size_t begin = caret > kWidest / 2 && line.size() > kWidest ? caret - kWidest / 2 : 0;
  while (begin > 0 && !BeginsCharacter(line[begin])) --begin;
  size_t end = std::min(line.size(), begin + kWidest);
  while (end < line.size() && !BeginsCharacter(line[end])) ++end;
  const std::string label = std::to_string(number);
  return label + " | " + line.substr(begin, end - begin) + '\n' + std::string(label.size(), ' ') + " | " +
         Blank(line.substr(begin, caret - begin)) + "^\n";
}

}  // namespace

std::string Excerpt(const std::string& text) {
  static const std::regex kPlace(R"((?:^|\(|at )([^\s():][^():\n]*):(\d{1,9}):(\d{1,9}))");
  const std::string searched = text.substr(0, kSearched);
  std::smatch place;
  if (!std::regex_search(searched, place, kPlace)) return {};
  const std::lock_guard<std::mutex> lock(mutex);
  const std::string name = place.str(1) + ':' + place.str(2) + ':' + place.str(3);
  if (name == lastPlace) return {};
  const size_t number = std::stoul(place.str(2));
  const auto kept = keptSources.find(place.str(1));
  std::istringstream code(kept == keptSources.end() ? "" : kept->second);
  const std::string line =
      kept == keptSources.end() ? LineOfFile(place.str(1), number) : LineOf(code, number);
  if (line.empty()) return {};
  lastPlace = name;
  return Show(line, number, std::stoul(place.str(3)));
}

void KeepSource(const std::string& name, const std::string& code) {
  const std::lock_guard<std::mutex> lock(mutex);
  keptSources[name] = code;
  // The same place means other code now.
  lastPlace.clear();
}

}  // namespace vnjs::host
