#pragma once

#include <libxml/xpathInternals.h>

#include <memory>
#include <string>
#include <vector>

namespace vnjs {

struct XPathExpression;
using XPathExpressionPointer = std::unique_ptr<XPathExpression>;

/// A part of a location path: where to go from a node, and what to keep there.
struct XPathStep {
  enum Axis {
    kAncestor,
    kAncestorOrSelf,
    kAttribute,
    kChild,
    kDescendant,
    kDescendantOrSelf,
    kFollowing,
    kFollowingSibling,
    kNamespace,
    kParent,
    kPreceding,
    kPrecedingSibling,
    kSelf,
    kAxisCount
  };
  enum Test { kAnyNode, kComment, kText, kInstruction, kAnyName, kName };

  Axis axis = kChild;
  Test test = kAnyNode;

  /// Of an element, an attribute or a namespace; of a processing instruction, where it is not empty.
  std::string name;

  /// Empty where there is none.
  std::string prefix;
  std::vector<XPathExpressionPointer> predicates;
};

/// An expression as it was written, but for chains of operators of one rank, which are one list.
struct XPathExpression {
  enum Kind {
    kOr,
    kAnd,
    kEquality,
    kRelation,
    kSum,
    kProduct,
    kSign,
    kUnion,
    kPath,
    kNumber,
    kText,
    kVariable,
    kCall
  };

  /// What stands between two operands of one rank.
  enum Operator {
    kNone,
    kEqual,
    kUnequal,
    kLess,
    kLessOrEqual,
    kMore,
    kMoreOrEqual,
    kPlus,
    kMinus,
    kTimes,
    kDiv,
    kMod
  };

  explicit XPathExpression(Kind kind) : kind(kind) {}

  Kind kind;

  /// kSign: whether it is changed. kPath without an operand: whether it starts at the document.
  bool flag = false;

  /// The value of kNumber.
  double number = 0;

  /// The value of kText, the name of kCall and kVariable.
  std::string text;

  /// Of a function.
  std::string prefix;

  /// kPath: one where it does not start from a node. kCall: the arguments.
  std::vector<XPathExpressionPointer> operands;

  /// Between the operands.
  std::vector<Operator> operators;

  /// kPath: of the operand.
  std::vector<XPathExpressionPointer> predicates;
  std::vector<XPathStep> steps;
};

/// What ends a parse or an evaluation when libxml2 has been told what is wrong.
struct XPathFailure {};

/// Reads what stands at the parser context, all of it, and takes what libxml2 takes for an expression. Throws
/// XPathFailure, with the error reported as libxml2 does, and VornException for one that is nested too deeply.
XPathExpressionPointer ParseXPath(xmlXPathParserContext* parser);

/// Throws VornException where no stack is left to go deeper into an expression.
void RequireXPathStack();

/// Reports an error of an expression as libxml2 does, and throws XPathFailure.
[[noreturn]] void FailXPath(xmlXPathParserContext* parser, xmlXPathError error);

}  // namespace vnjs
