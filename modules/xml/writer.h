#pragma once

#include <vnjs/environment.h>

#include <optional>
#include <string>

#include "modules/xml/tree.h"

namespace vnjs {

/// The document as indented text, in the encoding that it declares; in UTF-8, where that is not a text for scripts. None
/// when libxml2 cannot write it, or the script is to end. Throws VornException for one that does
/// not fit into the environment's memory. Garbage may be collected.
std::optional<std::string> WriteXml(Environment* environment, const Tree& tree);

}  // namespace vnjs
