#pragma once

#include <string>

namespace vnjs {

/// What the parser takes for the length of a name, in bytes (XML_MAX_NAME_LENGTH of libxml2).
constexpr int kLongestName = 50000;

/// Whether an element or attribute of that name can be written and parsed again. Colons are letters like any
/// other. The length is limited as the parser limits it.
bool IsXmlName(const std::string& name);

/// Whether every character of a UTF-8 text may stand in a document. XML has no way to write the others, not
/// even as references: most control characters, U+FFFE and U+FFFF.
bool IsXmlText(const std::string& text);

/// Puts U+FFFD in the place of each half of a surrogate pair, which a script's text may have alone and UTF-8 has
/// no form for.
void ReplaceSurrogates(std::string* text);

}  // namespace vnjs
