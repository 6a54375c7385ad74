#pragma once

#include <libxml/tree.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace vnjs {

struct FreeXmlDoc {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using DocPointer = std::unique_ptr<xmlDoc, FreeXmlDoc>;

/// For nodes that are in no tree.
struct FreeXmlNode {
  void operator()(xmlNode* node) const { xmlFreeNode(node); }
};
using NodePointer = std::unique_ptr<xmlNode, FreeXmlNode>;

struct FreeXmlText {
  void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlTextPointer = std::unique_ptr<xmlChar, FreeXmlText>;

/// How libxml2 and we see the same text.
inline const xmlChar* ToXml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
inline const char* FromXml(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

/// The deepest element of a document, the root being 1. The parser takes no more, so nothing deeper may be
/// built: it could not be parsed again, and libxml2 looks at all ancestors of a node where it sorts.
constexpr int kDeepest = 257;

/// The most attributes that an element may have, the namespaces it declares included. libxml2 compares each with
/// all others: 5,000 take it a tenth of a second on a desktop machine, 100,000 take it a minute.
constexpr size_t kMostAttributes = 5000;

/// libxml2 goes on without the memory that it did not get, and remembers that as the thread's last error. Throws
/// std::bad_alloc when that is so since the last xmlResetLastError.
void CheckXmlMemory();

/// One document's nodes, and who points where.
///
/// Scripts keep objects of elements for as long as they like, and elements are freed by the next edit. So an
/// object holds no element but a Reference, which is void from the moment the element is freed.
///
/// Owner:    the script's document object. The `_private` of the xmlDoc points here, that of each element
///           with references to its slot, that of other nodes is their number, for which elements have `content`.
/// Threads:  the one that holds the isolate. No script runs inside.
/// Failures: out of memory is std::bad_alloc with the tree unchanged.
class Tree {
 public:
  /// While an element lives, the generation of its slot is that of the references to it. Afterwards the slot
  /// waits for another element, with the next generation.
  struct Slot {
    union {
      xmlNode* element;
      Slot* nextFree;
    };
    uintptr_t generation;
  };

  /// Resolves to null once its element was freed.
  struct Reference {
    Slot* slot;
    uintptr_t generation;
  };

  /// A script object keeps a generation as a pointer, whose lowest bit is the engine's. A slot that has seen so
  /// many elements is not used again.
  static constexpr uintptr_t kLastGeneration = UINTPTR_MAX >> 1;

  explicit Tree(DocPointer doc);
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  /// The tree that an element belongs to.
  static Tree* Of(const xmlNode* node) { return static_cast<Tree*>(node->doc->_private); }

  xmlDoc* doc() const { return m_doc.get(); }

  /// About what the document takes of the process's memory, in bytes. Every edit keeps it up to date.
  int64_t size() const { return m_size; }

  Reference Refer(xmlNode* element);
  static xmlNode* Resolve(const Reference& reference);

  /// How many elements are around one.
  static int DepthOf(const xmlNode* element);

  /// Where a node stands in the document, counted from the document itself, which is 1; 0 for one that came after the
  /// last NumberNodes. Not for namespaces. Whatever is edited, numbers stay in order.
  static uintptr_t NumberOf(const xmlNode* node);
  void NumberNodes();

  /// Puts an element in the root's place. The old one is freed with all that is in it, as everything that an
  /// edit takes out.
  void SetRoot(NodePointer element);

  /// Adds an element before the element child of that index, or at the end when there are not so many.
  void InsertChild(xmlNode* parent, NodePointer element, uint32_t position);
  void InsertLast(xmlNode* parent, NodePointer element);

  /// Removes the first element child. False when there is none.
  bool RemoveFirstChild(xmlNode* parent);

  /// Replaces all children by a text, or by nothing when it is null.
  void SetText(xmlNode* element, const std::string* text);

  /// Adds an attribute or changes its value. The prefix of a name means the namespace that it has at this
  /// place, where it has one. Does nothing for a namespace declaration that the parser has read. Throws
  /// VornException for more attributes, or a longer value, than a document can have.
  void SetAttribute(xmlNode* element, const std::string& name, const std::string& value);

  /// Removes the first attribute of that name, whatever its prefix. False when there is none.
  bool RemoveAttribute(xmlNode* element, const std::string& name);

  /// A script has given this name to an element or an attribute.
  void NoteName(const std::string& name);

  /// Whether a script has given names that not every encoding can write.
  bool HasForeignNames() const { return m_hasForeignNames; }

 private:
  void Free(xmlNode* node);

  const DocPointer m_doc;
  int64_t m_size = 0;
  bool m_hasForeignNames = false;

  /// In a deque, because they must stay where they are.
  std::deque<Slot> m_slots;
  Slot* m_freeSlots = nullptr;
};

/// The value of an attribute by its name, with a prefix or without; the one that the document type declares for
/// it where the element has none; null otherwise.
XmlTextPointer GetAttributeValue(const xmlNode* element, const std::string& name);

/// Adds an attribute to a new element, where names are taken as they are. A second one of the same name
/// changes the first. Throws VornException for a value that is too long.
void AddAttribute(xmlNode* element, const std::string& name, const std::string& value);

/// Adds a text behind an element's children.
void AddText(xmlNode* element, const std::string& text);

}  // namespace vnjs
