#include "modules/xml/xpath_texts.h"

#include <vnjs/error.h>

#include <algorithm>
#include <string_view>

#include "bridge/memory_budget.h"
#include "modules/xml/tree.h"

namespace vnjs {

namespace {

/// The functions that work on texts.
const struct {
  std::string_view name;
  xmlXPathFunction function;
} kFunctions[] = {{"concat", xmlXPathConcatFunction},
                  {"contains", xmlXPathContainsFunction},
                  {"normalize-space", xmlXPathNormalizeFunction},
                  {"starts-with", xmlXPathStartsWithFunction},
                  {"string", xmlXPathStringFunction},
                  {"string-length", xmlXPathStringLengthFunction},
                  {"substring", xmlXPathSubstringFunction},
                  {"substring-after", xmlXPathSubstringAfterFunction},
                  {"substring-before", xmlXPathSubstringBeforeFunction},
                  {"translate", xmlXPathTranslateFunction}};

/// Null for a function that is none of them.
xmlXPathFunction FindFunction(const xmlChar* name) {
  for (const auto& entry : kFunctions) {
    if (entry.name == FromXml(name)) return entry.function;
  }
  return nullptr;
}

size_t LengthOf(const xmlXPathObject* value) {
  return value != nullptr && value->type == XPATH_STRING ? static_cast<size_t>(xmlStrlen(value->stringval))
                                                         : 0;
}

}  // namespace

XPathTexts::XPathTexts(Environment* environment, xmlXPathContext* context) : m_environment(environment) {
  xmlXPathRegisterFuncLookup(context, Find, this);
}

xmlXPathFunction XPathTexts::Find(void* self, const xmlChar* name, const xmlChar* uri) {
  return uri == nullptr && FindFunction(name) != nullptr ? Call : nullptr;
}

void XPathTexts::Call(xmlXPathParserContext* parser, int count) {
  auto* const self = static_cast<XPathTexts*>(parser->context->funcLookupData);
  // A function would make the texts of its sets of nodes all at once.
  for (int i = std::max(0, parser->valueNr - count); i < parser->valueNr; ++i) {
    xmlXPathObject*& argument = parser->valueTab[i];
    if (argument == nullptr || argument->type != XPATH_NODESET) continue;
    argument = xmlXPathConvertString(argument);
    parser->value = parser->valueTab[parser->valueNr - 1];
    if (!self->Count(parser, argument)) return;
  }
  FindFunction(parser->context->function)(parser, count);
  if (parser->error == XPATH_EXPRESSION_OK) self->Count(parser, parser->value);
}

bool XPathTexts::Count(xmlXPathParserContext* parser, const xmlXPathObject* value) {
  const size_t bytes = LengthOf(value);
  // Copying these takes about as long as an operation of libxml2's.
  parser->context->opCount += bytes / 100;
  m_bytes += bytes;
  // Twice: a function that takes texts makes another one of them. That a look finds no more than half of what there is
  // room for also makes looks as rare as texts are long.
  constexpr size_t kFewBytes = 1 << 20;
  if (m_bytes <= kFewBytes || GetMemoryBudget(m_environment)->Fits(m_bytes)) return true;
  m_bytes = Held(parser);
  try {
    RequireMemoryBriefly(m_environment, 2 * m_bytes);
  } catch (const VornException&) {
    m_isRefused = true;
    parser->error = XPATH_MEMORY_ERROR;
  }
  return !m_isRefused;
}

size_t XPathTexts::Held(const xmlXPathParserContext* parser) {
  size_t bytes = 0;
  for (int i = 0; i < parser->valueNr; ++i) bytes += LengthOf(parser->valueTab[i]);
  return bytes;
}

}  // namespace vnjs
