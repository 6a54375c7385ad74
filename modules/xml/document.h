#pragma once

#include <v8.h>

#include <list>

#include "bridge/memory_budget.h"
#include "modules/xml/tree.h"
#include "modules/xml/xml.h"

namespace vnjs {

/// A tree and the script object that owns it, and is what its nodes' objects refer to.
///
/// Owner:    the environment's XmlEnv, until the engine has collected the script object or the environment
///           ends.
/// Threads:  the one that holds the isolate; destroyed inside the engine's collector too, where nothing may be
///           asked of the engine but to let go of a handle.
class Document : public Tree {
 public:
  Document(Xml::XmlEnv* env, v8::Isolate* isolate, DocPointer doc);
  ~Document();

  static Document* Of(const xmlNode* node) { return static_cast<Document*>(Tree::Of(node)); }

  /// Counts how much the tree has grown or shrunk, and tells the engine, so that it collects documents in time. May
  /// collect some at once, never this one.
  void Charge();

  v8::Local<v8::Object> object() const { return m_object.Get(m_isolate); }

 private:
  friend class Xml;

  Xml::XmlEnv* const m_env;
  v8::Isolate* const m_isolate;
  MemoryCharge m_charge;

  /// Weak.
  v8::Global<v8::Object> m_object;
  std::list<Document>::iterator m_place;
};

}  // namespace vnjs
