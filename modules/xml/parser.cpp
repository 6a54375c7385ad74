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
constexpr int kMostNamespaces = 10000;

/// How often libxml2 may compare attributes that the document type declares: it does so for each element anew.
constexpr double kMostComparisons = 1e9;

/// The shortest attribute is ` a=""`.
constexpr size_t kCrowdedTag = 5 * kMostAttributes;

struct FreeParser {
  void operator()(xmlParserCtxt* parser) const { xmlFreeParserCtxt(parser); }
};

/// What is watched while one document is parsed.
struct Watch {
  double comparisons = 0;
  const char* complaint = nullptr;
  int line = 0;
};

/// An entity whose text is elsewhere becomes one without any text, so that there is nothing to fetch. The
/// loader that libxml2 offers for this is one for the whole process, and the host's.
void DeclareEntity(void* parser, const xmlChar* name, int type, const xmlChar* publicId,
                   const xmlChar* systemId, xmlChar* content) {
  xmlChar nothing[] = {'\0'};
  if (type == XML_EXTERNAL_GENERAL_PARSED_ENTITY) {
    xmlSAX2EntityDecl(parser, name, XML_INTERNAL_GENERAL_ENTITY, nullptr, nullptr, nothing);
  } else if (type == XML_EXTERNAL_PARAMETER_ENTITY) {
    xmlSAX2EntityDecl(parser, name, XML_INTERNAL_PARAMETER_ENTITY, nullptr, nullptr, nothing);
  } else {
    xmlSAX2EntityDecl(parser, name, type, publicId, systemId, content);
  }
}

void IgnoreExternalSubset(void*, const xmlChar*, const xmlChar*, const xmlChar*) {}

void StartElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
                  int namespaceCount, const xmlChar** namespaces, int attributeCount, int defaultCount,
                  const xmlChar** attributes) {
  auto* const parser = static_cast<xmlParserCtxt*>(context);
  auto* const watch = static_cast<Watch*>(parser->_private);
  watch->comparisons += static_cast<double>(defaultCount) * defaultCount;
  if (watch->comparisons > kMostComparisons) watch->complaint = "Too many attributes by default";
  // The parser counts prefix and URI.
  if (parser->nsNr > 2 * kMostNamespaces) watch->complaint = "Too many namespaces";
  if (watch->complaint != nullptr) {
    watch->line = xmlSAX2GetLineNumber(parser);
    xmlStopParser(parser);
    return;
  }
  xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount, namespaces, attributeCount, defaultCount,
                        attributes);
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
  const bool isTag = text[1] != '!' && text[1] != '?';
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

}  // namespace

DocPointer ParseXml(const std::string& text) {
  if (HasCrowdedTag(text)) throw VornException("XML error: Too many attributes");
  // An error of an earlier parse is no answer to why this one failed.
  xmlResetLastError();
  const std::unique_ptr<xmlParserCtxt, FreeParser> parser(xmlNewParserCtxt());
  if (parser == nullptr) throw std::bad_alloc();
  Watch watch;
  parser->_private = &watch;
  parser->sax->entityDecl = DeclareEntity;
  parser->sax->externalSubset = IgnoreExternalSubset;
  parser->sax->startElementNs = StartElement;
  DocPointer doc(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                   kOptions));
  if (watch.complaint != nullptr) {
    throw VornException("XML error at line " + std::to_string(watch.line) + ": " + watch.complaint);
  }
  return doc;
}

}  // namespace vnjs
