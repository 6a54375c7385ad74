#include "modules/xml/node_builder.h"

#include <vnjs/error.h>
#include <vnjs/value.h>

#include <new>
#include <utility>

#include "bridge/native.h"
#include "modules/xml/characters.h"
#include "modules/xml/node.h"

namespace vnjs {

namespace {

/// How many entries of arrays and objects one call looks at: what cannot be interrupted must end by itself. Small
/// objects that refer to each other can mean a tree of any size.
constexpr size_t kMostEntries = 1000000;

}  // namespace

bool IsText(v8::Local<v8::Value> value) { return value->IsString() || value->IsStringObject(); }

std::string ReadName(v8::Local<v8::Value> value) {
  if (value->IsString() && value.As<v8::String>()->Length() > kLongestName) return {};
  return GetText(value);
}

bool ReadText(v8::Isolate* isolate, v8::Local<v8::Value> value, std::string* text) {
  *text = GetText(value);
  if (isolate->IsExecutionTerminating()) return false;
  ReplaceSurrogates(text);
  if (!IsXmlText(*text)) throw VornException("Text contains a character that XML cannot represent");
  return true;
}

NodeBuilder::NodeBuilder(Xml::XmlEnv* env, Tree* tree)
    : m_env(env),
      m_isolate(env->isolate()),
      m_context(m_isolate->GetCurrentContext()),
      m_tree(tree),
      m_memory(GetMemoryBudget(GetEnvironment(m_isolate))) {}

void NodeBuilder::Spend(size_t bytes) {
  if (++m_entries > kMostEntries) throw VornException("XML is too large");
  // The next look at a script object finds that the script has ended.
  if (m_entries % kBetweenLooks == 0) IsToEnd(m_isolate);
  if (!m_memory->Fits(bytes)) RequireMemory(GetEnvironment(m_isolate), bytes);
  m_charge.Set(m_charge.bytes() + bytes);
}

bool NodeBuilder::Read(v8::Local<v8::Object> object, Xml::XmlEnv::Key key, v8::Local<v8::Value>* value) {
  return object->Get(m_context, m_env->GetKey(key)).ToLocal(value);
}

bool NodeBuilder::Build(v8::Local<v8::Value> value, int depth, NodePointer* result) {
  if (!value->IsObject()) return true;
  const v8::HandleScope handleScope(m_isolate);
  const v8::Local<v8::Object> object = value.As<v8::Object>();
  v8::Local<v8::Value> part;
  if (!Read(object, Xml::XmlEnv::kName, &part)) return false;
  if (!IsText(part)) return true;
  const std::string name = ReadName(part);
  if (!IsXmlName(name)) return true;
  if (depth > kDeepest) throw VornException("XML is nested too deeply");
  Spend(sizeof(xmlNode) + name.size());
  // Not of the document before it is in its tree: queries would find its attributes by their ID.
  NodePointer element(xmlNewNode(nullptr, ToXml(name.c_str())));
  if (element == nullptr || element->name == nullptr) throw std::bad_alloc();
  m_tree->NoteName(name);

  if (!Read(object, Xml::XmlEnv::kAttributes, &part)) return false;
  if (part->IsObject() && !AddAttributes(part.As<v8::Object>(), element.get())) return false;
  if (!Read(object, Xml::XmlEnv::kChildren, &part)) return false;
  if (part->IsArray() && !AddChildren(part.As<v8::Array>(), depth, element.get())) return false;
  if (!Read(object, Xml::XmlEnv::kText, &part)) return false;
  if (IsText(part)) {
    std::string text;
    if (!ReadText(m_isolate, part, &text)) return false;
    Spend(sizeof(xmlNode) + text.size());
    if (!text.empty()) AddText(element.get(), text);
  }
  *result = std::move(element);
  return true;
}

bool NodeBuilder::AddAttributes(v8::Local<v8::Object> attributes, xmlNode* element) {
  v8::Local<v8::Array> names;
  if (!attributes->GetOwnPropertyNames(m_context).ToLocal(&names)) return false;
  size_t count = 0;
  for (uint32_t i = 0; i < names->Length(); ++i) {
    const v8::HandleScope handleScope(m_isolate);
    v8::Local<v8::Value> name;
    v8::Local<v8::Value> value;
    Spend(0);
    if (!names->Get(m_context, i).ToLocal(&name)) return false;
    // Names that look like an index come as numbers.
    if (!name->IsString()) continue;
    std::string text;
    if (!attributes->Get(m_context, name).ToLocal(&value) || !ReadText(m_isolate, value, &text)) return false;
    const std::string key = ReadName(name);
    if (!IsXmlName(key)) continue;
    if (++count > kMostAttributes) throw VornException("Too many XML attributes");
    Spend(sizeof(xmlAttr) + sizeof(xmlNode) + key.size() + text.size());
    m_tree->NoteName(key);
    AddAttribute(element, key, text);
  }
  return true;
}

bool NodeBuilder::AddChildren(v8::Local<v8::Array> children, int depth, xmlNode* element) {
  for (uint32_t i = 0; i < children->Length(); ++i) {
    Spend(0);
    const v8::HandleScope handleScope(m_isolate);
    v8::Local<v8::Value> value;
    NodePointer child;
    if (!children->Get(m_context, i).ToLocal(&value) || !Build(value, depth + 1, &child)) return false;
    if (child != nullptr) xmlAddChild(element, child.release());
  }
  return true;
}

}  // namespace vnjs
