#include "modules/xml/xpath.h"

#include <libxml/hash.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

#include "bridge/native.h"
#include "modules/xml/document.h"
#include "modules/xml/node.h"
#include "modules/xml/node_builder.h"
#include "modules/xml/xpath_texts.h"

namespace vnjs {

namespace {

struct FreeContext {
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
};

struct FreeResult {
  void operator()(xmlXPathObject* result) const { xmlXPathFreeObject(result); }
};
using ResultPointer = std::unique_ptr<xmlXPathObject, FreeResult>;

/// How much of an evaluation is enough, in libxml2's operations: about a second of a slow controller's time.
constexpr unsigned long kMostSteps = 10000000;

/// libxml2 lets an expression nest to a depth of 5000, a parenthesis being 10 of it and a path's step 1, with up
/// to 180 bytes of stack for each (measured on x86-64). Below a script there may be no more than 128 KB, so the
/// evaluation starts as if it were in this depth already.
constexpr int kDepthBefore = 4600;

/// What a result may hold, in nodes and in bytes of text: the engine cannot be asked for more in one call.
constexpr int kMostResults = 1000000;
constexpr size_t kMostText = 128 * 1024 * 1024;

/// Null when the expression cannot be evaluated.
ResultPointer Evaluate(Environment* environment, const char* expression, xmlDoc* doc, xmlNode* contextNode,
                       const Xml::Namespaces& namespaces) {
  const std::unique_ptr<xmlXPathContext, FreeContext> context(xmlXPathNewContext(doc));
  if (context == nullptr) throw std::bad_alloc();
  // An operation on simple paths looks at all alternatives.
  const std::string_view text = expression;
  context->opLimit = kMostSteps / static_cast<unsigned long>(1 + std::count(text.begin(), text.end(), '|'));
  context->depth = kDepthBefore;
  if (contextNode == nullptr) {
    // Without a root there is no context node, and relative paths lead nowhere.
    const xmlNode* const root = xmlDocGetRootElement(doc);
    if (root != nullptr) contextNode = root->parent;
  }
  if (contextNode != nullptr) xmlXPathSetContextNode(contextNode, context.get());
  for (const auto& [prefix, uri] : namespaces) {
    vnjs::xmlXPathRegisterNs(context.get(), ToXml(prefix.c_str()), ToXml(uri.c_str()));
  }
  const XPathTexts texts(environment, context.get());
  ResultPointer result(xmlXPathEvalExpression(ToXml(expression), context.get()));
  if (texts.isRefused()) throw std::bad_alloc();
  return result;
}

/// A text as a script string, null when there is none.
v8::MaybeLocal<v8::Value> ToValue(v8::Isolate* isolate, const XmlTextPointer& text) {
  if (text == nullptr) return v8::Null(isolate);
  return NewString(isolate, FromXml(text.get())).FromMaybe(v8::Local<v8::String>()).As<v8::Value>();
}

/// Turns results into script values.
class ResultReader {
 public:
  ResultReader(Xml::XmlEnv* env, xmlDoc* doc) : m_isolate(env->isolate()), m_maker(env, doc) {}

  v8::MaybeLocal<v8::Value> Read(xmlNode* node) const {
    if (node->type == XML_ELEMENT_NODE) {
      return m_maker.Make(node).FromMaybe(v8::Local<v8::Object>()).As<v8::Value>();
    }
    return ToValue(m_isolate, XmlTextPointer(xmlNodeGetContent(node)));
  }

  v8::MaybeLocal<v8::Value> ReadScalar(xmlXPathObject* result) const {
    return ToValue(m_isolate, XmlTextPointer(xmlXPathCastToString(result)));
  }

 private:
  v8::Isolate* const m_isolate;
  const NodeMaker m_maker;
};

bool IsScalar(const xmlXPathObject* result) {
  return result->type == XPATH_BOOLEAN || result->type == XPATH_NUMBER || result->type == XPATH_STRING;
}

/// Reads a script's map of prefixes. False with an exception pending.
bool ReadNamespaces(v8::Isolate* isolate, v8::Local<v8::Value> value, Xml::Namespaces* namespaces) {
  if (!value->IsObject()) return true;
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  const v8::Local<v8::Object> map = value.As<v8::Object>();
  v8::Local<v8::Array> prefixes;
  if (!map->GetPropertyNames(context).ToLocal(&prefixes)) return false;
  size_t bytes = 0;
  for (uint32_t i = 0; i < prefixes->Length(); ++i) {
    const v8::HandleScope handleScope(isolate);
    v8::Local<v8::Value> prefix;
    v8::Local<v8::Value> uri;
    if (!prefixes->Get(context, i).ToLocal(&prefix)) return false;
    // Names that look like an index come as numbers.
    if (!prefix->IsString()) continue;
    if (!map->Get(context, prefix).ToLocal(&uri)) return false;
    if (!IsText(uri)) continue;
    namespaces->emplace_back(GetString(prefix), GetString(uri));
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
  const std::string expression = GetString(info[0]);
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
  const ResultPointer result =
      Evaluate(GetEnvironment(env->isolate()), expression, doc, contextNode, namespaces);
  if (result == nullptr) return {};
  if (IsScalar(result.get())) return ResultReader(env, doc).ReadScalar(result.get());
  if (result->type != XPATH_NODESET) return {};
  const xmlNodeSet* const nodes = result->nodesetval;
  if (nodes == nullptr || nodes->nodeNr == 0 || nodes->nodeTab == nullptr) return v8::Null(env->isolate());
  return ResultReader(env, doc).Read(nodes->nodeTab[0]);
}

v8::MaybeLocal<v8::Value> Xml::FindAll(XmlEnv* env, const char* expression, xmlDoc* doc, xmlNode* contextNode,
                                       const Namespaces& namespaces) {
  const ResultPointer result =
      Evaluate(GetEnvironment(env->isolate()), expression, doc, contextNode, namespaces);
  std::vector<v8::Local<v8::Value>> values;
  const ResultReader reader(env, doc);
  v8::Local<v8::Value> value;
  if (result != nullptr && IsScalar(result.get())) {
    if (!reader.ReadScalar(result.get()).ToLocal(&value)) return {};
    values.push_back(value);
  } else if (result != nullptr && result->type == XPATH_NODESET && result->nodesetval != nullptr) {
    const xmlNodeSet* const nodes = result->nodesetval;
    if (nodes->nodeNr > kMostResults) throw VornException("XPath result is too large");
    values.reserve(static_cast<size_t>(nodes->nodeNr));
    size_t text = 0;
    for (int i = 0; i < nodes->nodeNr; ++i) {
      if (!reader.Read(nodes->nodeTab[i]).ToLocal(&value)) return {};
      values.push_back(value);
      if (value->IsString()) text += static_cast<size_t>(value.As<v8::String>()->Length());
      if (text > kMostText) throw VornException("XPath result is too large");
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
