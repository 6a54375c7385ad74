#include "modules/xml/xpath.h"

#include <libxml/hash.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "bridge/native.h"
#include "modules/xml/document.h"
#include "modules/xml/node.h"
#include "modules/xml/node_builder.h"
#include "modules/xml/xpath_evaluator.h"

namespace vnjs {

namespace {

struct FreeContext {
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
};

/// With the values that a function which failed has left.
struct FreeParser {
  void operator()(xmlXPathParserContext* parser) const {
    while (parser->valueNr > 0) xmlXPathFreeObject(valuePop(parser));
    xmlXPathFreeParserContext(parser);
  }
};

/// What a result may hold, in nodes and in bytes of text: the engine cannot be asked for more in one call.
constexpr size_t kMostResults = 1000000;
constexpr size_t kMostText = 128 * 1024 * 1024;

/// One evaluation, and what becomes of its result.
class Query {
 public:
  Query(Xml::XmlEnv* env, xmlDoc* doc)
      : m_isolate(env->isolate()),
        m_environment(GetEnvironment(m_isolate)),
        m_maker(env, doc),
        m_context(xmlXPathNewContext(doc)) {
    if (m_context == nullptr) throw std::bad_alloc();
  }

  /// Null when the expression fails, or the script is to end.
  const XPathValue* Evaluate(const char* expression, xmlNode* contextNode,
                             const Xml::Namespaces& namespaces) {
    if (contextNode == nullptr) {
      // Without a root there is no context node, and relative paths lead nowhere.
      const xmlNode* const root = xmlDocGetRootElement(m_context->doc);
      if (root != nullptr) contextNode = root->parent;
    }
    if (contextNode != nullptr) xmlXPathSetContextNode(contextNode, m_context.get());
    if (!Bind(namespaces)) return nullptr;
    m_parser.reset(xmlXPathNewParserContext(ToXml(expression), m_context.get()));
    if (m_parser == nullptr) throw std::bad_alloc();
    try {
      m_expression = ParseXPath(m_parser.get());
      m_evaluator.emplace(m_environment, m_parser.get());
      m_result = m_evaluator->Evaluate(*m_expression);
    } catch (const XPathFailure&) {
      return nullptr;
    } catch (const XPathInterrupt&) {
      return nullptr;
    }
    return &m_result;
  }

  v8::MaybeLocal<v8::Value> Read(xmlNode* node) {
    if (node->type == XML_ELEMENT_NODE) {
      return m_maker.Make(node).FromMaybe(v8::Local<v8::Object>()).As<v8::Value>();
    }
    return ReadText(m_evaluator->TextOf(node));
  }

  v8::MaybeLocal<v8::Value> ReadScalar() { return ReadText(m_evaluator->ToText(&m_result)); }

 private:
  bool Bind(const Xml::Namespaces& namespaces) {
    // libxml2's tables do not grow with what they hold.
    if (!namespaces.empty()) m_context->nsHash = xmlHashCreate(static_cast<int>(namespaces.size()) + 10);
    size_t bound = 0;
    for (const auto& [prefix, uri] : namespaces) {
      vnjs::xmlXPathRegisterNs(m_context.get(), ToXml(prefix.c_str()), ToXml(uri.c_str()));
      if (++bound % kBetweenLooks == 0 && IsToEnd(m_isolate)) return false;
    }
    return true;
  }

  v8::MaybeLocal<v8::Value> ReadText(const XPathText& text) const {
    return NewString(m_isolate, text.text).FromMaybe(v8::Local<v8::String>()).As<v8::Value>();
  }

  v8::Isolate* const m_isolate;
  Environment* const m_environment;
  const NodeMaker m_maker;
  const std::unique_ptr<xmlXPathContext, FreeContext> m_context;
  std::unique_ptr<xmlXPathParserContext, FreeParser> m_parser;
  XPathExpressionPointer m_expression;
  std::optional<XPathEvaluator> m_evaluator;
  XPathValue m_result;
};

/// Reads a script's map of prefixes. False with an exception pending.
bool ReadNamespaces(v8::Isolate* isolate, v8::Local<v8::Value> value, Xml::Namespaces* namespaces) {
  if (!value->IsObject()) return true;
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const v8::Local<v8::Object> map = value.As<v8::Object>();
  v8::Local<v8::Array> prefixes;
  if (!map->GetPropertyNames(context).ToLocal(&prefixes)) return false;
  size_t bytes = 0;
  for (uint32_t i = 0; i < prefixes->Length(); ++i) {
    if (i % kBetweenLooks == 0 && IsToEnd(isolate)) return false;
    const v8::HandleScope handleScope(isolate);
    v8::Local<v8::Value> prefix;
    v8::Local<v8::Value> uri;
    if (!prefixes->Get(context, i).ToLocal(&prefix)) return false;
    // Names that look like an index come as numbers.
    if (!prefix->IsString()) continue;
    if (!map->Get(context, prefix).ToLocal(&uri)) return false;
    if (!IsText(uri)) continue;
    namespaces->emplace_back(ReadName(prefix), GetText(uri));
    // Of a string that the script has once there may be many copies, and libxml2 makes another one of each.
    bytes += 2 * (namespaces->back().first.size() + namespaces->back().second.size());
    RequireMemoryBriefly(GetEnvironment(isolate), bytes);
  }
  return true;
}

/// What a query starts from. The node is null where it is the document.
struct Origin {
  xmlDoc* doc;
  xmlNode* node;
};

/// The body of the four natives. `locate` finds the origin, without a document for a foreign receiver.
template <typename Finder, typename Locate>
void Find(Xml::XmlEnv* env, const v8::FunctionCallbackInfo<v8::Value>& info, Finder finder, Locate locate) {
  if (locate().doc == nullptr) return;
  if (!IsText(info[0])) throw VornException("Invalid argument");
  const std::string expression = GetText(info[0]);
  // Of a text in it libxml2 makes three copies on its way to the result.
  RequireMemoryBriefly(GetEnvironment(info.GetIsolate()), 4 * expression.size());
  Xml::Namespaces namespaces;
  if (!ReadNamespaces(info.GetIsolate(), info[1], &namespaces)) return;
  // Again, because the arguments may have run code that removed the node. From here on no script runs.
  const Origin origin = locate();
  if (origin.doc == nullptr) return;
  v8::Local<v8::Value> result;
  if (finder(env, expression.c_str(), origin.doc, origin.node, namespaces).ToLocal(&result)) {
    info.GetReturnValue().Set(result);
  }
}

}  // namespace

int xmlXPathRegisterNs(xmlXPathContext* context, const xmlChar* prefix, const xmlChar* uri) {
  if (context == nullptr || prefix == nullptr || *prefix == '\0') return -1;
  if (context->nsHash == nullptr) context->nsHash = xmlHashCreate(10);
  if (context->nsHash == nullptr) return -1;
  if (uri == nullptr) return xmlHashRemoveEntry(context->nsHash, prefix, xmlHashDefaultDeallocator);
  xmlChar* const copy = xmlStrdup(uri);
  if (copy == nullptr) return -1;
  const int result = xmlHashUpdateEntry(context->nsHash, prefix, copy, xmlHashDefaultDeallocator);
  if (result != 0) xmlFree(copy);
  return result;
}

v8::MaybeLocal<v8::Value> Xml::FindOne(XmlEnv* env, const char* expression, xmlDoc* doc, xmlNode* contextNode,
                                       const Namespaces& namespaces) {
  Query query(env, doc);
  const XPathValue* const result = query.Evaluate(expression, contextNode, namespaces);
  if (result == nullptr) return {};
  if (result->type != XPathValue::kNodes) return query.ReadScalar();
  const std::vector<xmlNode*>& nodes = result->nodes.nodes;
  return nodes.empty() ? v8::Null(env->isolate()).As<v8::Value>() : query.Read(nodes.front());
}

v8::MaybeLocal<v8::Value> Xml::FindAll(XmlEnv* env, const char* expression, xmlDoc* doc, xmlNode* contextNode,
                                       const Namespaces& namespaces) {
  Query query(env, doc);
  const XPathValue* const result = query.Evaluate(expression, contextNode, namespaces);
  std::vector<v8::Local<v8::Value>> values;
  v8::Local<v8::Value> value;
  if (result != nullptr && result->type != XPathValue::kNodes) {
    if (!query.ReadScalar().ToLocal(&value)) return {};
    values.push_back(value);
  } else if (result != nullptr) {
    const std::vector<xmlNode*>& nodes = result->nodes.nodes;
    if (nodes.size() > kMostResults) throw VornException("XPath result is too large");
    values.reserve(nodes.size());
    size_t text = 0;
    for (xmlNode* const node : nodes) {
      if (!query.Read(node).ToLocal(&value)) return {};
      values.push_back(value);
      if (value->IsString()) text += static_cast<size_t>(value.As<v8::String>()->Length());
      if (text > kMostText) throw VornException("XPath result is too large");
      if (values.size() % kBetweenLooks == 0 && IsToEnd(env->isolate())) return {};
    }
  }
  return v8::Array::New(env->isolate(), values.data(), values.size()).As<v8::Value>();
}

void Xml::FindInDocument(const Info& info, Finder finder) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  const Document* const document = env == nullptr ? nullptr : GetPtr(env, info.This());
  if (document == nullptr) return;
  Find(env, info, finder, [document] { return Origin{document->doc(), nullptr}; });
}

void Xml::FindInNode(const Info& info, Finder finder) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  Find(env, info, finder, [env, &info] {
    xmlNode* const node = GetReceiver(env, info.This());
    return node == nullptr ? Origin{} : Origin{node->doc, node};
  });
}

void Xml::FindDocOne(const Info& info) { FindInDocument(info, FindOne); }
void Xml::FindDocAll(const Info& info) { FindInDocument(info, FindAll); }
void Xml::FindNodeOne(const Info& info) { FindInNode(info, FindOne); }
void Xml::FindNodeAll(const Info& info) { FindInNode(info, FindAll); }

}  // namespace vnjs
