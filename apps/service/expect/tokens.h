// Splits an expectation into words, texts, numbers and signs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "apps/service/base/json.h"

namespace morvik_service {

struct Token {
  enum class Kind { kWord, kText, kNumber, kSign, kEnd };

  Kind kind = Kind::kEnd;
  std::string text;        ///< as written; of kText without its quotes
  Json value;              ///< of kText and kNumber
  std::size_t column = 1;  ///< of its first byte
  std::size_t end = 1;     ///< the column after it
};

/// The tokens, kEnd last. Throws ExpressionError.
std::vector<Token> tokenize(std::string_view text);

}  // namespace morvik_service
