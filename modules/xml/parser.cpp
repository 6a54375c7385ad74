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

#include "bridge/native.h"

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

/// The longest document type without its comments, and the longest declaration in it but for entities, in bytes. Of what
/// a declaration lists libxml2 takes a level of its stack for each few bytes.
constexpr size_t kLongestDoctype = 32 * 1024;
constexpr size_t kLongestDeclaration = 8 * 1024;

/// How much text may come from entities, beside as much as the document itself has.
constexpr size_t kMostExpanded = 1024 * 1024;

/// The most elements in the texts of all entities: nested into each other, they add to the document's depth.
constexpr int kMostEntityElements = 200;

/// How many nodes are made between two looks whether the script is to end.
constexpr size_t kNodesBetweenLooks = 1000;

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
  Environment* environment = nullptr;
  size_t nodes = 0;

  /// Stands for all parameter entities that are elsewhere.
  xmlEntity nothing{};
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
/// but for declared attributes, and entities that it has found too many of: with these it goes on for ever.
void OnError(void* parser, xmlError* error) {
  if (error->level != XML_ERR_FATAL) return;
  if (WatchOf(parser)->hasDefaults || error->code == XML_ERR_ENTITY_LOOP) Stop(parser);
}

void DeclareEntity(void* parser, const xmlChar* name, int type, const xmlChar* publicId,
                   const xmlChar* systemId, xmlChar* content) {
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

xmlAttribute* FindDeclared(const xmlParserCtxt* parser, const xmlChar* element, const xmlChar* name) {
  if (parser->myDoc == nullptr || parser->myDoc->intSubset == nullptr) return nullptr;
  int prefix = 0;
  const xmlChar* const local = xmlSplitQName3(name, &prefix);
  if (local == nullptr) return xmlGetDtdQAttrDesc(parser->myDoc->intSubset, element, name, nullptr);
  const std::string space(FromXml(name), static_cast<size_t>(prefix));
  return xmlGetDtdQAttrDesc(parser->myDoc->intSubset, element, local, ToXml(space.c_str()));
}

void DeclareAttribute(void* context, const xmlChar* element, const xmlChar* name, int type, int deflt,
                      const xmlChar* value, xmlEnumeration* values) {
  auto* const parser = static_cast<xmlParserCtxt*>(context);
  if (value != nullptr) WatchOf(parser)->hasDefaults = true;
  // libxml2 looks for other attributes of the type ID among all that the element has, and prints a line for each.
  const bool isId = type == XML_ATTRIBUTE_ID && FindDeclared(parser, element, name) == nullptr;
  if (type == XML_ATTRIBUTE_ID) type = XML_ATTRIBUTE_CDATA;
  xmlSAX2AttributeDecl(parser, element, name, type, deflt, value, values);
  xmlAttribute* const declared = isId ? FindDeclared(parser, element, name) : nullptr;
  if (declared != nullptr) declared->atype = XML_ATTRIBUTE_ID;
}

xmlEntity* Expand(void* parser, xmlEntity* entity) {
  Watch* const watch = WatchOf(parser);
  if (entity == nullptr || watch->stopped) return nullptr;
  watch->expanded += static_cast<size_t>(std::max(0, entity->length));
  if (watch->expanded <= watch->mostExpanded) return entity;
  Refuse(parser, "Too much text from entities");
  return nullptr;
}

/// An entity whose text is elsewhere is there, and has none. The loader that libxml2 offers for this is one for the whole
/// process, and the host's. What it has declared must be what is written again.
xmlEntity* GetEntity(void* context, const xmlChar* name) {
  auto* const parser = static_cast<xmlParserCtxt*>(context);
  xmlEntity* const entity = Expand(parser, xmlSAX2GetEntity(parser, name));
  if (entity == nullptr) return nullptr;
  // Without this option libxml2 goes on behind the reference. What else it stands for it has remembered elsewhere. One
  // without a place to load it from is an error.
  const bool isElsewhere = entity->etype == XML_EXTERNAL_GENERAL_PARSED_ENTITY &&
                           (entity->URI != nullptr || entity->ExternalID != nullptr);
  parser->options = isElsewhere ? parser->options & ~XML_PARSE_NOENT : parser->options | XML_PARSE_NOENT;
  return entity;
}

xmlEntity* GetParameterEntity(void* parser, const xmlChar* name) {
  xmlEntity* const entity = Expand(parser, xmlSAX2GetParameterEntity(parser, name));
  if (entity == nullptr || entity->etype != XML_EXTERNAL_PARAMETER_ENTITY) return entity;
  static xmlChar empty[] = {'\0'};
  xmlEntity* const nothing = &WatchOf(parser)->nothing;
  nothing->type = XML_ENTITY_DECL;
  nothing->etype = XML_INTERNAL_PARAMETER_ENTITY;
  nothing->name = entity->name;
  nothing->content = nothing->orig = empty;
  nothing->doc = entity->doc;
  return nothing;
}

void IgnoreExternalSubset(void*, const xmlChar*, const xmlChar*, const xmlChar*) {}

/// False when the parser was stopped, which has freed the text that it gives to callbacks.
bool Spend(void* parser, size_t bytes) {
  Watch* const watch = WatchOf(parser);
  if (++watch->nodes % kNodesBetweenLooks == 0 && IsInterrupted(watch->environment)) {
    Stop(parser);
    return false;
  }
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

/// To an entity that is declared elsewhere, if at all.
void Reference(void* parser, const xmlChar* name) {
  if (Spend(parser, 2 * sizeof(xmlNode))) xmlSAX2Reference(parser, name);
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

/// Whether the document type that a text starts with is longer than it may be, or one of its declarations is.
bool IsLongDoctype(std::string_view text) {
  bool isInside = false;
  size_t skipped = 0;
  size_t declaration = 0;
  size_t i = text.find_first_of("\"'[]<>", 1);
  for (; i < text.size() && (isInside || text[i] != '>'); i = text.find_first_of("\"'[]<>", i + 1)) {
    if (text[i] == '"' || text[i] == '\'') {
      i = std::min(text.find(text[i], i + 1), text.size());
    } else if (text.compare(i, 4, "<!--") == 0 || text.compare(i, 2, "<?") == 0) {
      const size_t length = EndOfMarkup(text.substr(i));
      skipped += length;
      i += length;
      // Its end is none of a declaration.
      declaration = i;
    } else if (text[i] == '<') {
      declaration = i;
    } else if (text[i] == '>') {
      // Only what a parameter entity stands for may hold another declaration.
      const std::string_view all = text.substr(declaration, i - declaration);
      constexpr std::string_view kEntity = "<!ENTITY";
      const size_t name = all.find_first_not_of(" \t\r\n", kEntity.size());
      const bool isText =
          all.compare(0, kEntity.size(), kEntity) == 0 && name < all.size() && all[name] != '%';
      if (all.size() > kLongestDeclaration && !isText) return true;
    } else {
      isInside = text[i] == '[' || (isInside && text[i] != ']');
    }
  }
  return std::min(i, text.size()) - skipped > kLongestDoctype;
}

bool HasLongDoctype(std::string_view text) {
  constexpr std::string_view kDoctype = "<!DOCTYPE";
  size_t start = text.find('<');
  while (start < text.size() && start + 1 < text.size() &&
         (text[start + 1] == '?' || text[start + 1] == '!')) {
    const std::string_view rest = text.substr(start);
    if (rest.compare(0, kDoctype.size(), kDoctype) == 0) return IsLongDoctype(rest);
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

DocPointer ParseXml(Environment* environment, const std::string& text, size_t memory) {
  if (HasCrowdedTag(text)) throw VornException("XML error: Too many attributes");
  if (HasLongDoctype(text)) throw VornException("XML error: Document type is too long");
  // An error of an earlier parse is no answer to why this one failed.
  xmlResetLastError();
  const std::unique_ptr<xmlParserCtxt, FreeParser> parser(xmlNewParserCtxt());
  if (parser == nullptr) throw std::bad_alloc();
  Watch watch;
  watch.mostExpanded = kMostExpanded + text.size();
  watch.memory = memory;
  watch.environment = environment;
  parser->_private = &watch;
  parser->sax->serror = OnError;
  parser->sax->entityDecl = DeclareEntity;
  parser->sax->attributeDecl = DeclareAttribute;
  parser->sax->getEntity = GetEntity;
  parser->sax->externalSubset = IgnoreExternalSubset;
  parser->sax->getParameterEntity = GetParameterEntity;
  parser->sax->reference = Reference;
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
