#include "modules/xml/parser.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <vnjs/error.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace vnjs {

namespace {

/// Entities are substituted, nothing is printed, white space between elements is dropped, the network is not
/// asked, CDATA sections are text.
constexpr int kOptions = XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                         XML_PARSE_NONET | XML_PARSE_NOCDATA;

/// The most namespaces in scope: every name with a prefix is looked up among all of them.
constexpr int kMostNamespaces = 1000;

/// How often libxml2 may compare attributes that the document type declares: it does so for each element anew.
constexpr double kMostComparisons = 1e9;

/// The longest document type, in bytes: about 300 entities of a letter each. What stands there costs libxml2 the
/// square of its length, or a level of its stack for each few bytes.
constexpr size_t kLongestDoctype = 8 * 1024;

/// How much text may come from entities, beside as much as the document itself has.
constexpr size_t kMostExpanded = 1024 * 1024;

/// The most elements in the texts of all entities: nested into each other, they add to the document's depth.
constexpr int kMostEntityElements = 200;

/// The most attributes of the type ID that are declared as such; more are taken for text. Each one costs libxml2 a
/// look at all others, and a line on standard error.
constexpr int kMostIds = 16;

/// The shortest attribute is ` a=""`.
constexpr size_t kCrowdedTag = 5 * kMostAttributes;

struct FreeParser {
  void operator()(xmlParserCtxt* parser) const { xmlFreeParserCtxt(parser); }
};

/// What is watched while one document is parsed.
struct Watch {
  size_t mostExpanded = 0;
  size_t expanded = 0;
  double comparisons = 0;

  /// What the tree may still take, in bytes.
  size_t memory = 0;
  int entityElements = 0;
  int ids = 0;
  bool hasDefaults = false;
  bool stopped = false;

  /// Why it was stopped, when libxml2 saw no error.
  const char* complaint = nullptr;
  int line = 0;
};

Watch* WatchOf(void* parser) { return static_cast<Watch*>(static_cast<xmlParserCtxt*>(parser)->_private); }

void Stop(void* context) {
  auto* const parser = static_cast<xmlParserCtxt*>(context);
  WatchOf(parser)->stopped = true;
  // By its number the parser knows an error again that it has had.
  const int error = parser->errNo;
  xmlStopParser(parser);
  if (error != XML_ERR_OK) parser->errNo = error;
}

void Refuse(void* parser, const char* complaint) {
  Watch* const watch = WatchOf(parser);
  if (watch->complaint == nullptr) {
    watch->complaint = complaint;
    watch->line = xmlSAX2GetLineNumber(parser);
  }
  Stop(parser);
}

/// The parser goes on after an error, without any of these callbacks and their limits. What it still does is harmless,
/// but for declared attributes.
void OnError(void* parser, xmlError* error) {
  if (error->level == XML_ERR_FATAL && WatchOf(parser)->hasDefaults) Stop(parser);
}

/// An entity whose text is elsewhere becomes one without any text, so that there is nothing to fetch. The
/// loader that libxml2 offers for this is one for the whole process, and the host's.
void DeclareEntity(void* parser, const xmlChar* name, int type, const xmlChar* publicId,
                   const xmlChar* systemId, xmlChar* content) {
  xmlChar nothing[] = {'\0'};
  if (type == XML_EXTERNAL_GENERAL_PARSED_ENTITY || type == XML_EXTERNAL_PARAMETER_ENTITY) {
    const bool isGeneral = type == XML_EXTERNAL_GENERAL_PARSED_ENTITY;
    type = isGeneral ? XML_INTERNAL_GENERAL_ENTITY : XML_INTERNAL_PARAMETER_ENTITY;
    publicId = systemId = nullptr;
    content = nothing;
  }
  Watch* const watch = WatchOf(parser);
  for (const xmlChar* c = content; c != nullptr && *c != '\0'; ++c)
    watch->entityElements += *c == '<' ? 1 : 0;
  // A start and an end each.
  if (watch->entityElements > 2 * kMostEntityElements) {
    Refuse(parser, "Too many elements in entities");
    return;
  }
  xmlSAX2EntityDecl(parser, name, type, publicId, systemId, content);
}

void DeclareAttribute(void* parser, const xmlChar* element, const xmlChar* name, int type, int deflt,
                      const xmlChar* value, xmlEnumeration* values) {
  Watch* const watch = WatchOf(parser);
  if (type == XML_ATTRIBUTE_ID && ++watch->ids > kMostIds) type = XML_ATTRIBUTE_CDATA;
  if (value != nullptr) watch->hasDefaults = true;
  xmlSAX2AttributeDecl(parser, element, name, type, deflt, value, values);
}

xmlEntity* GetEntity(void* parser, const xmlChar* name) {
  Watch* const watch = WatchOf(parser);
  xmlEntity* const entity = watch->stopped ? nullptr : xmlSAX2GetEntity(parser, name);
  if (entity == nullptr) return nullptr;
  watch->expanded += static_cast<size_t>(std::max(0, entity->length));
  if (watch->expanded <= watch->mostExpanded) return entity;
  Refuse(parser, "Too much text from entities");
  return nullptr;
}

void IgnoreExternalSubset(void*, const xmlChar*, const xmlChar*, const xmlChar*) {}

/// An entity that is declared elsewhere, if at all, has no text.
void IgnoreReference(void*, const xmlChar*) {}

bool Spend(void* parser, size_t bytes) {
  Watch* const watch = WatchOf(parser);
  const bool fits = bytes <= watch->memory;
  watch->memory -= fits ? bytes : 0;
  if (!fits) Refuse(parser, "Document is too large");
  return fits;
}

void Comment(void* parser, const xmlChar* text) {
  if (Spend(parser, 2 * sizeof(xmlNode))) xmlSAX2Comment(parser, text);
}

void ProcessingInstruction(void* parser, const xmlChar* target, const xmlChar* text) {
  if (Spend(parser, 2 * sizeof(xmlNode))) xmlSAX2ProcessingInstruction(parser, target, text);
}

void StartElement(void* parser, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
                  int namespaceCount, const xmlChar** namespaces, int attributeCount, int defaultCount,
                  const xmlChar** attributes) {
  Watch* const watch = WatchOf(parser);
  watch->comparisons += static_cast<double>(defaultCount) * defaultCount;
  // With a text behind it.
  const size_t bytes =
      2 * sizeof(xmlNode) + (sizeof(xmlAttr) + sizeof(xmlNode)) * static_cast<size_t>(attributeCount);
  if (watch->stopped) {
    // Inside of an entity, it was the parser of its text that was stopped.
    Stop(parser);
  } else if (watch->comparisons > kMostComparisons) {
    Refuse(parser, "Too many attributes by default");
  } else if (static_cast<xmlParserCtxt*>(parser)->nsNr > 2 * kMostNamespaces) {
    // Which counts prefix and URI.
    Refuse(parser, "Too many namespaces");
  } else if (Spend(parser, bytes)) {
    xmlSAX2StartElementNs(parser, name, prefix, uri, namespaceCount, namespaces, attributeCount, defaultCount,
                          attributes);
  }
}

/// Whether the tag that a text starts with has too many attributes. Only their values stand in quotes, which
/// may hold anything.
bool IsCrowded(std::string_view tag) {
  size_t attributes = 0;
  while (attributes <= kMostAttributes) {
    const size_t next = tag.find_first_of("=>\"'");
    if (next == std::string_view::npos || tag[next] == '>') return false;
    const char found = tag[next];
    tag.remove_prefix(next + 1);
    if (found == '=') {
      ++attributes;
    } else {
      tag.remove_prefix(std::min(tag.find(found), tag.size()));
      tag.remove_prefix(std::min<size_t>(1, tag.size()));
    }
  }
  return true;
}

/// Parts of a document whose text is no markup.
constexpr std::pair<std::string_view, std::string_view> kOpaque[] = {
    {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};

/// Where the markup that a text starts with ends, as far as that takes: at the next one, if it is a tag.
size_t EndOfMarkup(std::string_view text) {
  const bool isTag = text.size() < 2 || (text[1] != '!' && text[1] != '?');
  for (const auto& [start, end] : kOpaque) {
    if (!isTag && text.compare(0, start.size(), start) == 0)
      return std::min(text.find(end, start.size()), text.size());
  }
  return std::min(text.find('<', 1), text.size());
}

/// Before the parser sees the text, because it compares all attributes before it shows any. No tag has a '<'
/// inside, so only the long ways from one to the next are looked at.
bool HasCrowdedTag(std::string_view text) {
  while (text.size() > kCrowdedTag) {
    const size_t start = text.find('<');
    if (start == std::string_view::npos) return false;
    text.remove_prefix(start);
    const size_t end = EndOfMarkup(text);
    if (end > kCrowdedTag && text[1] != '!' && text[1] != '?' && IsCrowded(text.substr(0, end))) return true;
    text.remove_prefix(end);
  }
  return false;
}

/// Where the document type ends that a text starts with.
size_t EndOfDoctype(std::string_view text) {
  bool isInside = false;
  for (size_t i = text.find_first_of("\"'[]<>", 1); i < text.size();
       i = text.find_first_of("\"'[]<>", i + 1)) {
    if (text[i] == '"' || text[i] == '\'') {
      i = std::min(text.find(text[i], i + 1), text.size());
    } else if (text[i] == '<' && i + 1 < text.size()) {
      const bool isOpaque = text.compare(i, 4, "<!--") == 0 || text[i + 1] == '?';
      if (isOpaque) i += EndOfMarkup(text.substr(i));
    } else if (text[i] == '>' && !isInside) {
      return i;
    } else {
      isInside = text[i] == '[' || (isInside && text[i] != ']');
    }
  }
  return text.size();
}

bool HasLongDoctype(std::string_view text) {
  constexpr std::string_view kDoctype = "<!DOCTYPE";
  size_t start = text.find('<');
  while (start < text.size() && start + 1 < text.size() &&
         (text[start + 1] == '?' || text[start + 1] == '!')) {
    const std::string_view rest = text.substr(start);
    if (rest.compare(0, kDoctype.size(), kDoctype) == 0) return EndOfDoctype(rest) > kLongestDoctype;
    start = text.find('<', start + EndOfMarkup(rest));
  }
  return false;
}

bool IsDeep(const xmlDoc* doc) {
  int depth = 0;
  for (const xmlNode* node = xmlDocGetRootElement(doc); node != nullptr;) {
    if (node->type == XML_ELEMENT_NODE && ++depth > kDeepest) return true;
    if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
      node = node->children;
      continue;
    }
    if (node->type == XML_ELEMENT_NODE) --depth;
    while (node != nullptr && node->next == nullptr) {
      node = node->parent;
      if (node != nullptr && node->type == XML_ELEMENT_NODE) --depth;
      if (node == reinterpret_cast<const xmlNode*>(doc)) node = nullptr;
    }
    if (node != nullptr) node = node->next;
  }
  return false;
}

}  // namespace

DocPointer ParseXml(const std::string& text, size_t memory) {
  if (HasCrowdedTag(text)) throw VornException("XML error: Too many attributes");
  if (HasLongDoctype(text)) throw VornException("XML error: Document type is too long");
  // An error of an earlier parse is no answer to why this one failed.
  xmlResetLastError();
  const std::unique_ptr<xmlParserCtxt, FreeParser> parser(xmlNewParserCtxt());
  if (parser == nullptr) throw std::bad_alloc();
  Watch watch;
  watch.mostExpanded = kMostExpanded + text.size();
  watch.memory = memory;
  parser->_private = &watch;
  parser->sax->serror = OnError;
  parser->sax->entityDecl = DeclareEntity;
  parser->sax->attributeDecl = DeclareAttribute;
  parser->sax->getEntity = GetEntity;
  parser->sax->externalSubset = IgnoreExternalSubset;
  parser->sax->reference = IgnoreReference;
  parser->sax->startElementNs = StartElement;
  parser->sax->comment = Comment;
  parser->sax->processingInstruction = ProcessingInstruction;
  DocPointer doc(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                   kOptions));
  if (watch.complaint != nullptr) {
    throw VornException("XML error at line " + std::to_string(watch.line) + ": " + watch.complaint);
  }
  // A text node that the parser finds too long ends the document there, and it says that all is well.
  if (watch.stopped || parser->disableSAX != 0) doc.reset();
  // Without entities the parser counts by itself.
  if (doc != nullptr && doc->intSubset != nullptr && IsDeep(doc.get())) {
    throw VornException("XML error: Nested too deeply");
  }
  return doc;
}

}  // namespace vnjs
