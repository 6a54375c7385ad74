#include "modules/xml/xpath_texts.h"

#include <vnjs/error.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "bridge/memory_budget.h"
#include "modules/xml/tree.h"

namespace vnjs {

namespace {

/// The functions that work on texts.
const struct TextFunction {
  std::string_view name;
  xmlXPathFunction call;
  /// Whether it looks for each character of the first text in the second one, or the other way round.
  bool searches;
} kFunctions[] = {{"concat", xmlXPathConcatFunction, false},
                  {"contains", xmlXPathContainsFunction, true},
                  {"normalize-space", xmlXPathNormalizeFunction, false},
                  {"starts-with", xmlXPathStartsWithFunction, false},
                  {"string", xmlXPathStringFunction, false},
                  {"string-length", xmlXPathStringLengthFunction, false},
                  {"substring", xmlXPathSubstringFunction, false},
                  {"substring-after", xmlXPathSubstringAfterFunction, true},
                  {"substring-before", xmlXPathSubstringBeforeFunction, true},
                  {"translate", xmlXPathTranslateFunction, true}};

/// Null for a function that is none of them.
const TextFunction* FindFunction(const xmlChar* name) {
  for (const TextFunction& function : kFunctions) {
    if (function.name == FromXml(name)) return &function;
  }
  return nullptr;
}

size_t LengthOf(const xmlXPathObject* value) {
  return value != nullptr && value->type == XPATH_STRING ? static_cast<size_t>(xmlStrlen(value->stringval))
                                                         : 0;
}

/// Has the work on so many bytes count as steps of the evaluation. False, with it ended, when these are too many.
bool Charge(xmlXPathParserContext* parser, uint64_t bytes) {
  xmlXPathContext* const context = parser->context;
  // What takes about as long as one of libxml2's.
  const uint64_t steps = bytes / 100;
  if (steps > context->opLimit - std::min(context->opCount, context->opLimit)) {
    xmlXPathErr(parser, XPATH_OP_LIMIT_EXCEEDED);
    return false;
  }
  context->opCount += static_cast<unsigned long>(steps);
  return true;
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
  const TextFunction& function = *FindFunction(parser->context->function);
  if (function.searches && count >= 2 && parser->valueNr >= count) {
    xmlXPathObject* const* const arguments = parser->valueTab + parser->valueNr - count;
    if (!Charge(parser, LengthOf(arguments[0]) * uint64_t{LengthOf(arguments[1])})) return;
  }
  function.call(parser, count);
  if (parser->error == XPATH_EXPRESSION_OK) self->Count(parser, parser->value);
}

bool XPathTexts::Count(xmlXPathParserContext* parser, const xmlXPathObject* value) {
  if (!Charge(parser, LengthOf(value))) return false;
  m_bytes += LengthOf(value);
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
