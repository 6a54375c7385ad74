#pragma once

#include <vnjs/environment.h>

#include <string>

#include "modules/xml/tree.h"

namespace vnjs {

/// Parses a document that nobody vouches for. No file and no address that it names is read; entities that it
/// declares itself are substituted; white space between elements is dropped; CDATA sections become text. Null
/// where libxml2's last error of this thread says why, or the script that waits is to end. Throws VornException "XML error…" for documents that
/// would take minutes, or much more memory than their size.
DocPointer ParseXml(Environment* environment, const std::string& text, size_t memory);

}  // namespace vnjs
