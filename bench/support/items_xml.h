#pragma once

#include <string>

namespace vnjs::bench {

/// An XML document of `count` elements `<item id="0"`, each in a line of its own; `rest` follows each number
/// and its quotation mark.
inline std::string ItemsXml(int count, const char* rest) {
  std::string text = "<?xml version=\"1.0\"?>\n<items>\n";
  for (int i = 0; i < count; ++i) text += "<item id=\"" + std::to_string(i) + "\"" + rest + "\n";
  return text += "</items>\n";
}

}  // namespace vnjs::bench
