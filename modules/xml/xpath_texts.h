#pragma once

#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <vnjs/environment.h>

#include <cstddef>

namespace vnjs {

/// Keeps the texts that an XPath evaluation makes within the environment's limit, and has them count as steps of the
/// evaluation. Each of them may be as long as the document, and an expression such as `concat(/, /, /)` holds any number
/// of them at a time.
class XPathTexts {
 public:
  /// Watches what is evaluated in a context, which must not be used when this has gone.
  XPathTexts(Environment* environment, xmlXPathContext* context);
  XPathTexts(const XPathTexts&) = delete;
  XPathTexts& operator=(const XPathTexts&) = delete;

  /// Whether an evaluation has been ended for want of memory.
  bool isRefused() const { return m_isRefused; }

 private:
  static xmlXPathFunction Find(void* self, const xmlChar* name, const xmlChar* uri);
  static void Call(xmlXPathParserContext* parser, int count);

  /// Counts a text. False, with the evaluation ended, when there are too many.
  bool Count(xmlXPathParserContext* parser, const xmlXPathObject* value);
  static size_t Held(const xmlXPathParserContext* parser);

  Environment* const m_environment;

  /// The bytes of the texts that were held when they were last looked at, and of all that were made since then.
  size_t m_bytes = 0;
  bool m_isRefused = false;
};

}  // namespace vnjs
