// The language of expectations:
//   activity == "purchase" and (group == "shop" or not param contains "test")
//
// Comparisons are ==, !=, <, <=, >, >= and `contains`, joined by `and`, `or`, `not` and parentheses. A value is a text
// in double or single quotes, a number, true, false, null, or a field; a field alone holds when it is true. `not` binds
// tighter than `and`, `and` tighter than `or`.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/base/json.h"

namespace morvik_service {

inline constexpr std::size_t kMaxExpressionBytes = 4096;
/// Parentheses and `not` may nest this deep.
inline constexpr int kMaxExpressionDepth = 64;

/// The expression cannot be parsed; the text says what was expected there and what was found.
class ExpressionError : public std::runtime_error {
 public:
  ExpressionError(std::size_t column, const std::string& text) : std::runtime_error(text), column_(column) {}
  /// Counts bytes from 1.
  std::size_t column() const { return column_; }

 private:
  std::size_t column_;
};

/// The words of a field, "payload.os_type" split at its dots.
using FieldPath = std::vector<std::string>;

/// Returns a field's value; null if it is missing.
using FieldReader = std::function<Json(const FieldPath& path)>;

/// How far something is from what was expected.
struct Verdict {
  int misses = 0;                ///< comparisons that would have to be different; 0: it holds
  std::vector<std::string> why;  ///< one line for each of them
};

struct ExpressionNode;

/// A parsed expression. Immutable; copies share it.
class Expression {
 public:
  /// `first_words` are the words that a field may begin with. Throws ExpressionError.
  static Expression parse(std::string_view text, const std::vector<std::string_view>& first_words);

  Verdict evaluate(const FieldReader& read) const;

  /// Whether a field with one of these first words is named.
  bool names(const std::vector<std::string_view>& first_words) const;

 private:
  explicit Expression(std::shared_ptr<const ExpressionNode> root) : root_(std::move(root)) {}

  std::shared_ptr<const ExpressionNode> root_;
};

}  // namespace morvik_service
