// What a parsed expectation is made of.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/service/expect/expression.h"

namespace morvik_service {

enum class Comparison { kEqual, kUnequal, kLess, kAtMost, kMore, kAtLeast, kContains };

/// A field, or else a value.
struct Operand {
  FieldPath field;
  Json value;
};

struct ExpressionNode {
  enum class Kind { kAnd, kOr, kNot, kComparison };

  Kind kind = Kind::kComparison;
  std::vector<std::shared_ptr<const ExpressionNode>> parts;  ///< of and, or, not
  Operand left;                                              ///< of a comparison, and the two below
  Comparison comparison = Comparison::kEqual;
  Operand right;
  std::string text;  ///< the comparison as it was written
};

using NodePointer = std::shared_ptr<const ExpressionNode>;

/// Parses; see Expression::parse.
NodePointer parseExpression(std::string_view text, const std::vector<std::string_view>& first_words);

}  // namespace morvik_service
