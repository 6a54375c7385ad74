#include "bench/support/raw_xml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <v8.h>

#include <cstring>
#include <memory>
#include <vector>

#include "tests/support/inside.h"

namespace vnjs::bench {
namespace {

using Info = v8::FunctionCallbackInfo<v8::Value>;
using PropertyInfo = v8::PropertyCallbackInfo<v8::Value>;

/// Entities are substituted, blanks between elements dropped, CDATA is text, no network and no messages.
constexpr int kParseOptions = XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOBLANKS |
                              XML_PARSE_NONET | XML_PARSE_NOCDATA;

struct FreeXml {
  void operator()(xmlChar* text) const { xmlFree(text); }
  void operator()(xmlXPathContext* context) const { xmlXPathFreeContext(context); }
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
};

template <typename Resource>
using XmlPointer = std::unique_ptr<Resource, FreeXml>;

/// What the isolate keeps for all of its documents and nodes.
struct Shared {
  v8::Global<v8::Private> pointerKey;
  v8::Global<v8::String> documentName;
  v8::Global<v8::ObjectTemplate> node;
  v8::Global<v8::ObjectTemplate> attributes;
};

/// Where an isolate keeps it: not in the slot where the library has its environment.
constexpr uint32_t kSlot = 1;

const Shared& SharedOf(v8::Isolate* isolate) { return *static_cast<const Shared*>(isolate->GetData(kSlot)); }

/// What a document has until its object is collected; xmlDoc::_private points here.
struct Owner {
  v8::Global<v8::Object> object;
  xmlDoc* document;
  int64_t bytes;
};

int64_t BytesOf(const xmlChar* text) {
  return text == nullptr ? 0 : static_cast<int64_t>(strlen(reinterpret_cast<const char*>(text))) + 1;
}

/// The memory of some siblings and all that is below them. Names are shared and cost nothing.
int64_t BytesOf(const xmlNode* first) {
  int64_t bytes = 0;
  for (const xmlNode* node = first; node != nullptr; node = node->next) {
    bytes += static_cast<int64_t>(sizeof *node);
    if (node->type != XML_ELEMENT_NODE) {
      bytes += BytesOf(node->content);
      continue;
    }
    for (const xmlAttr* attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
      bytes += static_cast<int64_t>(sizeof *attribute) + BytesOf(attribute->children);
    }
    bytes += BytesOf(node->children);
  }
  return bytes;
}

v8::Local<v8::String> NewText(v8::Isolate* isolate, const xmlChar* text, int length = -1) {
  return v8::String::NewFromUtf8(isolate, reinterpret_cast<const char*>(text), v8::NewStringType::kNormal,
                                 length)
      .ToLocalChecked();
}

void SetPointer(v8::Isolate* isolate, v8::Local<v8::Object> object, void* pointer) {
  object
      ->SetPrivate(isolate->GetCurrentContext(), SharedOf(isolate).pointerKey.Get(isolate),
                   v8::External::New(isolate, pointer))
      .Check();
}

template <typename Pointed>
Pointed* GetPointer(v8::Isolate* isolate, v8::Local<v8::Object> object) {
  v8::Local<v8::Value> value;
  if (!object->GetPrivate(isolate->GetCurrentContext(), SharedOf(isolate).pointerKey.Get(isolate))
           .ToLocal(&value) ||
      !value->IsExternal()) {
    return nullptr;
  }
  return static_cast<Pointed*>(value.As<v8::External>()->Value());
}

// --- Documents ---------------------------------------------------------------------------------------------

/// Frees at once: a second pass might wait for somebody to pump the platform's messages.
void Collected(const v8::WeakCallbackInfo<Owner>& info) {
  const std::unique_ptr<Owner> owner(info.GetParameter());
  xmlFreeDoc(owner->document);
  info.GetIsolate()->AdjustAmountOfExternalAllocatedMemory(-owner->bytes);
}

void New(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::String::Utf8Value text(isolate, info[0]);
  xmlDoc* const document = xmlReadMemory(*text, text.length(), nullptr, nullptr, kParseOptions);
  if (document == nullptr) {
    isolate->ThrowException(v8::String::NewFromUtf8Literal(isolate, "XML error"));
    return;
  }
  const int64_t bytes = BytesOf(xmlDocGetRootElement(document));
  auto* const owner = new Owner{{isolate, info.This()}, document, bytes};
  document->_private = owner;
  owner->object.SetWeak(owner, Collected, v8::WeakCallbackType::kParameter);
  SetPointer(isolate, info.This(), document);
  isolate->AdjustAmountOfExternalAllocatedMemory(bytes);
}

void ToString(const Info& info) {
  auto* const document = GetPointer<xmlDoc>(info.GetIsolate(), info.This());
  if (document == nullptr) return;
  xmlChar* buffer = nullptr;
  int size = 0;
  xmlDocDumpFormatMemory(document, &buffer, &size, 1);
  const XmlPointer<xmlChar> text(buffer);
  info.GetReturnValue().Set(NewText(info.GetIsolate(), text.get(), size));
}

// --- Nodes -------------------------------------------------------------------------------------------------

v8::Local<v8::Object> NewNode(v8::Local<v8::Context> context, xmlNode* node) {
  v8::Isolate* const isolate = context->GetIsolate();
  const Shared& shared = SharedOf(isolate);
  const v8::Local<v8::Object> object = shared.node.Get(isolate)->NewInstance(context).ToLocalChecked();
  constexpr auto kHidden = static_cast<v8::PropertyAttribute>(v8::ReadOnly | v8::DontEnum | v8::DontDelete);
  object
      ->DefineOwnProperty(context, shared.documentName.Get(isolate),
                          static_cast<Owner*>(node->doc->_private)->object.Get(isolate), kHidden)
      .Check();
  SetPointer(isolate, object, node);
  return object;
}

void FindAll(const Info& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  auto* const document = GetPointer<xmlDoc>(isolate, info.This());
  if (document == nullptr) return;
  const v8::String::Utf8Value expression(isolate, info[0]);
  const XmlPointer<xmlXPathContext> query(xmlXPathNewContext(document));
  const XmlPointer<xmlXPathObject> found(
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(*expression), query.get()));
  const v8::Local<v8::Context> context = isolate->GetCurrentContext();
  std::vector<v8::Local<v8::Value>> nodes;
  if (found != nullptr && found->nodesetval != nullptr) {
    nodes.reserve(static_cast<size_t>(found->nodesetval->nodeNr));
    for (int i = 0; i < found->nodesetval->nodeNr; ++i) {
      nodes.push_back(NewNode(context, found->nodesetval->nodeTab[i]));
    }
  }
  info.GetReturnValue().Set(v8::Array::New(isolate, nodes.data(), nodes.size()));
}

void GetName(v8::Local<v8::Name>, const PropertyInfo& info) {
  const auto* const node = GetPointer<xmlNode>(info.GetIsolate(), info.Holder());
  if (node != nullptr) info.GetReturnValue().Set(NewText(info.GetIsolate(), node->name));
}

void GetText(v8::Local<v8::Name>, const PropertyInfo& info) {
  const auto* const node = GetPointer<xmlNode>(info.GetIsolate(), info.Holder());
  if (node == nullptr || xmlFirstElementChild(const_cast<xmlNode*>(node)) != nullptr) return;
  const XmlPointer<xmlChar> text(xmlNodeGetContent(node));
  if (text != nullptr) info.GetReturnValue().Set(NewText(info.GetIsolate(), text.get()));
}

void GetAttributes(v8::Local<v8::Name>, const PropertyInfo& info) {
  v8::Isolate* const isolate = info.GetIsolate();
  auto* const node = GetPointer<xmlNode>(isolate, info.Holder());
  if (node == nullptr || node->properties == nullptr) return;
  const v8::Local<v8::Object> object =
      SharedOf(isolate).attributes.Get(isolate)->NewInstance(isolate->GetCurrentContext()).ToLocalChecked();
  SetPointer(isolate, object, node);
  info.GetReturnValue().Set(object);
}

void GetAttribute(v8::Local<v8::Name> name, const PropertyInfo& info) {
  const auto* const node = GetPointer<xmlNode>(info.GetIsolate(), info.Holder());
  if (node == nullptr) return;
  const v8::String::Utf8Value text(info.GetIsolate(), name);
  const XmlPointer<xmlChar> value(xmlGetProp(node, reinterpret_cast<const xmlChar*>(*text)));
  if (value != nullptr) info.GetReturnValue().Set(NewText(info.GetIsolate(), value.get()));
}

// --- Templates ---------------------------------------------------------------------------------------------

v8::Local<v8::FunctionTemplate> NewDocumentTemplate(v8::Isolate* isolate) {
  const v8::Local<v8::FunctionTemplate> document = v8::FunctionTemplate::New(isolate, New);
  document->PrototypeTemplate()->Set(isolate, "toString", v8::FunctionTemplate::New(isolate, ToString));
  document->PrototypeTemplate()->Set(isolate, "findAll", v8::FunctionTemplate::New(isolate, FindAll));
  return document;
}

/// The template of a class without a constructor of its own. Objects of a template without a class would share
/// no hidden class once they have a property more.
v8::Local<v8::ObjectTemplate> NewClass(v8::Isolate* isolate, v8::Local<v8::String> name) {
  const v8::Local<v8::FunctionTemplate> function = v8::FunctionTemplate::New(isolate);
  function->SetClassName(name);
  return function->InstanceTemplate();
}

v8::Local<v8::ObjectTemplate> NewNodeTemplate(v8::Isolate* isolate) {
  const v8::Local<v8::ObjectTemplate> node =
      NewClass(isolate, v8::String::NewFromUtf8Literal(isolate, "VXmlNode"));
  node->SetAccessor(v8::String::NewFromUtf8Literal(isolate, "name"), GetName);
  node->SetAccessor(v8::String::NewFromUtf8Literal(isolate, "text"), GetText);
  node->SetAccessor(v8::String::NewFromUtf8Literal(isolate, "attributes"), GetAttributes);
  return node;
}

/// Only the interceptor that reading an attribute asks.
v8::Local<v8::ObjectTemplate> NewAttributesTemplate(v8::Isolate* isolate) {
  const v8::Local<v8::ObjectTemplate> attributes =
      NewClass(isolate, v8::String::NewFromUtf8Literal(isolate, "VXmlAttributes"));
  attributes->SetHandler(v8::NamedPropertyHandlerConfiguration(
      GetAttribute, nullptr, nullptr, nullptr, nullptr, {}, v8::PropertyHandlerFlags::kOnlyInterceptStrings));
  return attributes;
}

}  // namespace

RawXml::RawXml(const RawEnvironment& environment) : m_environment(environment) {
  const testing::Inside inside(&environment);
  v8::Isolate* const isolate = inside.isolate;

  auto shared = std::make_unique<Shared>();
  shared->pointerKey.Reset(isolate, v8::Private::New(isolate));
  shared->documentName.Reset(isolate, v8::String::NewFromUtf8Literal(isolate, "document"));
  shared->node.Reset(isolate, NewNodeTemplate(isolate));
  shared->attributes.Reset(isolate, NewAttributesTemplate(isolate));
  isolate->SetData(kSlot, shared.release());

  const v8::Local<v8::Function> constructor =
      NewDocumentTemplate(isolate)->GetFunction(inside.context).ToLocalChecked();
  inside.context->Global()
      ->Set(inside.context, v8::String::NewFromUtf8Literal(isolate, "VXmlDocument"), constructor)
      .Check();
}

RawXml::~RawXml() {
  v8::Isolate* const isolate = m_environment.GetIsolate();
  const v8::Locker locker(isolate);
  delete static_cast<Shared*>(isolate->GetData(kSlot));
  isolate->SetData(kSlot, nullptr);
}

}  // namespace vnjs::bench
