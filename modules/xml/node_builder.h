#pragma once

#include <v8.h>

#include "bridge/memory_budget.h"
#include "modules/xml/tree.h"
#include "modules/xml/xml.h"

namespace vnjs {

/// Builds elements from script objects that have a "name" and perhaps "attributes", "children" and "text", as
/// node objects do.
///
/// Reading an object may run script code, which may edit the same document: whoever links the result in looks
/// first whether the place is still there.
///
/// Failures: values without a name that XML knows build nothing; attributes of other names are left out.
///           Throws VornException for text that XML cannot write, and for more depth, children or attributes
///           than a document can use.
class NodeBuilder {
 public:
  /// The elements are for that tree, and not yet in it.
  NodeBuilder(Xml::XmlEnv* env, Tree* tree);

  /// Sets `result` to a new element, or leaves it empty when the value builds none. `depth` is the element's in
  /// its document. False with a script exception pending.
  bool Build(v8::Local<v8::Value> value, int depth, NodePointer* result);

 private:
  /// Counts an entry and the memory that it takes.
  void Spend(size_t bytes);
  bool Read(v8::Local<v8::Object> object, Xml::XmlEnv::Key key, v8::Local<v8::Value>* value);
  bool AddAttributes(v8::Local<v8::Object> attributes, xmlNode* element);
  bool AddChildren(v8::Local<v8::Array> children, int depth, xmlNode* element);

  Xml::XmlEnv* const m_env;
  v8::Isolate* const m_isolate;
  const v8::Local<v8::Context> m_context;
  Tree* const m_tree;
  const std::shared_ptr<MemoryBudget> m_memory;
  MemoryCharge m_charge{m_memory, 0};
  size_t m_entries = 0;
};

/// Whether a value is a string or a String object.
bool IsText(v8::Local<v8::Value> value);

/// The text of a name; empty where it is longer than names are, because making it would cost memory for nothing.
std::string ReadName(v8::Local<v8::Value> value);

/// Sets `text` to the value's text. False when the script was terminated while it was converted. Throws
/// VornException when there is a character in it that XML cannot write.
bool ReadText(v8::Isolate* isolate, v8::Local<v8::Value> value, std::string* text);

}  // namespace vnjs
