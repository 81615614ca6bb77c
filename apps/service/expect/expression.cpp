#include "apps/service/expect/expression.h"

#include <algorithm>

#include "apps/service/expect/expression_node.h"

namespace morvik_service {
namespace {

using Kind = ExpressionNode::Kind;

constexpr std::size_t kMaxShownValueBytes = 60;

Json valueOf(const Operand& operand, const FieldReader& read) {
  return operand.field.empty() ? operand.value : read(operand.field);
}

bool areComparable(const Json& left, const Json& right) {
  return (left.is_number() && right.is_number()) || (left.is_string() && right.is_string());
}

bool contains(const Json& whole, const Json& part) {
  if (whole.is_string() && part.is_string())
    return whole.get_ref<const std::string&>().find(part.get_ref<const std::string&>()) != std::string::npos;
  return whole.is_array() && std::find(whole.begin(), whole.end(), part) != whole.end();
}

bool holds(Comparison comparison, const Json& left, const Json& right) {
  switch (comparison) {
    case Comparison::kEqual:
      return left == right;
    case Comparison::kUnequal:
      return left != right;
    case Comparison::kLess:
      return areComparable(left, right) && left < right;
    case Comparison::kAtMost:
      return areComparable(left, right) && left <= right;
    case Comparison::kMore:
      return areComparable(left, right) && left > right;
    case Comparison::kAtLeast:
      return areComparable(left, right) && left >= right;
    case Comparison::kContains:
      break;
  }
  return contains(left, right);
}

std::string shown(const Json& value) {
  std::string text = jsonText(value);
  if (text.size() > kMaxShownValueBytes)
    text = jsonText(Json(text.substr(0, kMaxShownValueBytes))) + "...";
  return text;
}

std::string nameOf(const FieldPath& path) {
  std::string name;
  for (const std::string& word : path)
    name += (name.empty() ? "" : ".") + word;
  return name;
}

std::string explain(const ExpressionNode& node, bool negated, const FieldReader& read) {
  std::string text;
  for (const Operand* operand : {&node.left, &node.right}) {
    if (!operand->field.empty())
      text += (text.empty() ? "" : ", ") + nameOf(operand->field) + " is " + shown(read(operand->field));
  }
  return (text.empty() ? "" : text + "; ") + "wanted " + (negated ? "not " : "") + node.text;
}

Verdict evaluateNode(const ExpressionNode& node, bool negated, const FieldReader& read);

Verdict evaluateAll(const ExpressionNode& node, bool negated, const FieldReader& read) {
  Verdict all;
  for (const NodePointer& part : node.parts) {
    Verdict verdict = evaluateNode(*part, negated, read);
    all.misses += verdict.misses;
    std::move(verdict.why.begin(), verdict.why.end(), std::back_inserter(all.why));
  }
  return all;
}

Verdict evaluateBest(const ExpressionNode& node, bool negated, const FieldReader& read) {
  Verdict best = evaluateNode(*node.parts.front(), negated, read);
  for (std::size_t i = 1; i < node.parts.size() && best.misses > 0; ++i) {
    Verdict verdict = evaluateNode(*node.parts[i], negated, read);
    if (verdict.misses < best.misses)
      best = std::move(verdict);
  }
  return best;
}

// "not (a and b)" misses what "not a or not b" misses.
Verdict evaluateNode(const ExpressionNode& node, bool negated, const FieldReader& read) {
  switch (node.kind) {
    case Kind::kNot:
      return evaluateNode(*node.parts.front(), !negated, read);
    case Kind::kAnd:
      return negated ? evaluateBest(node, negated, read) : evaluateAll(node, negated, read);
    case Kind::kOr:
      return negated ? evaluateAll(node, negated, read) : evaluateBest(node, negated, read);
    case Kind::kComparison:
      break;
  }
  if (holds(node.comparison, valueOf(node.left, read), valueOf(node.right, read)) != negated)
    return {};
  return {1, {explain(node, negated, read)}};
}

bool namesIn(const ExpressionNode& node, const std::vector<std::string_view>& first_words) {
  const auto isOne = [&](const Operand& operand) {
    return !operand.field.empty() &&
           std::find(first_words.begin(), first_words.end(), operand.field.front()) != first_words.end();
  };
  return isOne(node.left) || isOne(node.right) ||
         std::any_of(node.parts.begin(), node.parts.end(),
                     [&](const NodePointer& part) { return namesIn(*part, first_words); });
}

}  // namespace

Expression Expression::parse(std::string_view text, const std::vector<std::string_view>& first_words) {
  return Expression(parseExpression(text, first_words));
}

Verdict Expression::evaluate(const FieldReader& read) const {
  return evaluateNode(*root_, false, read);
}

bool Expression::names(const std::vector<std::string_view>& first_words) const {
  return namesIn(*root_, first_words);
}

}  // namespace morvik_service
