#include "modules/xml/document.h"

#include <libxml/dict.h>
#include <libxml/parser.h>
#include <vnjs/error.h>
#include <vnjs/value.h>

#include <new>
#include <optional>
#include <string>
#include <utility>

#include "bridge/native.h"
#include "modules/xml/node_builder.h"
#include "modules/xml/parser.h"
#include "modules/xml/writer.h"

namespace vnjs {

namespace {

/// What would not fit if it were the only one.
constexpr char kTooLarge[] = "XML error: Document is too large";

}  // namespace

Document::Document(Xml::XmlEnv* env, v8::Isolate* isolate, DocPointer doc)
    : Tree(std::move(doc)),
      m_env(env),
      m_isolate(isolate),
      m_charge(GetMemoryBudget(GetEnvironment(isolate)), 0) {}

Document::~Document() {
  m_isolate->AdjustAmountOfExternalAllocatedMemory(-static_cast<int64_t>(m_charge.bytes()));
}

void Document::Charge() {
  const int64_t change = size() - static_cast<int64_t>(m_charge.bytes());
  if (change == 0) return;
  m_charge.Set(static_cast<size_t>(size()));
  m_isolate->AdjustAmountOfExternalAllocatedMemory(change);
}

Document* Xml::GetPtr(XmlEnv* env, v8::Local<v8::Value> object) {
  if (!object->IsObject()) return nullptr;
  v8::Local<v8::Value> pointer;
  if (!object.As<v8::Object>()
           ->GetPrivate(env->isolate()->GetCurrentContext(), env->PointerKey())
           .ToLocal(&pointer) ||
      !pointer->IsExternal()) {
    return nullptr;
  }
  return static_cast<Document*>(pointer.As<v8::External>()->Value());
}

bool Xml::SetPtr(XmlEnv* env, v8::Local<v8::Object> object, Document* document) {
  v8::Isolate* const isolate = env->isolate();
  return object
      ->SetPrivate(isolate->GetCurrentContext(), env->PointerKey(), v8::External::New(isolate, document))
      .FromMaybe(false);
}

std::string Xml::GetLastXmlError() {
  const xmlError* const error = xmlGetLastError();
  if (error == nullptr) return {};
  std::string text = "XML error";
  if (error->line != 0) {
    text += " at line " + std::to_string(error->line);
    if (error->int2 != 0) text += ", col " + std::to_string(error->int2);
  }
  text += ": ";
  if (error->message != nullptr) text += error->message;
  return text;
}

void Xml::New(const Info& info) {
  if (!info.IsConstructCall()) throw VornException("Invalid VXmlDocument usage");
  XmlEnv* const env = XmlEnv::From(info.Data());
  if (env == nullptr) return;
  Environment* const environment = GetEnvironment(info.GetIsolate());
  DocPointer doc;
  if (info.Length() == 0) {
    doc.reset(xmlNewDoc(ToXml("1.0")));
    // As the parser does. Without it libxml2 loses the name of an attribute that it has no memory for.
    if (doc != nullptr) doc->dict = xmlDictCreate();
    if (doc == nullptr || doc->dict == nullptr) throw std::bad_alloc();
  } else {
    if (!IsText(info[0])) throw VornException("Invalid args");
    // A tree takes at least what its text took.
    const v8::Local<v8::String> text =
        info[0]->IsString() ? info[0].As<v8::String>() : info[0].As<v8::StringObject>()->ValueOf();
    const size_t limit = GetMemoryBudget(environment)->limit();
    // Only what is not much too long is looked at letter by letter.
    auto length = static_cast<size_t>(text->Length());
    if (length <= limit) length = static_cast<size_t>(text->Utf8Length(info.GetIsolate()));
    if (length > limit) throw VornException(kTooLarge);
    RequireMemory(environment, length);
    doc = ParseXml(environment, GetString(info[0]), limit);
    if (IsInterrupted(environment)) return;
  }
  if (doc == nullptr) throw VornException(GetLastXmlError());
  Document* const document = env->Add(std::move(doc), info.This());
  if (!SetPtr(env, info.This(), document)) {
    env->Free(document);
    return;
  }
  document->Charge();
  // The object that is too much has no owner, and goes with the next collection.
  if (static_cast<uint64_t>(document->size()) > GetMemoryBudget(environment)->limit())
    throw VornException(kTooLarge);
  RequireMemory(environment, 0);
  info.GetReturnValue().Set(info.This());
}

void Xml::WeakCallback(const v8::WeakCallbackInfo<Document>& info) {
  Document* const document = info.GetParameter();
  document->m_env->Free(document);
}

void Xml::ToString(const Info& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  const Document* const document = env == nullptr ? nullptr : GetPtr(env, info.This());
  if (document == nullptr) return;
  Environment* const environment = GetEnvironment(info.GetIsolate());
  const std::optional<std::string> text = WriteXml(environment, *document);
  v8::Local<v8::String> result;
  if (!text.has_value()) {
    if (!IsInterrupted(environment)) info.GetReturnValue().Set(NewName(info.GetIsolate(), "VXmlDocument"));
  } else if (NewString(info.GetIsolate(), *text).ToLocal(&result)) {
    info.GetReturnValue().Set(result);
  }
}

void Xml::GetDocRoot(const Info& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  const Document* const document = env == nullptr ? nullptr : GetPtr(env, info.This());
  xmlNode* const root = document == nullptr ? nullptr : xmlDocGetRootElement(document->doc());
  if (root == nullptr) return;
  v8::Local<v8::Value> node;
  if (ConstructNode(env, root).ToLocal(&node)) info.GetReturnValue().Set(node);
}

void Xml::SetDocRoot(const Info& info) {
  XmlEnv* const env = XmlEnv::From(info.Data());
  Document* const document = env == nullptr ? nullptr : GetPtr(env, info.This());
  if (document == nullptr) return;
  RequireMemory(GetEnvironment(info.GetIsolate()), 0);
  NodePointer element;
  if (!NodeBuilder(env, document).Build(info[0], 1, &element) || element == nullptr) return;
  document->SetRoot(std::move(element));
  document->Charge();
}

}  // namespace vnjs
