#include "modules/xml/node.h"

#include <vnjs/error.h>
#include <vnjs/value.h>

#include <string_view>
#include <utility>
#include <vector>

#include "bridge/native.h"
#include "modules/xml/document.h"
#include "modules/xml/node_builder.h"

namespace vnjs {

void SetElement(v8::Local<v8::Object> object, v8::Local<v8::Object> document,
                const Tree::Reference& reference) {
  object->SetInternalField(kDocumentField, document);
  // The engine takes a number for a pointer when its lowest bit is clear.
  int fields[] = {kSlotField, kGenerationField};
  void* pointers[] = {reference.slot, reinterpret_cast<void*>(reference.generation << 1)};
  object->SetAlignedPointerInInternalFields(2, fields, pointers);
}

xmlNode* GetElement(v8::Local<v8::Object> object) {
  if (!object->GetInternalField(kDocumentField)->IsObject()) return nullptr;
  return Tree::Resolve(
      {static_cast<Tree::Slot*>(object->GetAlignedPointerFromInternalField(kSlotField)),
       reinterpret_cast<uintptr_t>(object->GetAlignedPointerFromInternalField(kGenerationField)) >> 1});
}

xmlNode* GetReceiver(Xml::XmlEnv* env, v8::Local<v8::Object> receiver) {
  if (env == nullptr || !env->NodeTemplate()->HasInstance(receiver)) return nullptr;
  return GetElement(receiver);
}

bool IsToEnd(v8::Isolate* isolate) {
  if (!IsInterrupted(GetEnvironment(isolate))) return false;
  EndIfInterrupted(isolate);
  return true;
}

NodeMaker::NodeMaker(Xml::XmlEnv* env, xmlDoc* doc)
    : m_tree(static_cast<Tree*>(doc->_private)),
      m_context(env->isolate()->GetCurrentContext()),
      m_template(env->NodeTemplate()->InstanceTemplate()),
      m_document(static_cast<Document*>(m_tree)->object()) {}

v8::MaybeLocal<v8::Object> NodeMaker::Make(xmlNode* element) const {
  v8::Local<v8::Object> result;
  if (!m_template->NewInstance(m_context).ToLocal(&result)) return {};
  SetElement(result, m_document, m_tree->Refer(element));
  return result;
}

namespace {

bool HasElementChild(const xmlNode* element) {
  return xmlFirstElementChild(const_cast<xmlNode*>(element)) != nullptr;
}

void ReturnText(const v8::PropertyCallbackInfo<v8::Value>& info, const xmlChar* text) {
  v8::Local<v8::String> result;
  if (NewString(info.GetIsolate(), FromXml(text)).ToLocal(&result)) info.GetReturnValue().Set(result);
}

}  // namespace

v8::MaybeLocal<v8::Value> Xml::ConstructNode(XmlEnv* env, xmlNode* node) {
  if (node == nullptr || node->type != XML_ELEMENT_NODE) return v8::Null(env->isolate());
  return NodeMaker(env, node->doc).Make(node).FromMaybe(v8::Local<v8::Object>()).As<v8::Value>();
}

v8::Local<v8::FunctionTemplate> Xml::NewNodeTemplate(XmlEnv* env) {
  v8::Isolate* const isolate = env->isolate();
  const v8::Local<v8::Object> anchor = env->Anchor();
  const v8::Local<v8::FunctionTemplate> result = v8::FunctionTemplate::New(isolate);
  NameClass(isolate, result, "VXmlNode");

  const v8::Local<v8::ObjectTemplate> instance = result->InstanceTemplate();
  instance->SetInternalFieldCount(kElementFieldCount);
  const auto add = [&](const char* name, v8::AccessorNameGetterCallback getter,
                       v8::AccessorNameSetterCallback setter = nullptr,
                       v8::PropertyAttribute attributes = v8::None) {
    instance->SetAccessor(NewName(isolate, name), getter, setter, anchor, v8::DEFAULT, attributes);
  };
  // The engine lists the last one first.
  constexpr auto kHidden = static_cast<v8::PropertyAttribute>(v8::ReadOnly | v8::DontEnum);
  add("parent", XmlNative<&Xml::GetNodeParent>, nullptr, kHidden);
  add("children", XmlNative<&Xml::GetNodeChildren>);
  add("attributes", XmlNative<&Xml::GetNodeAttributes>);
  add("text", XmlNative<&Xml::GetNodeText>, XmlNative<&Xml::SetNodeText>);
  add("name", XmlNative<&Xml::GetNodeName>);
  instance->SetNativeDataProperty(NewName(isolate, "document"), XmlNative<&Xml::GetNodeDocument>, nullptr,
                                  v8::Local<v8::Value>(),
                                  static_cast<v8::PropertyAttribute>(kHidden | v8::DontDelete));

  const auto addMethod = [&](const char* name, v8::FunctionCallback callback) {
    result->PrototypeTemplate()->Set(isolate, name, v8::FunctionTemplate::New(isolate, callback, anchor),
                                     v8::DontEnum);
  };
  addMethod("insertChild", XmlNative<&Xml::InsertNodeChild>);
  addMethod("removeChild", XmlNative<&Xml::RemoveNodeChild>);
  addMethod("findAll", XmlNative<&Xml::FindNodeAll>);
  addMethod("findOne", XmlNative<&Xml::FindNodeOne>);
  return result;
}

void Xml::GetNodeName(v8::Local<v8::Name>, const ValueInfo& info) {
  if (const xmlNode* const element = GetElement(info)) ReturnText(info, element->name);
}

void Xml::GetNodeText(v8::Local<v8::Name>, const ValueInfo& info) {
  const xmlNode* const element = GetElement(info);
  if (element == nullptr || HasElementChild(element)) return;
  const xmlNode* const child = element->children;
  if (child != nullptr && child->next == nullptr && child->type == XML_TEXT_NODE) {
    ReturnText(info, child->content);
    return;
  }
  const XmlTextPointer text(xmlNodeGetContent(element));
  if (text != nullptr) ReturnText(info, text.get());
}

void Xml::SetNodeText(v8::Local<v8::Name>, v8::Local<v8::Value> value,
                      const v8::PropertyCallbackInfo<void>& info) {
  if (GetElement(info) == nullptr) return;
  std::string text;
  const bool isText = !value->IsNullOrUndefined();
  if (isText && !ReadText(info.GetIsolate(), value, &text)) return;
  RequireMemory(GetEnvironment(info.GetIsolate()), text.size());
  // Only now, because the value's own toString may have removed the element.
  xmlNode* const element = GetElement(info);
  if (element == nullptr) return;
  Document* const document = Document::Of(element);
  document->SetText(element, isText ? &text : nullptr);
  document->Charge();
}

void Xml::GetNodeAttributes(v8::Local<v8::Name>, const ValueInfo& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  xmlNode* const element = GetElement(info);
  if (env == nullptr || element == nullptr || element->properties == nullptr) return;
  v8::Local<v8::Object> attributes;
  if (!env->AttributesTemplate()
           ->InstanceTemplate()
           ->NewInstance(info.GetIsolate()->GetCurrentContext())
           .ToLocal(&attributes)) {
    return;
  }
  SetElement(attributes, Document::Of(element)->object(), Tree::Of(element)->Refer(element));
  info.GetReturnValue().Set(attributes);
}

void Xml::GetNodeChildren(v8::Local<v8::Name>, const ValueInfo& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  const xmlNode* const element = GetElement(info);
  if (env == nullptr || element == nullptr || !HasElementChild(element)) return;
  const NodeMaker maker(env, element->doc);
  std::vector<v8::Local<v8::Value>> children;
  for (xmlNode* child = element->children; child != nullptr; child = child->next) {
    v8::Local<v8::Object> node;
    if (child->type != XML_ELEMENT_NODE) continue;
    if (!maker.Make(child).ToLocal(&node)) return;
    children.push_back(node);
    if (children.size() % kBetweenLooks == 0 && IsToEnd(info.GetIsolate())) return;
  }
  info.GetReturnValue().Set(v8::Array::New(info.GetIsolate(), children.data(), children.size()));
}

void Xml::GetNodeParent(v8::Local<v8::Name>, const ValueInfo& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  const xmlNode* const element = GetElement(info);
  if (env == nullptr || element == nullptr) return;
  v8::Local<v8::Value> parent;
  // The root's parent is the document, which is no element.
  if (ConstructNode(env, element->parent).ToLocal(&parent)) info.GetReturnValue().Set(parent);
}

void Xml::GetNodeDocument(v8::Local<v8::Name>, const ValueInfo& info) {
  info.GetReturnValue().Set(info.Holder()->GetInternalField(kDocumentField).As<v8::Value>());
}

void Xml::InsertNodeChild(const Info& info) {
  if (info.Length() != 1 && info.Length() != 2) throw VornException("Invalid arguments count");
  XmlEnv* const env = XmlEnv::From(info.Data());
  const xmlNode* const receiver = GetReceiver(env, info.This());
  if (receiver == nullptr) return;
  RequireMemory(GetEnvironment(info.GetIsolate()), 0);
  NodePointer element;
  if (!NodeBuilder(env, Tree::Of(receiver)).Build(info[0], Tree::DepthOf(receiver) + 1, &element)) return;
  if (element == nullptr) throw VornException("Invalid node object");
  // Only now, because reading the argument may have removed the receiver.
  xmlNode* const parent = GetReceiver(env, info.This());
  if (parent == nullptr) return;
  Document* const document = Document::Of(parent);
  if (info[1]->IsUint32()) {
    document->InsertChild(parent, std::move(element), info[1].As<v8::Uint32>()->Value());
  } else {
    document->InsertLast(parent, std::move(element));
  }
  document->Charge();
  info.GetReturnValue().Set(true);
}

void Xml::RemoveNodeChild(const Info& info) {
  if (info.Length() != 1 || !info[0]->IsUint32()) throw VornException("Invalid argument");
  xmlNode* const parent = GetReceiver(XmlEnv::From(info.Data()), info.This());
  if (parent == nullptr) return;
  Document* const document = Document::Of(parent);
  // Deliberately kept: whatever the index, it is the first element child that goes.
  info.GetReturnValue().Set(document->RemoveFirstChild(parent));
  document->Charge();
}

}  // namespace vnjs
