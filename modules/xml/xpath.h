#pragma once

#include <libxml/xpath.h>
#include <vnjs/export.h>

namespace vnjs {

/// Binds a prefix to a namespace URI, or unbinds it when `uri` is null. Copies both. Returns 0, or -1 for a null
/// context, no prefix, an unknown prefix to unbind, and when memory is out. libxml2's function of the same name
/// is another one.
VNJS_API int xmlXPathRegisterNs(xmlXPathContext* context, const xmlChar* prefix, const xmlChar* uri);

}  // namespace vnjs
