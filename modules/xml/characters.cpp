#include "modules/xml/characters.h"

#include <libxml/xmlstring.h>

#include <algorithm>

namespace vnjs {

namespace {

struct Range {
  int first;
  int last;
};

/// NameStartChar of XML 1.0, fifth edition, section 2.3.
constexpr Range kNameStart[] = {
    {':', ':'},       {'A', 'Z'},       {'_', '_'},       {'a', 'z'},
    {0xC0, 0xD6},     {0xD8, 0xF6},     {0xF8, 0x2FF},    {0x370, 0x37D},
    {0x37F, 0x1FFF},  {0x200C, 0x200D}, {0x2070, 0x218F}, {0x2C00, 0x2FEF},
    {0x3001, 0xD7FF}, {0xF900, 0xFDCF}, {0xFDF0, 0xFFFD}, {0x10000, 0xEFFFF},
};

/// What NameChar adds to it.
constexpr Range kNameMore[] = {
    {'-', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040},
};

template <size_t size>
bool IsIn(const Range (&ranges)[size], int character) {
  return std::any_of(std::begin(ranges), std::end(ranges), [character](const Range& range) {
    return character >= range.first && character <= range.last;
  });
}

}  // namespace

bool IsXmlName(const std::string& name) {
  if (name.empty() || name.size() > size_t{kLongestName}) return false;
  for (size_t i = 0; i < name.size();) {
    int length = static_cast<int>(name.size() - i);
    const int character = xmlGetUTF8Char(reinterpret_cast<const xmlChar*>(&name[i]), &length);
    if (!IsIn(kNameStart, character) && (i == 0 || !IsIn(kNameMore, character))) return false;
    i += static_cast<size_t>(length);
  }
  return true;
}

bool IsXmlText(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return false;
    // U+FFFE and U+FFFF are EF BF BE and EF BF BF.
    if (byte == 0xEF && text.compare(i + 1, 1, "\xBF") == 0 && text.compare(i + 2, 1, "\xBD") > 0)
      return false;
  }
  return true;
}

void ReplaceSurrogates(std::string* text) {
  // U+D800 to U+DFFF would be ED A0 80 to ED BF BF.
  for (size_t i = text->find('\xED'); i != std::string::npos; i = text->find('\xED', i + 1)) {
    if (text->compare(i + 1, 1, "\xA0") >= 0) text->replace(i, 3, "\xEF\xBF\xBD");
  }
}

}  // namespace vnjs
