#pragma once

#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <vnjs/environment.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "bridge/memory_budget.h"
#include "modules/xml/tree.h"
#include "modules/xml/xpath_expression.h"

namespace vnjs {

/// A text that ends with a zero, perhaps one of its own. Where it is not, it is part of the tree or of the expression.
struct XPathText {
  std::string_view text;
  XmlTextPointer owner;

  /// Of a long one.
  MemoryCharge charge;
};

/// Nodes, each of them once.
struct XPathNodes {
  std::vector<xmlNode*> nodes;

  /// Whether they are known to be in the order of the document.
  bool isSorted = true;
};

struct XPathValue {
  enum Type { kNodes, kBoolean, kNumber, kText };

  Type type = kNodes;
  XPathNodes nodes;
  bool boolean = false;
  double number = 0;
  XPathText text;
};

/// Thrown through an evaluation when the script that waits for it is to end.
struct XPathInterrupt {};

/// Evaluates XPath expressions by libxml2's functions and to libxml2's results, but without its sets of nodes: merging
/// and sorting them takes it the square of their size, without a look at anything. Every step here counts, and looks
/// now and then whether the script is to end.
///
/// Threads:  the one that holds the isolate. No script runs inside, but garbage may be collected.
/// Failures: an expression that is wrong throws XPathFailure, after libxml2 has reported it; VornException, for one that
///           costs too much or whose texts do not fit into the environment's memory; XPathInterrupt.
/// Ending:   nodes of namespaces that a value holds go with the evaluator, all others belong to the document.
class XPathEvaluator {
 public:
  /// `parser` has the document, which is a Tree's, the node to start from and the prefixes in its context, and the
  /// expression, which it has read.
  XPathEvaluator(Environment* environment, xmlXPathParserContext* parser);
  XPathEvaluator(const XPathEvaluator&) = delete;
  XPathEvaluator& operator=(const XPathEvaluator&) = delete;

  /// Nodes are in the order of the document.
  XPathValue Evaluate(const XPathExpression& expression);

  /// As XPath has them. That of a value may be taken from it.
  XPathText TextOf(xmlNode* node);
  XPathText ToText(XPathValue* value);

 private:
  using Nodes = std::vector<xmlNode*>;
  using Arguments = std::vector<XPathValue>;
  class Seen;

  /// Counts work, in about what it takes to look at a node.
  void Spend(uint64_t steps) {
    m_steps += steps;
    if (m_steps >= m_nextLook) Look();
  }
  void SpendText(size_t bytes);
  void Look();
  [[noreturn]] void Fail(xmlXPathError error) { FailXPath(m_parser, error); }

  XPathValue Compute(const XPathExpression& expression);
  bool Test(const XPathExpression& expression);
  double ComputeNumber(const XPathExpression& expression);
  XPathValue ComputeChain(const XPathExpression& expression);
  XPathNodes ComputeUnion(const XPathExpression& expression, bool isAnyEnough);
  XPathValue ComputePath(const XPathExpression& expression, bool isAnyEnough);

  XPathNodes Take(const XPathStep& step, const XPathNodes& from, bool isAnyEnough);
  void Collect(const XPathStep& step, const xmlChar* uri, xmlNode* from, size_t most, Nodes* found);
  void Keep(const XPathExpression& predicate, Nodes* nodes);
  xmlNode* Next(XPathStep::Axis axis, xmlNode* node);
  xmlNode* MakeNamespace(const xmlNs* declared, xmlNode* element);
  void Sort(XPathNodes* nodes);

  bool Compare(XPathExpression::Operator how, XPathValue* left, XPathValue* right);
  bool CompareNodes(XPathExpression::Operator how, const Nodes& left, const Nodes& right);
  bool CompareNodesWith(XPathExpression::Operator how, const Nodes& nodes, const XPathValue& value);

  XPathValue Call(const XPathExpression& expression);
  bool CallOwn(std::string_view name, Arguments* arguments, XPathValue* result);
  XPathValue CallLibrary(xmlXPathFunction function, const XPathExpression& expression, Arguments* arguments);
  XPathNodes FindIds(xmlXPathFunction function, const Nodes& nodes);
  xmlXPathObject* ToObject(std::string_view function, XPathValue* value);
  XPathValue FromObject(xmlXPathObject* object);
  XPathText Translate(std::string_view text, std::string_view from, std::string_view to);

  XPathText Own(xmlChar* text);
  XPathText Copy(std::string_view text);
  static bool ToBoolean(const XPathValue& value);
  double ToNumber(XPathValue* value);
  double ToNumber(const XPathText& text);
  XPathText ToText(XPathNodes* nodes);

  Environment* const m_environment;
  const std::shared_ptr<MemoryBudget> m_memory;
  xmlXPathParserContext* const m_parser;
  xmlXPathContext* const m_context;

  uint64_t m_steps = 0;
  uint64_t m_nextLook = 0;

  /// The nodes of namespaces that are in a value. Their `next` is the element. In a deque, because they must stay where
  /// they are; the strings are the tree's.
  std::deque<xmlNs> m_namespaces;
  MemoryCharge m_namespacesCharge;
};

}  // namespace vnjs
