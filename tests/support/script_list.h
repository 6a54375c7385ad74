#pragma once

#include <fstream>
#include <string>
#include <vector>

namespace vnjs::testing {

/// A script in a list: a line that names it, then, indented by two, the text that is expected of it and the script.
/// Lines that are empty or begin with # count for nothing.
struct ListedScript {
  std::string name;
  std::string expected;
  std::string code;
};

inline std::vector<ListedScript> ReadScripts(const char* path) {
  std::vector<ListedScript> list;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] != ' ') list.push_back({line, "", ""});
    if (line[0] != ' ') continue;
    const bool isCode = !list.back().expected.empty();
    (isCode ? list.back().code : list.back().expected) += line.substr(2) + (isCode ? "\n" : "");
  }
  return list;
}

}  // namespace vnjs::testing
