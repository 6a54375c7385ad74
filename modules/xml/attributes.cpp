#include <vnjs/value.h>

#include <vector>

#include "bridge/native.h"
#include "modules/xml/characters.h"
#include "modules/xml/document.h"
#include "modules/xml/node.h"
#include "modules/xml/node_builder.h"

namespace vnjs {

v8::Local<v8::FunctionTemplate> Xml::NewAttributesTemplate(XmlEnv* env) {
  v8::Isolate* const isolate = env->isolate();
  const v8::Local<v8::FunctionTemplate> result = v8::FunctionTemplate::New(isolate);
  NameClass(isolate, result, "VXmlAttributes");
  result->InstanceTemplate()->SetInternalFieldCount(kElementFieldCount);
  result->InstanceTemplate()->SetHandler(v8::NamedPropertyHandlerConfiguration(
      XmlNative<&Xml::GetAttribute>, XmlNative<&Xml::SetAttribute>, XmlNative<&Xml::QueryAttribute>,
      XmlNative<&Xml::DeleteAttribute>, XmlNative<&Xml::EnumAttributes>, env->Anchor(),
      v8::PropertyHandlerFlags::kOnlyInterceptStrings));
  return result;
}

void Xml::GetAttribute(v8::Local<v8::Name> name, const ValueInfo& info) {
  if (info.This() != info.Holder()) return;
  v8::Isolate* const isolate = info.GetIsolate();
  const v8::Local<v8::Value> real = GetRealValue(isolate, info.Holder(), name.As<v8::String>());
  if (!real.IsEmpty()) {
    info.GetReturnValue().Set(real);
    return;
  }
  const xmlNode* const element = GetElement(info);
  if (element == nullptr) return;
  const XmlTextPointer text = GetAttributeValue(element, ReadName(name));
  v8::Local<v8::String> value;
  if (text == nullptr) {
    info.GetReturnValue().SetUndefined();
  } else if (NewString(isolate, FromXml(text.get())).ToLocal(&value)) {
    info.GetReturnValue().Set(value);
  }
}

void Xml::SetAttribute(v8::Local<v8::Name> name, v8::Local<v8::Value> value, const ValueInfo& info) {
  if (GetElement(info) == nullptr) return;
  std::string text;
  if (!ReadText(info.GetIsolate(), value, &text)) return;
  RequireMemory(GetEnvironment(info.GetIsolate()), text.size());
  // Only now, because the value's own toString may have removed the element.
  xmlNode* const element = GetElement(info);
  if (element == nullptr) return;
  const std::string attribute = ReadName(name);
  if (IsXmlName(attribute)) {
    Document* const document = Document::Of(element);
    document->SetAttribute(element, attribute, text);
    document->Charge();
  }
  // The answer keeps the engine from storing a property of that name.
  GetAttribute(name, info);
}

void Xml::QueryAttribute(v8::Local<v8::Name>, const v8::PropertyCallbackInfo<v8::Integer>& info) {
  // Deliberately kept: every name is there.
  info.GetReturnValue().Set(v8::None);
}

void Xml::DeleteAttribute(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Boolean>& info) {
  xmlNode* const element = GetElement(info);
  bool removed = false;
  if (element != nullptr) {
    Document* const document = Document::Of(element);
    removed = document->RemoveAttribute(element, ReadName(name));
    document->Charge();
  }
  info.GetReturnValue().Set(removed);
}

void Xml::EnumAttributes(const v8::PropertyCallbackInfo<v8::Array>& info) {
  const xmlNode* const element = GetElement(info);
  if (element == nullptr) return;
  v8::Isolate* const isolate = info.GetIsolate();
  std::vector<v8::Local<v8::Value>> names;
  for (const xmlAttr* attribute = element->properties; attribute != nullptr && attribute->name != nullptr;
       attribute = attribute->next) {
    names.push_back(NewName(isolate, FromXml(attribute->name)));
  }
  info.GetReturnValue().Set(v8::Array::New(isolate, names.data(), names.size()));
}

}  // namespace vnjs
