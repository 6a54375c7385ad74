#include "modules/xml/xml.h"

#include <libxml/parser.h>

#include <utility>

#include "bridge/native.h"
#include "engine/registration.h"
#include "modules/xml/document.h"

namespace vnjs {

bool Xml::m_registered = false;

const char Xml::kSource[] = R"(native function $xml$toString();
Object.defineProperty($xml$toString, 'name', {value: 'toString'});

native function $xml$findOne();
Object.defineProperty($xml$findOne, 'name', {value: 'findOne'});

native function $xml$findAll();
Object.defineProperty($xml$findAll, 'name', {value: 'findAll'});

native function $xml$getRoot();

native function $xml$setRoot();

native function VXmlDocument();
Object.defineProperty(VXmlDocument.prototype, Symbol.toStringTag, {value: 'VXmlDocument', configurable: true});
VXmlDocument.prototype.toString = $xml$toString;
VXmlDocument.prototype.findOne = $xml$findOne;
VXmlDocument.prototype.findAll = $xml$findAll;
VXmlDocument.prototype.isXML = true;
Object.defineProperty(VXmlDocument.prototype, 'root',
                      {get: $xml$getRoot, set: $xml$setRoot, enumerable: true, configurable: true});
%ToFastProperties(VXmlDocument.prototype);
)";

namespace {

constexpr char kExtension[] = "vorn/xml";

/// What scripts call the parts of an element, in the order of XmlEnv::Key.
constexpr const char* kKeys[] = {"name", "attributes", "children", "text"};

}  // namespace

Xml::XmlEnv::XmlEnv(v8::Isolate* isolate) : m_isolate(isolate) {
  const v8::HandleScope handleScope(isolate);
  m_pointerKey.Reset(isolate, v8::Private::New(isolate, NewName(isolate, "ptr")));
  for (int key = 0; key < kKeyCount; ++key) {
    m_keys[key].Reset(
        isolate,
        v8::String::NewFromUtf8(isolate, kKeys[key], v8::NewStringType::kInternalized).ToLocalChecked());
  }
  const v8::Local<v8::ObjectTemplate> anchorTemplate = v8::ObjectTemplate::New(isolate);
  anchorTemplate->SetInternalFieldCount(1);
  v8::Local<v8::Object> anchor;
  if (!anchorTemplate->NewInstance(isolate->GetCurrentContext()).ToLocal(&anchor)) return;
  anchor->SetAlignedPointerInInternalField(0, this);
  m_anchor.Reset(isolate, anchor);
}

Xml::XmlEnv::~XmlEnv() { XmlEnv::OnEnvironmentEnd(); }

void Xml::XmlEnv::OnEnvironmentEnd() {
  m_documents.clear();
  if (m_anchor.IsEmpty()) return;
  const v8::HandleScope handleScope(m_isolate);
  Anchor()->SetAlignedPointerInInternalField(0, nullptr);
  m_anchor.Reset();
  m_pointerKey.Reset();
  for (v8::Global<v8::String>& key : m_keys) key.Reset();
  nodeTemplate.Reset();
  attributesTemplate.Reset();
}

Xml::XmlEnv* Xml::XmlEnv::From(v8::Local<v8::Value> data) {
  if (!data->IsObject()) return nullptr;
  return static_cast<XmlEnv*>(data.As<v8::Object>()->GetAlignedPointerFromInternalField(0));
}

v8::Local<v8::FunctionTemplate> Xml::XmlEnv::NodeTemplate() {
  if (nodeTemplate.IsEmpty()) nodeTemplate.Reset(m_isolate, NewNodeTemplate(this));
  return nodeTemplate.Get(m_isolate);
}

v8::Local<v8::FunctionTemplate> Xml::XmlEnv::AttributesTemplate() {
  if (attributesTemplate.IsEmpty()) attributesTemplate.Reset(m_isolate, NewAttributesTemplate(this));
  return attributesTemplate.Get(m_isolate);
}

Document* Xml::XmlEnv::Add(DocPointer doc, v8::Local<v8::Object> object) {
  Document* const document = &m_documents.emplace_front(this, m_isolate, std::move(doc));
  document->m_place = m_documents.begin();
  document->m_object.Reset(m_isolate, object);
  document->m_object.SetWeak(document, WeakCallback, v8::WeakCallbackType::kParameter);
  return document;
}

void Xml::XmlEnv::Free(Document* document) { m_documents.erase(document->m_place); }

Xml::Xml() : Module(kExtension, kSource, 0, nullptr, -1) {
  // Before any thread of ours can need it.
  xmlInitParser();
}

void Xml::Register() { RegisterOnce<Xml>(m_registered); }

VRefCountedPointer<Xml::XmlEnv> Xml::GetEnv(Environment* env) {
  const VRefCountedPointer<EnvironmentVariable> variable = env->GetVariable(kExtension);
  if (!variable.is_empty()) return static_cast<XmlEnv*>(variable.get_ptr());
  if (env->IsTerminating()) return {};
  const VRefCountedPointer<XmlEnv> made(new XmlEnv(env->GetIsolate()));
  env->SetVariable(kExtension, made.get_ptr());
  return made;
}

const NativeEntry Xml::kNatives[] = {
    {"VXmlDocument", XmlNative<&Xml::New>, NativeEntry::kConstructor},
    {"$xml$toString", XmlNative<&Xml::ToString>},
    {"$xml$findOne", XmlNative<&Xml::FindDocOne>},
    {"$xml$findAll", XmlNative<&Xml::FindDocAll>},
    {"$xml$getRoot", XmlNative<&Xml::GetDocRoot>},
    {"$xml$setRoot", XmlNative<&Xml::SetDocRoot>},
};

v8::Local<v8::FunctionTemplate> Xml::GetFunction(Environment* env, v8::Isolate* isolate, std::string name) {
  const VRefCountedPointer<XmlEnv> state = GetEnv(env);
  v8::Local<v8::Value> data = v8::Undefined(isolate);
  if (!state.is_empty()) data = state->Anchor();
  return FindNative(isolate, kNatives, name, data);
}

}  // namespace vnjs
