// What XPath does with values: functions, conversions and comparisons.
#include <vnjs/error.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <unordered_set>
#include <utility>

#include "bridge/native.h"
#include "modules/xml/xpath_evaluator.h"

namespace vnjs {

namespace {

using Operator = XPathExpression::Operator;

/// Texts that are longer count against the environment's memory while they are there.
constexpr size_t kLongText = 16 * 1024;

struct FreeObject {
  void operator()(xmlXPathObject* object) const { xmlXPathFreeObject(object); }
};

size_t LengthOfCharacter(const char* text) {
  const auto first = static_cast<unsigned char>(*text);
  return first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

/// The only text of an element or attribute, or the node's own; null when it is made of several parts.
const char* FindText(const xmlNode* node) {
  switch (node->type) {
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
    case XML_COMMENT_NODE:
    case XML_PI_NODE:
      return node->content == nullptr ? "" : FromXml(node->content);
    case XML_NAMESPACE_DECL: {
      const auto* const space = reinterpret_cast<const xmlNs*>(node);
      return space->href == nullptr ? "" : FromXml(space->href);
    }
    case XML_ELEMENT_NODE:
    case XML_ATTRIBUTE_NODE: {
      const xmlNode* const child = node->children;
      if (child == nullptr) return "";
      if (child->next != nullptr || child->type != XML_TEXT_NODE) return nullptr;
      return child->content == nullptr ? "" : FromXml(child->content);
    }
    default:
      return nullptr;
  }
}

template <typename Value>
bool Holds(Operator how, const Value& left, const Value& right) {
  switch (how) {
    case XPathExpression::kEqual:
      return left == right;
    case XPathExpression::kUnequal:
      return left != right;
    case XPathExpression::kLess:
      return left < right;
    case XPathExpression::kLessOrEqual:
      return left <= right;
    case XPathExpression::kMore:
      return left > right;
    default:
      return left >= right;
  }
}

bool IsEquality(Operator how) { return how == XPathExpression::kEqual || how == XPathExpression::kUnequal; }

/// How to write it with the operands changed.
Operator Mirrored(Operator how) {
  switch (how) {
    case XPathExpression::kLess:
      return XPathExpression::kMore;
    case XPathExpression::kLessOrEqual:
      return XPathExpression::kMoreOrEqual;
    case XPathExpression::kMore:
      return XPathExpression::kLess;
    case XPathExpression::kMoreOrEqual:
      return XPathExpression::kLessOrEqual;
    default:
      return how;
  }
}

/// Whether a function takes the text of the context node where it gets nothing.
bool TakesText(const XPathExpression& call) {
  return call.prefix.empty() && (call.text == "string" || call.text == "string-length" ||
                                 call.text == "normalize-space" || call.text == "number");
}

}  // namespace

// --- Conversions -----------------------------------------------------------------------------------------------

XPathText XPathEvaluator::Own(xmlChar* text) {
  if (text == nullptr) throw std::bad_alloc();
  XPathText result;
  result.owner.reset(text);
  result.text = FromXml(text);
  SpendText(result.text.size());
  if (result.text.size() < kLongText) return result;
  result.charge = MemoryCharge(m_memory, result.text.size());
  // For the copy that a function makes.
  RequireMemoryBriefly(m_environment, result.text.size());
  return result;
}

XPathText XPathEvaluator::Copy(std::string_view text) {
  return Own(xmlStrndup(ToXml(text.data()), static_cast<int>(text.size())));
}

XPathText XPathEvaluator::TextOf(xmlNode* node) {
  if (const char* const text = FindText(node)) {
    XPathText result;
    result.text = text;
    SpendText(result.text.size());
    return result;
  }
  return Own(xmlXPathCastNodeToString(node));
}

XPathText XPathEvaluator::ToText(XPathNodes* nodes) {
  Sort(nodes);
  if (!nodes->nodes.empty()) return TextOf(nodes->nodes.front());
  XPathText empty;
  empty.text = "";
  return empty;
}

XPathText XPathEvaluator::ToText(XPathValue* value) {
  XPathText result;
  switch (value->type) {
    case XPathValue::kNodes:
      return ToText(&value->nodes);
    case XPathValue::kBoolean:
      result.text = value->boolean ? "true" : "false";
      return result;
    case XPathValue::kNumber:
      return Own(xmlXPathCastNumberToString(value->number));
    case XPathValue::kText:
      break;
  }
  return std::move(value->text);
}

double XPathEvaluator::ToNumber(const XPathText& text) {
  SpendText(text.text.size());
  return xmlXPathCastStringToNumber(ToXml(text.text.data()));
}

double XPathEvaluator::ToNumber(XPathValue* value) {
  if (value->type == XPathValue::kNumber) return value->number;
  if (value->type == XPathValue::kBoolean) return value->boolean ? 1 : 0;
  return ToNumber(ToText(value));
}

bool XPathEvaluator::ToBoolean(const XPathValue& value) {
  switch (value.type) {
    case XPathValue::kNodes:
      return !value.nodes.nodes.empty();
    case XPathValue::kBoolean:
      return value.boolean;
    case XPathValue::kNumber:
      return value.number != 0 && !std::isnan(value.number);
    case XPathValue::kText:
      break;
  }
  return !value.text.text.empty();
}

// --- Comparisons -----------------------------------------------------------------------------------------------

bool XPathEvaluator::Compare(Operator how, XPathValue* left, XPathValue* right) {
  using Type = XPathValue::Type;
  const bool isLeftNodes = left->type == Type::kNodes;
  const bool isRightNodes = right->type == Type::kNodes;
  const bool isBoolean = left->type == Type::kBoolean || right->type == Type::kBoolean;
  if (isBoolean && IsEquality(how)) return Holds(how, ToBoolean(*left), ToBoolean(*right));
  if (isBoolean) {
    // A set of nodes counts as whether it has any.
    for (XPathValue* const value : {left, right}) {
      if (value->type != Type::kNodes) continue;
      value->boolean = ToBoolean(*value);
      value->type = Type::kBoolean;
    }
  } else if (isLeftNodes && isRightNodes) {
    return CompareNodes(how, left->nodes.nodes, right->nodes.nodes);
  } else if (isLeftNodes) {
    return CompareNodesWith(how, left->nodes.nodes, *right);
  } else if (isRightNodes) {
    return CompareNodesWith(Mirrored(how), right->nodes.nodes, *left);
  } else if (left->type == Type::kText && right->type == Type::kText && IsEquality(how)) {
    SpendText(left->text.text.size());
    return Holds(how, left->text.text, right->text.text);
  }
  return Holds(how, ToNumber(left), ToNumber(right));
}

bool XPathEvaluator::CompareNodesWith(Operator how, const Nodes& nodes, const XPathValue& value) {
  const bool isText = value.type == XPathValue::kText && IsEquality(how);
  const double number = value.type == XPathValue::kNumber ? value.number : isText ? 0 : ToNumber(value.text);
  return std::any_of(nodes.begin(), nodes.end(), [&](xmlNode* node) {
    const XPathText text = TextOf(node);
    return isText ? Holds(how, text.text, value.text.text) : Holds(how, ToNumber(text), number);
  });
}

bool XPathEvaluator::CompareNodes(Operator how, const Nodes& left, const Nodes& right) {
  if (left.empty() || right.empty()) return false;
  if (how == XPathExpression::kUnequal) {
    // Only where all have one text, no two differ.
    const XPathText first = TextOf(left.front());
    const auto differs = [&](xmlNode* node) { return TextOf(node).text != first.text; };
    return std::any_of(left.begin(), left.end(), differs) || std::any_of(right.begin(), right.end(), differs);
  }
  if (how == XPathExpression::kEqual) {
    const Nodes& few = left.size() < right.size() ? left : right;
    const Nodes& many = left.size() < right.size() ? right : left;
    std::vector<XPathText> owners;
    std::unordered_set<std::string_view> texts;
    for (xmlNode* const node : few) {
      XPathText text = TextOf(node);
      if (texts.insert(text.text).second && text.owner != nullptr) owners.push_back(std::move(text));
    }
    return std::any_of(many.begin(), many.end(),
                       [&](xmlNode* node) { return texts.count(TextOf(node).text) != 0; });
  }
  // The least of one side against the greatest of the other.
  const bool isLess = how == XPathExpression::kLess || how == XPathExpression::kLessOrEqual;
  const auto extreme = [this](const Nodes& nodes, bool isLeast) {
    double result = NAN;
    for (xmlNode* const node : nodes) {
      const double number = ToNumber(TextOf(node));
      // Also while there is none.
      if (!std::isnan(number) && !(isLeast ? result <= number : result >= number)) result = number;
    }
    return result;
  };
  return Holds(how, extreme(left, isLess), extreme(right, !isLess));
}

// --- Functions -------------------------------------------------------------------------------------------------

XPathValue XPathEvaluator::Call(const XPathExpression& expression) {
  Arguments arguments;
  for (const XPathExpressionPointer& operand : expression.operands) {
    arguments.push_back(Compute(*operand));
    // What a function gets is in the document's order, or it makes a text of it.
    if (arguments.back().type == XPathValue::kNodes && expression.text != "count")
      Sort(&arguments.back().nodes);
  }
  if (arguments.empty() && m_context->node != nullptr && TakesText(expression)) {
    arguments.emplace_back();
    arguments[0].type = XPathValue::kText;
    arguments[0].text = TextOf(m_context->node);
  }
  XPathValue result;
  if (expression.prefix.empty() && CallOwn(expression.text, &arguments, &result)) return result;
  const xmlChar* const name = ToXml(expression.text.c_str());
  xmlXPathFunction function = nullptr;
  if (expression.prefix.empty()) {
    function = xmlXPathFunctionLookup(m_context, name);
  } else {
    const xmlChar* const uri = xmlXPathNsLookup(m_context, ToXml(expression.prefix.c_str()));
    if (uri == nullptr) Fail(XPATH_UNDEF_PREFIX_ERROR);
    function = xmlXPathFunctionLookupNS(m_context, name, uri);
  }
  if (function == nullptr) Fail(XPATH_UNKNOWN_FUNC_ERROR);
  if (expression.text == "id" && arguments.size() == 1 && arguments[0].type == XPathValue::kNodes) {
    result.nodes = FindIds(function, arguments[0].nodes.nodes);
    return result;
  }
  return CallLibrary(function, expression, &arguments);
}

bool XPathEvaluator::CallOwn(std::string_view name, Arguments* arguments, XPathValue* result) {
  Arguments& all = *arguments;
  const auto is = [&](std::string_view expected, size_t count) {
    return name == expected && all.size() == count;
  };
  const auto set = [result](auto value) {
    constexpr bool isBoolean = std::is_same_v<decltype(value), bool>;
    result->type = isBoolean ? XPathValue::kBoolean : XPathValue::kNumber;
    if constexpr (isBoolean) {
      result->boolean = value;
    } else {
      result->number = value;
    }
    return true;
  };
  const bool hasNodes = all.size() == 1 && all[0].type == XPathValue::kNodes;
  if (is("not", 1)) return set(!ToBoolean(all[0]));
  if (is("boolean", 1)) return set(ToBoolean(all[0]));
  if (is("true", 0) || is("false", 0)) return set(name == "true");
  if (is("position", 0) && m_context->proximityPosition >= 0)
    return set(double(m_context->proximityPosition));
  if (is("last", 0) && m_context->contextSize >= 0) return set(double(m_context->contextSize));
  if (is("number", 1)) return set(ToNumber(&all[0]));
  if (is("count", 1) && hasNodes) return set(static_cast<double>(all[0].nodes.nodes.size()));
  if (is("sum", 1) && hasNodes) {
    double sum = 0;
    for (xmlNode* const node : all[0].nodes.nodes) sum += ToNumber(TextOf(node));
    return set(sum);
  }
  const auto setText = [result](XPathText text) {
    result->type = XPathValue::kText;
    result->text = std::move(text);
    return true;
  };
  if (is("string", 1)) return setText(ToText(&all[0]));
  if (is("translate", 3)) {
    const XPathText text = ToText(&all[0]), from = ToText(&all[1]), to = ToText(&all[2]);
    return setText(Translate(text.text, from.text, to.text));
  }
  // libxml2 looks for each character of one text in the other.
  const bool isContains = is("contains", 2);
  const bool isAfter = is("substring-after", 2);
  if (!isContains && !isAfter && !is("substring-before", 2)) return false;
  const XPathText text = ToText(&all[0]), part = ToText(&all[1]);
  SpendText(text.text.size() + part.text.size());
  const auto* const found = static_cast<const char*>(
      memmem(text.text.data(), text.text.size(), part.text.data(), part.text.size()));
  if (isContains) return set(found != nullptr);
  if (found == nullptr) return setText(Copy(""));
  const auto before = static_cast<size_t>(found - text.text.data());
  return setText(Copy(isAfter ? text.text.substr(before + part.text.size()) : text.text.substr(0, before)));
}

XPathText XPathEvaluator::Translate(std::string_view text, std::string_view from, std::string_view to) {
  // Each character becomes another one, or nothing.
  std::map<std::string_view, std::string_view> changes;
  for (size_t i = 0, j = 0; i < from.size();) {
    SpendText(64);
    const std::string_view character = from.substr(i, LengthOfCharacter(&from[i]));
    const std::string_view other =
        j < to.size() ? to.substr(j, LengthOfCharacter(&to[j])) : std::string_view();
    changes.emplace(character, other);
    i += character.size();
    j += other.size();
  }
  std::string result;
  for (size_t i = 0; i < text.size();) {
    SpendText(8);
    const std::string_view character = text.substr(i, LengthOfCharacter(&text[i]));
    const auto change = changes.find(character);
    result += change == changes.end() ? character : change->second;
    i += character.size();
  }
  return Copy(result);
}

XPathNodes XPathEvaluator::FindIds(xmlXPathFunction function, const Nodes& nodes) {
  XPathNodes result;
  result.isSorted = false;
  std::unordered_set<xmlNode*> seen;
  for (xmlNode* const node : nodes) {
    valuePush(m_parser, xmlXPathNewString(ToXml(TextOf(node).text.data())));
    function(m_parser, 1);
    XPathValue found = FromObject(valuePop(m_parser));
    for (xmlNode* const element : found.nodes.nodes) {
      if (seen.insert(element).second) result.nodes.push_back(element);
    }
  }
  return result;
}

xmlXPathObject* XPathEvaluator::ToObject(std::string_view function, XPathValue* value) {
  switch (value->type) {
    case XPathValue::kBoolean:
      return xmlXPathNewBoolean(value->boolean ? 1 : 0);
    case XPathValue::kNumber:
      return xmlXPathNewFloat(value->number);
    case XPathValue::kText:
      if (value->text.owner != nullptr) return xmlXPathWrapString(value->text.owner.release());
      return xmlXPathNewString(ToXml(value->text.text.data()));
    case XPathValue::kNodes:
      break;
  }
  const Nodes& nodes = value->nodes.nodes;
  if (function == "name" || function == "local-name" || function == "namespace-uri") {
    return xmlXPathNewNodeSet(nodes.empty() ? nullptr : nodes.front());
  }
  // All others take a text, a number for which libxml2 makes one, or nothing.
  const XPathText text = ToText(value);
  return xmlXPathNewString(ToXml(text.text.data()));
}

XPathValue XPathEvaluator::CallLibrary(xmlXPathFunction function, const XPathExpression& expression,
                                       Arguments* arguments) {
  // Where it looks for the language there may be megabytes.
  if (expression.text == "lang") Look();
  const int frame = m_parser->valueNr;
  size_t bytes = 0;
  for (XPathValue& argument : *arguments) {
    bytes += argument.type == XPathValue::kText ? argument.text.text.size() : 0;
    xmlXPathObject* const object = ToObject(expression.text, &argument);
    if (object == nullptr) throw std::bad_alloc();
    if (argument.type == XPathValue::kNodes && object->type == XPATH_STRING)
      bytes += strlen(FromXml(object->stringval));
    valuePush(m_parser, object);
  }
  SpendText(bytes);
  const MemoryCharge charge(m_memory, bytes);
  if (bytes >= kLongText) RequireMemoryBriefly(m_environment, bytes);
  m_context->function = ToXml(expression.text.c_str());
  function(m_parser, static_cast<int>(arguments->size()));
  if (m_parser->error != XPATH_EXPRESSION_OK) throw XPathFailure();
  if (m_parser->valueNr != frame + 1) Fail(XPATH_STACK_ERROR);
  return FromObject(valuePop(m_parser));
}

XPathValue XPathEvaluator::FromObject(xmlXPathObject* object) {
  const std::unique_ptr<xmlXPathObject, FreeObject> owner(object);
  if (m_parser->error != XPATH_EXPRESSION_OK) throw XPathFailure();
  if (object == nullptr) throw std::bad_alloc();
  XPathValue result;
  switch (object->type) {
    case XPATH_BOOLEAN:
      result.type = XPathValue::kBoolean;
      result.boolean = object->boolval != 0;
      return result;
    case XPATH_NUMBER:
      result.type = XPathValue::kNumber;
      result.number = object->floatval;
      return result;
    case XPATH_STRING:
      result.type = XPathValue::kText;
      result.text = Own(std::exchange(object->stringval, nullptr));
      return result;
    case XPATH_NODESET:
      break;
    default:
      Fail(XPATH_INVALID_TYPE);
  }
  result.nodes.isSorted = false;
  const xmlNodeSet* const nodes = object->nodesetval;
  if (nodes != nullptr) result.nodes.nodes.assign(nodes->nodeTab, nodes->nodeTab + nodes->nodeNr);
  return result;
}

}  // namespace vnjs
