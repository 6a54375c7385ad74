#pragma once

#include <v8.h>

#include "modules/xml/tree.h"
#include "modules/xml/xml.h"

namespace vnjs {

/// The internal fields of the objects of elements and attributes: the document's object, which they keep alive,
/// and the two halves of a Tree::Reference. Objects that a script made with `new` have the document undefined.
enum ElementField { kDocumentField, kSlotField, kGenerationField, kElementFieldCount };

/// Makes an object of a template the object of an element.
void SetElement(v8::Local<v8::Object> object, v8::Local<v8::Object> document,
                const Tree::Reference& reference);

/// The element of an object that has those fields; null when it was freed.
xmlNode* GetElement(v8::Local<v8::Object> object);

/// The element of the object that an accessor or interceptor was called on; null for objects that inherit, and
/// when the environment that made the object has ended, with all its documents.
template <typename Result>
xmlNode* GetElement(const v8::PropertyCallbackInfo<Result>& info) {
  if (Xml::XmlEnv::From(info.Data()) == nullptr || info.This() != info.Holder()) return nullptr;
  return GetElement(info.Holder());
}

/// The element of the object that a node's method was called on; null for every other receiver.
xmlNode* GetReceiver(Xml::XmlEnv* env, v8::Local<v8::Object> receiver);

/// How many objects are made, or read, between two looks whether the script is to end; and such a look, which ends the
/// script.
constexpr size_t kBetweenLooks = 1000;
bool IsToEnd(v8::Isolate* isolate);

/// Makes the objects of one document's elements.
class NodeMaker {
 public:
  NodeMaker(Xml::XmlEnv* env, xmlDoc* doc);

  /// Empty, with something pending, when the script is being terminated.
  v8::MaybeLocal<v8::Object> Make(xmlNode* element) const;

 private:
  Tree* const m_tree;
  const v8::Local<v8::Context> m_context;
  const v8::Local<v8::ObjectTemplate> m_template;
  const v8::Local<v8::Object> m_document;
};

}  // namespace vnjs
