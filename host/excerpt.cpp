#include "host/excerpt.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string_view>
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

struct Place {
  std::string_view source;
  size_t line = 0;
  size_t column = 0;
};

/// The number behind the colon that stands at `*at`, which moves behind it. 0 when there is none.
size_t ReadNumber(std::string_view text, size_t* at) {
  size_t end = *at;
  if (end == text.size() || text[end] != ':') return 0;
  size_t number = 0;
  for (++end; end < text.size() && end - *at <= 9 && isdigit(static_cast<unsigned char>(text[end])) != 0;
       ++end)
    number = number * 10 + static_cast<size_t>(text[end] - '0');
  *at = end;
  return number;
}

/// The name that ends where the text does: at its beginning, in a parenthesis, or behind "at". Empty when none does.
std::string_view SourceBefore(std::string_view text) {
  const size_t before = text.find_last_of("():\n");
  const std::string_view part = text.substr(before + 1);
  if (before != std::string_view::npos && text[before] == '(') return part;
  const size_t at = part.rfind("at ");
  if (at != std::string_view::npos && (at == 0 || part[at - 1] == ' ')) return part.substr(at + 3);
  return before == std::string_view::npos ? part : std::string_view();
}

/// The first place that the text names. Not by a regular expression: those of the standard library take a stack that
/// grows with the text, and scripts fail where little is left of it.
Place FindPlace(std::string_view text) {
  for (size_t colon = text.find(':'); colon != std::string_view::npos; colon = text.find(':', colon + 1)) {
    Place place;
    size_t at = colon;
    place.line = ReadNumber(text, &at);
    place.column = ReadNumber(text, &at);
    place.source = SourceBefore(text.substr(0, colon));
    if (place.line > 0 && place.column > 0 && !place.source.empty() && place.source[0] != ' ') return place;
  }
  return {};
}

}  // namespace

std::string Excerpt(const std::string& text) {
  const Place place = FindPlace(std::string_view(text).substr(0, kSearched));
  if (place.source.empty()) return {};
  const std::lock_guard<std::mutex> lock(mutex);
  const std::string source(place.source);
  const std::string name = source + ':' + std::to_string(place.line) + ':' + std::to_string(place.column);
  if (name == lastPlace) return {};
  const auto kept = keptSources.find(source);
  std::istringstream code(kept == keptSources.end() ? "" : kept->second);
  const std::string line =
      kept == keptSources.end() ? LineOfFile(source, place.line) : LineOf(code, place.line);
  if (line.empty()) return {};
  lastPlace = name;
  return Show(line, place.line, place.column);
}

void KeepSource(const std::string& name, const std::string& code) {
  const std::lock_guard<std::mutex> lock(mutex);
  keptSources[name] = code;
  // The same place means other code now.
  lastPlace.clear();
}

}  // namespace vnjs::host
