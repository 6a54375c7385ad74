#pragma once

#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <v8.h>
#include <vnjs/environment.h>
#include <vnjs/module.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

#include "bridge/native.h"
#include "modules/xml/tree.h"

namespace vnjs {

class Document;

/// "vorn/xml": the constructor `VXmlDocument`, and the objects of elements and attributes that it leads to.
///
/// Threads:  everything runs on the thread that holds the isolate, inside the script that called it.
/// Failures: foreign receivers, and objects of elements that have been freed, answer undefined and change
///           nothing.
class Xml : public Module {
 public:
  Xml();
  static void Register();
  v8::Local<v8::FunctionTemplate> GetFunction(Environment* env, v8::Isolate* isolate,
                                              std::string name) override;

  /// What one environment keeps.
  ///
  /// Owner:    the environment's variable "vorn/xml". Callbacks find it through an anchor, a script object that
  ///           forgets it when the environment ends: functions may outlive it in an isolate that is not ours.
  /// Ending:   frees all documents, because an isolate's end calls no weak callbacks.
  class XmlEnv : public EnvironmentVariable {
   public:
    explicit XmlEnv(v8::Isolate* isolate);
    ~XmlEnv() override;
    void OnEnvironmentEnd() override;

    /// Callback data that leads here.
    v8::Local<v8::Object> Anchor() const { return m_anchor.Get(m_isolate); }

    /// The environment that callback data leads to; null once it has ended.
    static XmlEnv* From(v8::Local<v8::Value> data);

    v8::Isolate* isolate() const { return m_isolate; }

    /// What scripts call the parts of an element.
    enum Key { kName, kAttributes, kChildren, kText, kKeyCount };
    v8::Local<v8::String> GetKey(Key key) const { return m_keys[key].Get(m_isolate); }

    v8::Local<v8::FunctionTemplate> NodeTemplate();
    v8::Local<v8::FunctionTemplate> AttributesTemplate();

    /// Under which a document object keeps its pointer.
    v8::Local<v8::Private> PointerKey() const { return m_pointerKey.Get(m_isolate); }

    /// A new document whose life is that of the script object.
    Document* Add(DocPointer doc, v8::Local<v8::Object> object);
    void Free(Document* document);

   private:
    v8::Isolate* const m_isolate;
    v8::Global<v8::Object> m_anchor;
    v8::Global<v8::Private> m_pointerKey;
    v8::Global<v8::String> m_keys[kKeyCount];

    /// Made when first needed.
    v8::Global<v8::FunctionTemplate> nodeTemplate;
    v8::Global<v8::FunctionTemplate> attributesTemplate;

    std::list<Document> m_documents;
  };

  /// Empty when the environment is terminating and has none.
  static VRefCountedPointer<XmlEnv> GetEnv(Environment* env);

  /// What libxml2 last complained of in this thread; empty when nothing.
  static std::string GetLastXmlError();

  /// The object of an element, each time a new one. The script value null for other nodes and for null; empty,
  /// with an exception pending, when the script is being terminated.
  static v8::MaybeLocal<v8::Value> ConstructNode(XmlEnv* env, xmlNode* node);

  /// Prefixes and the URIs that they stand for.
  using Namespaces = std::vector<std::pair<std::string, std::string>>;

  /// The first result of an XPath expression, from the context node or, where it is null, from the document:
  /// the object of an element or the text of anything else, null for an empty node-set. Empty when the
  /// expression fails, and with an exception pending when the script is being terminated.
  static v8::MaybeLocal<v8::Value> FindOne(XmlEnv* env, const char* expression, xmlDoc* doc,
                                           xmlNode* contextNode, const Namespaces& namespaces);

  /// All of them, as an array, which is empty when the expression fails.
  static v8::MaybeLocal<v8::Value> FindAll(XmlEnv* env, const char* expression, xmlDoc* doc,
                                           xmlNode* contextNode, const Namespaces& namespaces);

 private:
  using Info = v8::FunctionCallbackInfo<v8::Value>;
  using ValueInfo = v8::PropertyCallbackInfo<v8::Value>;

  /// The document of an object that the constructor made, or null.
  static Document* GetPtr(XmlEnv* env, v8::Local<v8::Value> object);
  static bool SetPtr(XmlEnv* env, v8::Local<v8::Object> object, Document* document);

  // document.cpp
  static void New(const Info& info);
  static void ToString(const Info& info);
  static void GetDocRoot(const Info& info);
  static void SetDocRoot(const Info& info);
  static void WeakCallback(const v8::WeakCallbackInfo<Document>& info);

  // node.cpp
  static v8::Local<v8::FunctionTemplate> NewNodeTemplate(XmlEnv* env);
  static void GetNodeName(v8::Local<v8::Name> property, const ValueInfo& info);
  static void GetNodeText(v8::Local<v8::Name> property, const ValueInfo& info);
  static void SetNodeText(v8::Local<v8::Name> property, v8::Local<v8::Value> value,
                          const v8::PropertyCallbackInfo<void>& info);
  static void GetNodeAttributes(v8::Local<v8::Name> property, const ValueInfo& info);
  static void GetNodeChildren(v8::Local<v8::Name> property, const ValueInfo& info);
  static void GetNodeParent(v8::Local<v8::Name> property, const ValueInfo& info);
  static void GetNodeDocument(v8::Local<v8::Name> property, const ValueInfo& info);
  static void InsertNodeChild(const Info& info);
  static void RemoveNodeChild(const Info& info);

  // attributes.cpp
  static v8::Local<v8::FunctionTemplate> NewAttributesTemplate(XmlEnv* env);
  static void GetAttribute(v8::Local<v8::Name> name, const ValueInfo& info);
  static void SetAttribute(v8::Local<v8::Name> name, v8::Local<v8::Value> value, const ValueInfo& info);
  static void QueryAttribute(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Integer>& info);
  static void DeleteAttribute(v8::Local<v8::Name> name, const v8::PropertyCallbackInfo<v8::Boolean>& info);
  static void EnumAttributes(const v8::PropertyCallbackInfo<v8::Array>& info);

  // xpath.cpp
  using Finder = v8::MaybeLocal<v8::Value> (*)(XmlEnv*, const char*, xmlDoc*, xmlNode*, const Namespaces&);
  static void FindInDocument(const Info& info, Finder finder);
  static void FindInNode(const Info& info, Finder finder);
  static void FindDocOne(const Info& info);
  static void FindDocAll(const Info& info);
  static void FindNodeOne(const Info& info);
  static void FindNodeAll(const Info& info);

  static const char kSource[];
  static bool m_registered;
  static const struct NativeEntry kNatives[];
};

template <typename Signature>
struct XmlGuard;

template <typename... Arguments>
struct XmlGuard<void (*)(Arguments...)> {
  template <void (*native)(Arguments...)>
  static void Call(Arguments... arguments) {
    xmlResetLastError();
    native(arguments...);
    CheckXmlMemory();
  }
};

/// The guard around the natives of this extension: what libxml2 had no memory for becomes an `Error` as well.
template <auto native>
constexpr auto XmlNative = Native<&XmlGuard<decltype(native)>::template Call<native>>;

}  // namespace vnjs
