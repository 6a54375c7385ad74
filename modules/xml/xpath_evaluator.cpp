#include "modules/xml/xpath_evaluator.h"

#include <vnjs/error.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <unordered_set>
#include <utility>

#include "bridge/native.h"

namespace vnjs {

namespace {

using Kind = XPathExpression::Kind;

/// What an expression may cost before it is refused: about ten seconds of a desktop machine's time.
constexpr uint64_t kMostSteps = 1000000000;

/// How often the evaluation looks whether its script is to end: each millisecond or so.
constexpr uint64_t kStepsBetweenLooks = 50000;

/// How many bytes of text cost as much as a look at a node.
constexpr size_t kBytesPerStep = 32;

/// How many of them are counted at a time.
constexpr size_t kNamespacesPerCharge = 1024;

bool IsNamespace(const xmlNode* node) { return node->type == XML_NAMESPACE_DECL; }
const xmlNs* AsNamespace(const xmlNode* node) { return reinterpret_cast<const xmlNs*>(node); }

/// The nodes of namespaces are made anew by each step, and the same when they have the same element and prefix.
struct HashNode {
  size_t operator()(const xmlNode* node) const {
    if (IsNamespace(node)) return std::hash<const void*>()(AsNamespace(node)->next);
    return std::hash<const void*>()(node);
  }
};

struct IsSameNode {
  bool operator()(const xmlNode* a, const xmlNode* b) const {
    if (a == b || !IsNamespace(a) || !IsNamespace(b)) return a == b;
    return AsNamespace(a)->next == AsNamespace(b)->next &&
           xmlStrEqual(AsNamespace(a)->prefix, AsNamespace(b)->prefix) != 0;
  }
};

/// What lies behind an entity reference belongs to the document type.
bool IsReference(const xmlNode* node) { return node != nullptr && node->type == XML_ENTITY_REF_NODE; }

xmlNode* NextFollowing(xmlXPathParserContext* parser, xmlNode* node) {
  while (IsReference(node) && node->next == nullptr) node = node->parent;
  return IsReference(node) ? node->next : xmlXPathNextFollowing(parser, node);
}

/// libxml2's own function for this, without its looks at all ancestors.
xmlNode* NextPreceding(xmlXPathParserContext* parser, xmlNode* node) {
  if (node == nullptr) {
    node = parser->context->node;
    if (node == nullptr) return nullptr;
    if (IsNamespace(node)) {
      node = reinterpret_cast<xmlNode*>(reinterpret_cast<xmlNs*>(node)->next);
    } else if (node->type == XML_ATTRIBUTE_NODE) {
      node = node->parent;
    }
    if (node == nullptr) return nullptr;
    parser->ancestor = node->parent;
  }
  if (node->prev != nullptr && node->prev->type == XML_DTD_NODE) node = node->prev;
  while (node->prev == nullptr) {
    node = node->parent;
    if (node == nullptr || node == parser->context->doc->children) return nullptr;
    if (node != parser->ancestor) return node;
    parser->ancestor = node->parent;
  }
  node = node->prev;
  while (!IsReference(node) && node->last != nullptr) node = node->last;
  return node;
}

/// In the order of XPathStep::Axis.
constexpr xmlNode* (*kNext[])(xmlXPathParserContext*, xmlNode*) = {
    xmlXPathNextAncestor,   xmlXPathNextAncestorOrSelf,   xmlXPathNextAttribute, xmlXPathNextChild,
    xmlXPathNextDescendant, xmlXPathNextDescendantOrSelf, NextFollowing,         xmlXPathNextFollowingSibling,
    xmlXPathNextNamespace,  xmlXPathNextParent,           NextPreceding,         xmlXPathNextPrecedingSibling,
    xmlXPathNextSelf};
static_assert(std::size(kNext) == XPathStep::kAxisCount);

bool IsReverse(XPathStep::Axis axis) {
  return axis == XPathStep::kAncestor || axis == XPathStep::kAncestorOrSelf ||
         axis == XPathStep::kPreceding || axis == XPathStep::kPrecedingSibling;
}

/// Whether two nodes never lead to the same one, and what they lead to is in their own order.
bool KeepsApart(XPathStep::Axis axis) {
  return axis == XPathStep::kAttribute || axis == XPathStep::kNamespace || axis == XPathStep::kSelf;
}

bool IsOf(const xmlNs* space, const XPathStep& step, const xmlChar* uri) {
  if (step.prefix.empty()) return step.test == XPathStep::kAnyName || space == nullptr;
  return space != nullptr && xmlStrEqual(uri, space->href) != 0;
}

bool Matches(const XPathStep& step, const xmlChar* uri, const xmlNode* node) {
  switch (step.test) {
    case XPathStep::kAnyNode:
      switch (node->type) {
        case XML_DOCUMENT_NODE:
        case XML_ELEMENT_NODE:
        case XML_PI_NODE:
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
        case XML_COMMENT_NODE:
        case XML_ATTRIBUTE_NODE:
        case XML_NAMESPACE_DECL:
          return true;
        default:
          return false;
      }
    case XPathStep::kComment:
      return node->type == XML_COMMENT_NODE;
    case XPathStep::kText:
      return node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE;
    case XPathStep::kInstruction:
      return node->type == XML_PI_NODE &&
             (step.name.empty() || xmlStrEqual(node->name, ToXml(step.name.c_str())) != 0);
    case XPathStep::kAnyName:
    case XPathStep::kName:
      break;
  }
  const bool isAny = step.test == XPathStep::kAnyName;
  const xmlChar* const name = ToXml(step.name.c_str());
  if (step.axis == XPathStep::kNamespace) {
    return IsNamespace(node) && (isAny || (AsNamespace(node)->prefix != nullptr &&
                                           xmlStrEqual(AsNamespace(node)->prefix, name) != 0));
  }
  if (node->type != (step.axis == XPathStep::kAttribute ? XML_ATTRIBUTE_NODE : XML_ELEMENT_NODE))
    return false;
  if (!isAny && xmlStrEqual(node->name, name) == 0) return false;
  // Attributes have it at the same place as elements, without a prefix only by mistake.
  const xmlNs* space = node->ns;
  const bool isAttribute = node->type == XML_ATTRIBUTE_NODE;
  if (isAttribute) space = reinterpret_cast<const xmlAttr*>(node)->ns;
  if (isAttribute && step.prefix.empty() && space != nullptr && space->prefix == nullptr) return true;
  return IsOf(space, step, uri);
}

/// The number of a predicate like `[3]`; 0 for others.
size_t PositionOf(const XPathExpression& predicate) {
  if (predicate.kind != Kind::kNumber || !(predicate.number >= 1 && predicate.number < 1e9)) return 0;
  const auto position = static_cast<size_t>(predicate.number);
  return static_cast<double>(position) == predicate.number ? position : 0;
}

bool IsLiteral(const XPathExpression& expression) {
  if (expression.kind != Kind::kPath)
    return expression.kind == Kind::kNumber || expression.kind == Kind::kText;
  return expression.operands.size() == 1 && expression.predicates.empty() && expression.steps.empty() &&
         IsLiteral(*expression.operands[0]);
}

/// libxml2 does not look whether it is nodes that have the first predicate behind parentheses when that is `[1]` or
/// `[last()]`.
bool IsForAnyValue(const XPathExpression& operand, const XPathExpression& predicate) {
  const bool isLast = predicate.kind == Kind::kCall && predicate.prefix.empty() && predicate.text == "last" &&
                      predicate.operands.empty();
  return operand.kind == Kind::kPath && !IsLiteral(operand) && (isLast || PositionOf(predicate) == 1);
}

}  // namespace

class XPathEvaluator::Seen {
 public:
  /// True for the first time that it is asked about a node.
  bool IsNew(xmlNode* node) { return m_nodes.insert(node).second; }

 private:
  std::unordered_set<xmlNode*, HashNode, IsSameNode> m_nodes;
};

XPathEvaluator::XPathEvaluator(Environment* environment, xmlXPathParserContext* parser)
    : m_environment(environment),
      m_memory(GetMemoryBudget(environment)),
      m_parser(parser),
      m_context(parser->context),
      m_namespacesCharge(m_memory, 0) {
  // libxml2 makes the stack that its functions use only where it evaluates itself.
  constexpr int kValues = 10;
  if (parser->valueTab != nullptr) return;
  parser->valueTab = static_cast<xmlXPathObject**>(xmlMalloc(kValues * sizeof(xmlXPathObject*)));
  if (parser->valueTab == nullptr) throw std::bad_alloc();
  parser->valueMax = kValues;
}

void XPathEvaluator::Look() {
  if (IsInterrupted(m_environment)) throw XPathInterrupt();
  if (m_steps > kMostSteps) throw VornException("XPath expression is too costly");
  m_nextLook = m_steps + kStepsBetweenLooks;
}

void XPathEvaluator::SpendText(size_t bytes) { Spend(1 + bytes / kBytesPerStep); }

XPathValue XPathEvaluator::Evaluate(const XPathExpression& expression) {
  XPathValue value = Compute(expression);
  if (value.type == XPathValue::kNodes) Sort(&value.nodes);
  return value;
}

XPathValue XPathEvaluator::Compute(const XPathExpression& expression) {
  Spend(1);
  RequireXPathStack();
  XPathValue result;
  switch (expression.kind) {
    case Kind::kOr:
    case Kind::kAnd:
      result.type = XPathValue::kBoolean;
      result.boolean = Test(expression);
      return result;
    case Kind::kSign:
    case Kind::kSum:
    case Kind::kProduct:
      result.type = XPathValue::kNumber;
      result.number = ComputeNumber(expression);
      return result;
    case Kind::kEquality:
    case Kind::kRelation:
      return ComputeChain(expression);
    case Kind::kUnion:
      result.nodes = ComputeUnion(expression, false);
      return result;
    case Kind::kPath:
      return ComputePath(expression, false);
    case Kind::kNumber:
      result.type = XPathValue::kNumber;
      result.number = expression.number;
      return result;
    case Kind::kText:
      result.type = XPathValue::kText;
      result.text.text = expression.text;
      return result;
    case Kind::kVariable:
      Fail(XPATH_UNDEF_VARIABLE_ERROR);
    case Kind::kCall:
      break;
  }
  return Call(expression);
}

bool XPathEvaluator::Test(const XPathExpression& expression) {
  switch (expression.kind) {
    case Kind::kOr:
      return std::any_of(expression.operands.begin(), expression.operands.end(),
                         [this](const XPathExpressionPointer& operand) { return Test(*operand); });
    case Kind::kAnd:
      return std::all_of(expression.operands.begin(), expression.operands.end(),
                         [this](const XPathExpressionPointer& operand) { return Test(*operand); });
    case Kind::kUnion:
      return !ComputeUnion(expression, true).nodes.empty();
    case Kind::kPath:
      return ToBoolean(ComputePath(expression, true));
    default:
      return ToBoolean(Compute(expression));
  }
}

double XPathEvaluator::ComputeNumber(const XPathExpression& expression) {
  XPathValue first = Compute(*expression.operands[0]);
  double result = ToNumber(&first);
  if (expression.kind == Kind::kSign) return expression.flag ? -result : result;
  for (size_t i = 1; i < expression.operands.size(); ++i) {
    XPathValue next = Compute(*expression.operands[i]);
    const double number = ToNumber(&next);
    switch (expression.operators[i - 1]) {
      case XPathExpression::kPlus:
        result += number;
        break;
      case XPathExpression::kMinus:
        result -= number;
        break;
      case XPathExpression::kTimes:
        result *= number;
        break;
      case XPathExpression::kDiv:
        result /= number;
        break;
      default:
        result = number == 0 ? std::numeric_limits<double>::quiet_NaN() : fmod(result, number);
    }
  }
  return result;
}

XPathValue XPathEvaluator::ComputeChain(const XPathExpression& expression) {
  XPathValue result = Compute(*expression.operands[0]);
  for (size_t i = 1; i < expression.operands.size(); ++i) {
    XPathValue next = Compute(*expression.operands[i]);
    const bool holds = Compare(expression.operators[i - 1], &result, &next);
    result = XPathValue();
    result.type = XPathValue::kBoolean;
    result.boolean = holds;
  }
  return result;
}

XPathNodes XPathEvaluator::ComputeUnion(const XPathExpression& expression, bool isAnyEnough) {
  XPathNodes result;
  Seen seen;
  for (const XPathExpressionPointer& operand : expression.operands) {
    const XPathValue part = Compute(*operand);
    if (part.type != XPathValue::kNodes) Fail(XPATH_INVALID_TYPE);
    Spend(part.nodes.nodes.size());
    for (xmlNode* const node : part.nodes.nodes) {
      if (seen.IsNew(node)) result.nodes.push_back(node);
    }
    if (isAnyEnough && !result.nodes.empty()) break;
  }
  result.isSorted = false;
  return result;
}

XPathValue XPathEvaluator::ComputePath(const XPathExpression& expression, bool isAnyEnough) {
  XPathValue value;
  if (expression.operands.empty()) {
    xmlNode* const start = expression.flag ? reinterpret_cast<xmlNode*>(m_context->doc) : m_context->node;
    if (start != nullptr) value.nodes.nodes.push_back(start);
  } else {
    value = Compute(*expression.operands[0]);
    Sort(&value.nodes);
  }
  for (const XPathExpressionPointer& predicate : expression.predicates) {
    if (value.type == XPathValue::kNodes) {
      Keep(*predicate, &value.nodes.nodes);
    } else if (&predicate != &expression.predicates.front() ||
               !IsForAnyValue(*expression.operands[0], *predicate)) {
      Fail(XPATH_INVALID_TYPE);
    }
  }
  if (value.type != XPathValue::kNodes && !expression.steps.empty()) Fail(XPATH_INVALID_TYPE);
  for (const XPathStep& step : expression.steps) {
    value.nodes = Take(step, value.nodes, isAnyEnough && &step == &expression.steps.back());
  }
  return value;
}

XPathNodes XPathEvaluator::Take(const XPathStep& step, const XPathNodes& from, bool isAnyEnough) {
  const xmlChar* uri = nullptr;
  if (!step.prefix.empty()) {
    uri = xmlXPathNsLookup(m_context, ToXml(step.prefix.c_str()));
    if (uri == nullptr) Fail(XPATH_UNDEF_PREFIX_ERROR);
  }
  const bool isOne = from.nodes.size() == 1;
  XPathNodes result;
  result.isSorted = (isOne && !IsReverse(step.axis)) || (from.isSorted && KeepsApart(step.axis));
  const bool canMeet = !isOne && !KeepsApart(step.axis) && step.axis != XPathStep::kChild;
  const size_t nth = step.predicates.empty() ? 0 : PositionOf(*step.predicates.back());
  size_t most = std::numeric_limits<size_t>::max();
  if (step.predicates.empty() && isAnyEnough) most = 1;
  if (step.predicates.size() == 1 && nth != 0) most = nth;
  Seen seen;
  Nodes found;
  for (xmlNode* const node : from.nodes) {
    found.clear();
    Nodes* const target = canMeet || !step.predicates.empty() ? &found : &result.nodes;
    Collect(step, uri, node, most, target);
    // Nor does libxml2 ask anything of nodes that a last `[9]` is going to drop.
    if (nth != 0 && target->size() < nth) target->clear();
    for (const XPathExpressionPointer& predicate : step.predicates) Keep(*predicate, target);
    if (target == &found) {
      for (xmlNode* const kept : found) {
        if (!canMeet || seen.IsNew(kept)) result.nodes.push_back(kept);
      }
    }
    if (isAnyEnough && !result.nodes.empty()) break;
  }
  return result;
}

void XPathEvaluator::Collect(const XPathStep& step, const xmlChar* uri, xmlNode* from, size_t most,
                             Nodes* found) {
  xmlNode* const before = std::exchange(m_context->node, from);
  const auto next = kNext[step.axis];
  const size_t enough = most > found->max_size() - found->size() ? most : found->size() + most;
  Spend(1);
  for (xmlNode* node = next(m_parser, nullptr); node != nullptr; node = next(m_parser, node)) {
    Spend(1);
    if (!Matches(step, uri, node)) continue;
    found->push_back(step.axis == XPathStep::kNamespace ? MakeNamespace(AsNamespace(node), from) : node);
    if (found->size() >= enough) break;
  }
  if (step.axis == XPathStep::kNamespace && m_context->tmpNsList != nullptr) {
    xmlFree(std::exchange(m_context->tmpNsList, nullptr));
  }
  m_context->node = before;
}

void XPathEvaluator::Keep(const XPathExpression& predicate, Nodes* nodes) {
  if (const size_t position = PositionOf(predicate); position != 0) {
    if (position <= nodes->size()) nodes->front() = (*nodes)[position - 1];
    nodes->resize(position <= nodes->size() ? 1 : 0);
    return;
  }
  xmlNode* const node = m_context->node;
  const int size = std::exchange(m_context->contextSize, static_cast<int>(nodes->size()));
  const int before = m_context->proximityPosition;
  const bool canBeNumber = predicate.kind == Kind::kNumber || predicate.kind == Kind::kSum ||
                           predicate.kind == Kind::kProduct || predicate.kind == Kind::kSign ||
                           predicate.kind == Kind::kCall || predicate.kind == Kind::kPath;
  size_t kept = 0;
  for (size_t i = 0; i < nodes->size(); ++i) {
    const size_t namespaces = m_namespaces.size();
    m_context->node = (*nodes)[i];
    m_context->proximityPosition = static_cast<int>(i) + 1;
    bool holds = false;
    if (canBeNumber &&
        !(predicate.kind == Kind::kPath && (predicate.operands.empty() || !predicate.steps.empty()))) {
      const XPathValue value = Compute(predicate);
      holds =
          value.type == XPathValue::kNumber ? value.number == m_context->proximityPosition : ToBoolean(value);
    } else {
      holds = Test(predicate);
    }
    if (holds) (*nodes)[kept++] = (*nodes)[i];
    m_namespaces.resize(namespaces);
  }
  nodes->resize(kept);
  m_context->node = node;
  m_context->contextSize = size;
  m_context->proximityPosition = before;
}

xmlNode* XPathEvaluator::MakeNamespace(const xmlNs* declared, xmlNode* element) {
  if (m_namespaces.size() % kNamespacesPerCharge == 0) {
    constexpr size_t kSize = sizeof(xmlNs) * kNamespacesPerCharge;
    RequireMemory(m_environment, kSize);
    m_namespacesCharge.Set(sizeof(xmlNs) * m_namespaces.size() + kSize);
  }
  m_namespaces.push_back(*declared);
  xmlNs& made = m_namespaces.back();
  // As libxml2 does it.
  made.next = reinterpret_cast<xmlNs*>(element);
  return reinterpret_cast<xmlNode*>(&made);
}

void XPathEvaluator::Sort(XPathNodes* nodes) {
  if (nodes->isSorted) return;
  nodes->isSorted = true;
  Nodes& list = nodes->nodes;
  // Those of namespaces alone stay as they were found.
  if (list.size() < 2 || std::all_of(list.begin(), list.end(), IsNamespace)) return;
  Tree* const tree = static_cast<Tree*>(m_context->doc->_private);
  const auto number = [](const xmlNode* node) {
    // Behind their element, before its attributes.
    if (!IsNamespace(node)) return 2 * Tree::NumberOf(node);
    return 2 * Tree::NumberOf(reinterpret_cast<const xmlNode*>(AsNamespace(node)->next)) + 1;
  };
  std::vector<std::pair<uint64_t, xmlNode*>> numbered;
  numbered.reserve(list.size());
  bool isNumbered = true;
  const auto read = [&] {
    numbered.clear();
    isNumbered = true;
    for (xmlNode* const node : list) {
      numbered.emplace_back(number(node), node);
      isNumbered &= numbered.back().first > 1;
    }
  };
  read();
  if (!isNumbered) {
    tree->NumberNodes();
    read();
  }
  const auto isBefore = [](const auto& a, const auto& b) { return a.first < b.first; };
  Spend(list.size());
  if (std::is_sorted(numbered.begin(), numbered.end(), isBefore)) return;
  Spend(4 * list.size());
  std::stable_sort(numbered.begin(), numbered.end(), isBefore);
  for (size_t i = 0; i < list.size(); ++i) list[i] = numbered[i].second;
}

}  // namespace vnjs
