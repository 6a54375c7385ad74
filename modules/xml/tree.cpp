#include "modules/xml/tree.h"

#include <libxml/dict.h>
#include <libxml/valid.h>
#include <vnjs/error.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace vnjs {

namespace {

/// About what a block of the heap costs beside its bytes.
constexpr int64_t kBlock = 16;

/// A document with the table of names that the parser gives it.
constexpr int64_t kDocumentSize = 6 * 1024;

/// Shorter names are part of what is estimated for a node.
constexpr int64_t kUsualName = 48;

/// What the parser takes for the value of an attribute, in bytes (XML_MAX_TEXT_LENGTH of libxml2).
constexpr size_t kLongestValue = 10000000;

/// About what a declaration takes beside the texts of an entity.
constexpr int64_t kDeclarationSize = 128;

/// Calls `visit` for a node and all that is below it, parents first. Only elements have anything below: what
/// hangs on an entity reference belongs to the entity. By a loop, whatever the depth.
template <typename Node, typename Visitor>
void VisitSubtree(Node* top, Visitor visit) {
  Node* node = top;
  while (node != nullptr) {
    visit(node);
    if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
      node = node->children;
      continue;
    }
    while (node != top && node->next == nullptr) node = node->parent;
    node = node == top ? nullptr : node->next;
  }
}

int64_t TextSize(const xmlChar* text) {
  return text == nullptr ? 0 : static_cast<int64_t>(strlen(FromXml(text))) + kBlock;
}

/// Names that the parser has read are in the document's table; those that scripts give are not.
int64_t NameSize(const xmlDoc* doc, const xmlChar* name) {
  const int64_t size = TextSize(name);
  if (size <= kUsualName) return 0;
  return doc != nullptr && doc->dict != nullptr && xmlDictOwns(doc->dict, name) != 0 ? 0 : size;
}

int64_t AttributeSize(const xmlAttr* attribute) {
  int64_t size = static_cast<int64_t>(sizeof(xmlAttr)) + kBlock + NameSize(attribute->doc, attribute->name);
  for (const xmlNode* text = attribute->children; text != nullptr; text = text->next) {
    size += static_cast<int64_t>(sizeof(xmlNode)) + kBlock + TextSize(text->content);
  }
  return size;
}

int64_t SubtreeSize(const xmlNode* top);

int64_t DeclarationsSize(const xmlNode* type) {
  int64_t size = 0;
  for (const xmlNode* declared = type->children; declared != nullptr; declared = declared->next) {
    size += kDeclarationSize;
    if (declared->type != XML_ENTITY_DECL) continue;
    const auto* const entity = reinterpret_cast<const xmlEntity*>(declared);
    size += TextSize(entity->content) + TextSize(entity->orig);
    // What its text means, once it was used.
    for (const xmlNode* node = entity->children; node != nullptr; node = node->next)
      size += SubtreeSize(node);
  }
  return size;
}

int64_t NodeSize(const xmlNode* node) {
  int64_t size = static_cast<int64_t>(sizeof(xmlNode)) + kBlock;
  if (node->type == XML_ELEMENT_NODE) {
    size += NameSize(node->doc, node->name);
    for (const xmlAttr* attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
      size += AttributeSize(attribute);
    }
    for (const xmlNs* space = node->nsDef; space != nullptr; space = space->next) {
      size += static_cast<int64_t>(sizeof(xmlNs)) + kBlock + TextSize(space->href) + TextSize(space->prefix);
    }
  } else if (node->type == XML_TEXT_NODE || node->type == XML_COMMENT_NODE || node->type == XML_PI_NODE) {
    size += TextSize(node->content);
  } else if (node->type == XML_DTD_NODE) {
    size += DeclarationsSize(node);
  }
  return size;
}

int64_t SubtreeSize(const xmlNode* top) {
  int64_t size = 0;
  VisitSubtree(top, [&size](const xmlNode* node) { size += NodeSize(node); });
  return size;
}

xmlNode* FirstElement(xmlNode* node) {
  while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
  return node;
}

/// The element child of that index, or null.
xmlNode* ElementChild(const xmlNode* parent, uint32_t position) {
  xmlNode* child = FirstElement(parent->children);
  while (child != nullptr && position-- > 0) child = FirstElement(child->next);
  return child;
}

/// Whether a serialiser would write the attribute's name so.
bool IsWrittenAs(const xmlAttr* attribute, const std::string& name) {
  if (attribute->name == nullptr) return false;
  const xmlChar* const prefix = attribute->ns == nullptr ? nullptr : attribute->ns->prefix;
  if (prefix == nullptr) return name == FromXml(attribute->name);
  return xmlStrQEqual(prefix, attribute->name, ToXml(name.c_str())) != 0;
}

xmlAttr* FindAttribute(const xmlNode* element, const std::string& name) {
  xmlAttr* attribute = element->properties;
  while (attribute != nullptr && !IsWrittenAs(attribute, name)) attribute = attribute->next;
  return attribute;
}

xmlAttr* FindAttribute(const xmlNode* element, const xmlChar* local, const xmlChar* uri) {
  xmlAttr* attribute = element->properties;
  while (attribute != nullptr && (attribute->ns == nullptr || xmlStrEqual(attribute->ns->href, uri) == 0 ||
                                  xmlStrEqual(attribute->name, local) == 0)) {
    attribute = attribute->next;
  }
  return attribute;
}

void CheckValue(const std::string& value) {
  if (value.size() > kLongestValue) throw VornException("Text is too long for an XML attribute");
}

/// libxml2's own function for this finds attributes by their namespace, and changes their prefix.
void SetValue(xmlAttr* attribute, const std::string& value) {
  NodePointer text(xmlNewDocTextLen(attribute->doc, ToXml(value.data()), static_cast<int>(value.size())));
  if (text == nullptr || text->content == nullptr) throw std::bad_alloc();
  const bool isId = attribute->atype == XML_ATTRIBUTE_ID;
  if (isId) xmlRemoveID(attribute->doc, attribute);
  xmlFreeNodeList(attribute->children);
  text->parent = reinterpret_cast<xmlNode*>(attribute);
  attribute->children = attribute->last = text.release();
  if (isId) xmlAddID(nullptr, attribute->doc, ToXml(value.c_str()), attribute);
}

/// Whether the element declares the namespace that an attribute of that name would declare once more.
bool DeclaresNamespace(const xmlNode* element, const std::string& name) {
  const bool isDefault = name == "xmlns";
  if (!isDefault && name.compare(0, 6, "xmlns:") != 0) return false;
  const xmlNs* space = element->nsDef;
  while (space != nullptr) {
    if (space->prefix == nullptr
            ? isDefault
            : !isDefault && name.compare(6, std::string::npos, FromXml(space->prefix)) == 0) {
      return true;
    }
    space = space->next;
  }
  return false;
}

/// Makes an attribute. Its name is a block of its own: in the document's table of names it would stay for the
/// document's life.
xmlAttr* NewAttribute(xmlNode* element, xmlNs* space, const char* name, const std::string& value) {
  xmlChar* const copy = xmlStrdup(ToXml(name));
  if (copy == nullptr) throw std::bad_alloc();
  // Takes the name over, even when it fails.
  xmlAttr* const attribute = xmlNewNsPropEatName(element, space, copy, ToXml(value.c_str()));
  if (attribute == nullptr) throw std::bad_alloc();
  if (!value.empty() && (attribute->children == nullptr || attribute->children->content == nullptr)) {
    xmlRemoveProp(attribute);
    throw std::bad_alloc();
  }
  return attribute;
}

}  // namespace

void CheckXmlMemory() {
  const xmlError* const error = xmlGetLastError();
  if (error != nullptr && error->code == XML_ERR_NO_MEMORY) throw std::bad_alloc();
}

Tree::Tree(DocPointer doc) : m_doc(std::move(doc)), m_size(kDocumentSize) {
  for (const xmlNode* node = m_doc->children; node != nullptr; node = node->next) m_size += SubtreeSize(node);
  m_doc->_private = this;
}

Tree::Reference Tree::Refer(xmlNode* element) {
  auto* slot = static_cast<Slot*>(element->_private);
  if (slot == nullptr) {
    if (m_freeSlots != nullptr) {
      slot = m_freeSlots;
      m_freeSlots = slot->nextFree;
    } else {
      m_slots.push_back(Slot{{nullptr}, 0});
      slot = &m_slots.back();
    }
    slot->element = element;
    element->_private = slot;
  }
  return {slot, slot->generation};
}

xmlNode* Tree::Resolve(const Reference& reference) {
  return reference.slot->generation == reference.generation ? reference.slot->element : nullptr;
}

int Tree::DepthOf(const xmlNode* element) {
  int depth = 0;
  for (; element != nullptr && element->type == XML_ELEMENT_NODE; element = element->parent) ++depth;
  return depth;
}

uintptr_t Tree::NumberOf(const xmlNode* node) {
  if (node->type == XML_DOCUMENT_NODE) return 1;
  return reinterpret_cast<uintptr_t>(node->type == XML_ELEMENT_NODE ? node->content : node->_private);
}

void Tree::NumberNodes() {
  uintptr_t last = 1;
  const auto number = [&last](xmlNode* node) {
    void* const next = reinterpret_cast<void*>(++last);
    if (node->type != XML_ELEMENT_NODE) {
      node->_private = next;
      return;
    }
    // libxml2 itself keeps there what it needs to sort.
    node->content = static_cast<xmlChar*>(next);
    for (xmlAttr* attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
      attribute->_private = reinterpret_cast<void*>(++last);
    }
  };
  for (xmlNode* node = m_doc->children; node != nullptr; node = node->next) {
    VisitSubtree(node, number);
    if (node->type != XML_DTD_NODE) continue;
    // XPath gets there from what stands before or behind it.
    for (xmlNode* declared = node->children; declared != nullptr; declared = declared->next) {
      number(declared);
      if (declared->type != XML_ENTITY_DECL) continue;
      for (xmlNode* part = declared->children; part != nullptr; part = part->next) VisitSubtree(part, number);
    }
  }
}

void Tree::Free(xmlNode* node) {
  VisitSubtree(node, [this](xmlNode* freed) {
    m_size -= NodeSize(freed);
    if (freed->type != XML_ELEMENT_NODE || freed->_private == nullptr) return;
    auto* const slot = static_cast<Slot*>(freed->_private);
    if (++slot->generation == kLastGeneration) return;
    slot->nextFree = m_freeSlots;
    m_freeSlots = slot;
  });
  xmlUnlinkNode(node);
  xmlFreeNode(node);
}

void Tree::SetRoot(NodePointer element) {
  xmlNode* const old = xmlDocGetRootElement(m_doc.get());
  m_size += SubtreeSize(element.get());
  xmlDocSetRootElement(m_doc.get(), element.release());
  if (old != nullptr) Free(old);
}

void Tree::InsertChild(xmlNode* parent, NodePointer element, uint32_t position) {
  xmlNode* const behind = ElementChild(parent, position);
  if (behind == nullptr) {
    InsertLast(parent, std::move(element));
    return;
  }
  m_size += SubtreeSize(element.get());
  xmlAddPrevSibling(behind, element.release());
}

void Tree::InsertLast(xmlNode* parent, NodePointer element) {
  m_size += SubtreeSize(element.get());
  xmlAddChild(parent, element.release());
}

bool Tree::RemoveFirstChild(xmlNode* parent) {
  xmlNode* const child = xmlFirstElementChild(parent);
  if (child == nullptr) return false;
  Free(child);
  return true;
}

void Tree::SetText(xmlNode* element, const std::string* text) {
  NodePointer made;
  if (text != nullptr && !text->empty()) {
    made.reset(xmlNewDocTextLen(m_doc.get(), ToXml(text->data()), static_cast<int>(text->size())));
    if (made == nullptr || made->content == nullptr) throw std::bad_alloc();
  }
  while (element->children != nullptr) Free(element->children);
  if (made == nullptr) return;
  m_size += NodeSize(made.get());
  xmlAddChild(element, made.release());
}

void Tree::SetAttribute(xmlNode* element, const std::string& name, const std::string& value) {
  if (DeclaresNamespace(element, name)) return;
  CheckValue(value);
  const int64_t size = NodeSize(element);
  xmlAttr* attribute = FindAttribute(element, name);
  int prefixSize = 0;
  const xmlChar* const local = xmlSplitQName3(ToXml(name.c_str()), &prefixSize);
  xmlNs* space = nullptr;
  if (attribute == nullptr && local != nullptr) {
    const std::string prefix(name, 0, static_cast<size_t>(prefixSize));
    space = xmlSearchNs(m_doc.get(), element, ToXml(prefix.c_str()));
    // Another prefix may mean the same namespace.
    if (space != nullptr) attribute = FindAttribute(element, local, space->href);
  }
  if (attribute != nullptr) {
    SetValue(attribute, value);
  } else {
    size_t count = 0;
    for (const xmlAttr* other = element->properties; other != nullptr; other = other->next) ++count;
    for (const xmlNs* other = element->nsDef; other != nullptr; other = other->next) ++count;
    if (count >= kMostAttributes) throw VornException("Too many XML attributes");
    NewAttribute(element, space, space == nullptr ? name.c_str() : FromXml(local), value);
  }
  NoteName(name);
  m_size += NodeSize(element) - size;
}

void Tree::NoteName(const std::string& name) {
  m_hasForeignNames |= std::any_of(name.begin(), name.end(), [](char c) { return (c & 0x80) != 0; });
}

bool Tree::RemoveAttribute(xmlNode* element, const std::string& name) {
  for (xmlAttr* attribute = element->properties; attribute != nullptr && attribute->name != nullptr;
       attribute = attribute->next) {
    if (name != FromXml(attribute->name)) continue;
    m_size -= AttributeSize(attribute);
    xmlRemoveProp(attribute);
    return true;
  }
  return false;
}

XmlTextPointer GetAttributeValue(const xmlNode* element, const std::string& name) {
  XmlTextPointer value(xmlGetProp(element, ToXml(name.c_str())));
  if (value != nullptr || name.find(':') == std::string::npos) return value;
  const xmlAttr* const attribute = FindAttribute(element, name);
  if (attribute != nullptr) value.reset(xmlNodeGetContent(reinterpret_cast<const xmlNode*>(attribute)));
  return value;
}

void AddAttribute(xmlNode* element, const std::string& name, const std::string& value) {
  CheckValue(value);
  if (xmlAttr* const attribute = FindAttribute(element, name)) xmlRemoveProp(attribute);
  NewAttribute(element, nullptr, name.c_str(), value);
}

void AddText(xmlNode* element, const std::string& text) {
  NodePointer node(xmlNewTextLen(ToXml(text.data()), static_cast<int>(text.size())));
  if (node == nullptr || node->content == nullptr) throw std::bad_alloc();
  xmlAddChild(element, node.release());
}

}  // namespace vnjs
