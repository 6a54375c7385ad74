#include "modules/xml/xpath_expression.h"

#include <vnjs/error.h>

#include <cstring>
#include <string_view>
#include <utility>

#include "bridge/stack_limit.h"
#include "modules/xml/tree.h"

namespace vnjs {

namespace {

using Kind = XPathExpression::Kind;

/// Parentheses, brackets and arguments inside of each other. Below a script there may be no more stack than 128 KB, and
/// each takes up to 1.5 KB.
constexpr int kDeepestNesting = 40;

constexpr char kNestedTooDeeply[] = "XPath expression is nested too deeply";

/// In the order of XPathStep::Axis.
constexpr std::string_view kAxes[] = {
    "ancestor",  "ancestor-or-self",  "attribute", "child",  "descendant", "descendant-or-self",
    "following", "following-sibling", "namespace", "parent", "preceding",  "preceding-sibling",
    "self"};
static_assert(std::size(kAxes) == XPathStep::kAxisCount);

/// The longer ones of those that start alike come first.
constexpr struct {
  std::string_view text;
  Kind rank;
  XPathExpression::Operator meaning;
} kOperators[] = {{"or", Kind::kOr, XPathExpression::kNone},
                  {"and", Kind::kAnd, XPathExpression::kNone},
                  {"=", Kind::kEquality, XPathExpression::kEqual},
                  {"!=", Kind::kEquality, XPathExpression::kUnequal},
                  {"<=", Kind::kRelation, XPathExpression::kLessOrEqual},
                  {"<", Kind::kRelation, XPathExpression::kLess},
                  {">=", Kind::kRelation, XPathExpression::kMoreOrEqual},
                  {">", Kind::kRelation, XPathExpression::kMore},
                  {"+", Kind::kSum, XPathExpression::kPlus},
                  {"-", Kind::kSum, XPathExpression::kMinus},
                  {"*", Kind::kProduct, XPathExpression::kTimes},
                  {"div", Kind::kProduct, XPathExpression::kDiv},
                  {"mod", Kind::kProduct, XPathExpression::kMod}};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

/// Reads by libxml2's own rules, where they are wider or narrower than the standard's: names of operators need no blank
/// behind them, and a path from the document that starts with a letter beyond ASCII is none.
class Parser {
 public:
  explicit Parser(xmlXPathParserContext* context) : m_context(context) {}

  XPathExpressionPointer ParseAll() {
    XPathExpressionPointer result = ParseExpression();
    if (Current() != '\0') Fail(XPATH_EXPR_ERROR);
    return result;
  }

 private:
  const char* Rest() const { return FromXml(m_context->cur); }
  char Current() const { return *Rest(); }
  void Skip(size_t bytes) { m_context->cur += bytes; }

  void SkipBlanks() {
    while (IsBlank(Current())) Skip(1);
  }

  bool Take(std::string_view text) {
    if (strncmp(Rest(), text.data(), text.size()) != 0) return false;
    Skip(text.size());
    return true;
  }

  void Expect(char c, xmlXPathError error) {
    if (Current() != c) Fail(error);
    Skip(1);
  }

  [[noreturn]] void Fail(xmlXPathError error) { FailXPath(m_context, error); }

  static XPathExpressionPointer Make(Kind kind) { return std::make_unique<XPathExpression>(kind); }

  /// Empty where there is no name.
  std::string ParseName(xmlChar* (*read)(xmlXPathParserContext*)) {
    const XmlTextPointer name(read(m_context));
    if (m_context->error != XPATH_EXPRESSION_OK) throw XPathFailure();
    return name == nullptr ? std::string() : FromXml(name.get());
  }
  std::string ParsePart() { return ParseName(xmlXPathParseNCName); }

  std::string ParseQualified(std::string* prefix) {
    std::string name = ParsePart();
    if (!name.empty() && Take(":")) {
      *prefix = std::move(name);
      name = ParsePart();
    }
    if (name.empty()) Fail(XPATH_EXPR_ERROR);
    return name;
  }

  std::string ParseLiteral() {
    const char quote = Current();
    if (quote != '"' && quote != '\'') Fail(XPATH_START_LITERAL_ERROR);
    Skip(1);
    const char* const start = Rest();
    while (Current() != quote) {
      const auto c = static_cast<unsigned char>(Current());
      if (c < ' ' && !IsBlank(Current())) Fail(XPATH_UNFINISHED_LITERAL_ERROR);
      Skip(1);
    }
    std::string text(start, Rest());
    Skip(1);
    return text;
  }

  /// Operators of that rank and of the ranks that bind more tightly.
  XPathExpressionPointer ParseOperators(int rank) {
    XPathExpressionPointer left = ParseSigned();
    for (;;) {
      SkipBlanks();
      const auto* found = std::begin(kOperators);
      while (found != std::end(kOperators) && strncmp(Rest(), found->text.data(), found->text.size()) != 0)
        ++found;
      if (found == std::end(kOperators) || found->rank < rank) return left;
      Skip(found->text.size());
      SkipBlanks();
      XPathExpressionPointer right = ParseOperators(found->rank + 1);
      // One in parentheses is a path.
      if (left->kind != found->rank) {
        XPathExpressionPointer chain = Make(found->rank);
        chain->operands.push_back(std::move(left));
        left = std::move(chain);
      }
      left->operands.push_back(std::move(right));
      left->operators.push_back(found->meaning);
    }
  }

  XPathExpressionPointer ParseExpression() {
    if (++m_depth > kDeepestNesting) throw VornException(kNestedTooDeeply);
    RequireXPathStack();
    XPathExpressionPointer result = ParseOperators(Kind::kOr);
    --m_depth;
    return result;
  }

  XPathExpressionPointer ParseSigned() {
    SkipBlanks();
    if (Current() != '-') return ParseUnion();
    XPathExpressionPointer result = Make(Kind::kSign);
    for (; Take("-"); SkipBlanks()) result->flag = !result->flag;
    result->operands.push_back(ParseUnion());
    return result;
  }

  XPathExpressionPointer ParseUnion() {
    XPathExpressionPointer first = ParsePath();
    SkipBlanks();
    if (Current() != '|') return first;
    XPathExpressionPointer result = Make(Kind::kUnion);
    result->operands.push_back(std::move(first));
    for (; Take("|"); SkipBlanks()) {
      SkipBlanks();
      result->operands.push_back(ParsePath());
    }
    return result;
  }

  /// Whether a location path stands here, and not a value.
  bool IsLocation() {
    const char c = Current();
    if (c == '$' || c == '(' || c == '"' || c == '\'' || IsDigit(c)) return false;
    if (c == '.') return !IsDigit(Rest()[1]);
    if (c == '*' || c == '/' || c == '@') return true;
    const xmlChar* const start = m_context->cur;
    const std::string name = ParseName(xmlXPathParseName);
    if (name.empty()) Fail(XPATH_EXPR_ERROR);
    SkipBlanks();
    const bool isCall = Current() == '(' && name.find("::") == std::string::npos &&
                        xmlXPathIsNodeType(ToXml(name.c_str())) == 0;
    m_context->cur = start;
    return !isCall;
  }

  XPathExpressionPointer ParsePath() {
    SkipBlanks();
    if (IsLocation()) {
      XPathExpressionPointer path = Make(Kind::kPath);
      path->flag = Current() == '/';
      if (path->flag) {
        ParseFromDocument(path.get());
      } else {
        ParseSteps(path.get());
      }
      SkipBlanks();
      return path;
    }
    XPathExpressionPointer value = ParsePrimary();
    SkipBlanks();
    if (Current() != '[' && Current() != '/' && value->kind != Kind::kPath) return value;
    XPathExpressionPointer path = Make(Kind::kPath);
    path->operands.push_back(std::move(value));
    while (Current() == '[') path->predicates.push_back(ParsePredicate());
    if (Take("//")) {
      AddDescendants(path.get());
      ParseSteps(path.get());
    } else if (Current() == '/') {
      ParseSteps(path.get());
    }
    SkipBlanks();
    return path;
  }

  static void AddDescendants(XPathExpression* path) {
    XPathStep step;
    step.axis = XPathStep::kDescendantOrSelf;
    path->steps.push_back(std::move(step));
  }

  void ParseFromDocument(XPathExpression* path) {
    while (Current() == '/') {
      if (Take("//")) {
        AddDescendants(path);
        ParseSteps(path);
        continue;
      }
      Skip(1);
      SkipBlanks();
      const char c = Current();
      const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      if (isLetter || c == '_' || c == '.' || c == '@' || c == '*') ParseSteps(path);
    }
  }

  void ParseSteps(XPathExpression* path) {
    SkipBlanks();
    do {
      if (Take("//")) {
        AddDescendants(path);
      } else {
        Take("/");
      }
      SkipBlanks();
      ParseStep(path);
      SkipBlanks();
    } while (Current() == '/');
  }

  void ParseStep(XPathExpression* path) {
    XPathStep step;
    if (Take("..")) {
      step.axis = XPathStep::kParent;
      path->steps.push_back(std::move(step));
      return;
    }
    if (Take(".")) return;
    std::string name;
    if (Current() != '*') {
      name = ParsePart();
      if (name.empty() && Take("@")) step.axis = XPathStep::kAttribute;
      for (int axis = 0; axis < XPathStep::kAxisCount; ++axis) {
        if (name != kAxes[axis]) continue;
        SkipBlanks();
        if (!Take("::")) break;
        step.axis = static_cast<XPathStep::Axis>(axis);
        name.clear();
        break;
      }
    }
    ParseTest(std::move(name), &step);
    SkipBlanks();
    while (Current() == '[') step.predicates.push_back(ParsePredicate());
    Shorten(path, &step);
    path->steps.push_back(std::move(step));
  }

  void ParseTest(std::string name, XPathStep* step) {
    SkipBlanks();
    step->test = XPathStep::kAnyName;
    if (name.empty()) {
      if (Take("*")) return;
      name = ParsePart();
      if (name.empty()) Fail(XPATH_EXPR_ERROR);
    }
    const bool isBlank = IsBlank(Current());
    SkipBlanks();
    if (Take("(")) {
      ParseType(name, step);
      return;
    }
    step->test = XPathStep::kName;
    if (!isBlank && Take(":")) {
      step->prefix = std::move(name);
      if (Take("*")) {
        step->test = XPathStep::kAnyName;
        return;
      }
      name = ParsePart();
      if (name.empty()) Fail(XPATH_EXPR_ERROR);
    }
    step->name = std::move(name);
  }

  void ParseType(const std::string& type, XPathStep* step) {
    SkipBlanks();
    if (type == "node") {
      step->test = XPathStep::kAnyNode;
    } else if (type == "comment") {
      step->test = XPathStep::kComment;
    } else if (type == "text") {
      step->test = XPathStep::kText;
    } else if (type == "processing-instruction") {
      step->test = XPathStep::kInstruction;
      if (Current() != ')') step->name = ParseLiteral();
      SkipBlanks();
    } else {
      Fail(XPATH_EXPR_ERROR);
    }
    Expect(')', XPATH_UNCLOSED_ERROR);
  }

  XPathExpressionPointer ParsePredicate() {
    Skip(1);
    SkipBlanks();
    XPathExpressionPointer result = ParseExpression();
    Expect(']', XPATH_INVALID_PREDICATE_ERROR);
    SkipBlanks();
    return result;
  }

  XPathExpressionPointer ParsePrimary() {
    const char c = Current();
    if (c == '$') {
      Skip(1);
      XPathExpressionPointer result = Make(Kind::kVariable);
      const std::string name = ParseQualified(&result->prefix);
      result->text = name;
      return result;
    }
    if (Take("(")) {
      SkipBlanks();
      XPathExpressionPointer inner = ParseExpression();
      Expect(')', XPATH_EXPR_ERROR);
      XPathExpressionPointer result = Make(Kind::kPath);
      result->operands.push_back(std::move(inner));
      return result;
    }
    if (IsDigit(c) || c == '.') return ParseNumber();
    if (c == '"' || c == '\'') {
      XPathExpressionPointer result = Make(Kind::kText);
      result->text = ParseLiteral();
      return result;
    }
    return ParseCall();
  }

  XPathExpressionPointer ParseNumber() {
    const char* const start = Rest();
    const auto skipDigits = [this] {
      while (IsDigit(Current())) Skip(1);
    };
    skipDigits();
    if (Take(".")) skipDigits();
    if (Take("e") || Take("E")) {
      if (!Take("-")) Take("+");
      skipDigits();
    }
    XPathExpressionPointer result = Make(Kind::kNumber);
    result->number = xmlXPathStringEvalNumber(ToXml(std::string(start, Rest()).c_str()));
    return result;
  }

  XPathExpressionPointer ParseCall() {
    XPathExpressionPointer result = Make(Kind::kCall);
    result->text = ParseQualified(&result->prefix);
    SkipBlanks();
    Expect('(', XPATH_EXPR_ERROR);
    SkipBlanks();
    while (Current() != ')' && Current() != '\0') {
      result->operands.push_back(ParseExpression());
      if (Current() == ')') break;
      Expect(',', XPATH_EXPR_ERROR);
      SkipBlanks();
    }
    Take(")");
    return result;
  }

  /// Whether a predicate means the same wherever a node stands among others.
  static bool IsAboutNodeAlone(const XPathExpression& predicate) {
    if (predicate.kind == Kind::kPath) return predicate.operands.empty();
    if (predicate.kind != Kind::kEquality && predicate.kind != Kind::kRelation) return false;
    for (const XPathExpressionPointer& operand : predicate.operands) {
      const bool isSimple = operand->kind == Kind::kText || operand->kind == Kind::kNumber ||
                            (operand->kind == Kind::kPath && operand->operands.empty());
      if (!isSimple) return false;
    }
    return true;
  }

  /// Makes `//a` one step, without a set of all nodes in between.
  static void Shorten(XPathExpression* path, XPathStep* step) {
    const bool isChild = step->axis == XPathStep::kChild || step->axis == XPathStep::kDescendant;
    if (path->steps.empty() || !isChild) return;
    const XPathStep& last = path->steps.back();
    if (last.axis != XPathStep::kDescendantOrSelf || last.test != XPathStep::kAnyNode ||
        !last.predicates.empty())
      return;
    for (const XPathExpressionPointer& predicate : step->predicates) {
      if (!IsAboutNodeAlone(*predicate)) return;
    }
    step->axis = XPathStep::kDescendant;
    path->steps.pop_back();
  }

  xmlXPathParserContext* const m_context;
  int m_depth = 0;
};

}  // namespace

void RequireXPathStack() {
  if (IsStackUsedUp()) throw VornException(kNestedTooDeeply);
}

void FailXPath(xmlXPathParserContext* parser, xmlXPathError error) {
  xmlXPathErr(parser, error);
  throw XPathFailure();
}

XPathExpressionPointer ParseXPath(xmlXPathParserContext* parser) { return Parser(parser).ParseAll(); }

}  // namespace vnjs
