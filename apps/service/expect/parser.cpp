// Reads an expectation by recursive descent.
#include <algorithm>
#include <array>
#include <utility>

#include "apps/service/expect/expression_node.h"
#include "apps/service/expect/tokens.h"

namespace morvik_service {
namespace {

using Kind = ExpressionNode::Kind;

constexpr std::array<std::pair<std::string_view, Comparison>, 7> kComparisons = {{{"==", Comparison::kEqual},
                                                                                  {"!=", Comparison::kUnequal},
                                                                                  {"<", Comparison::kLess},
                                                                                  {"<=", Comparison::kAtMost},
                                                                                  {">", Comparison::kMore},
                                                                                  {">=", Comparison::kAtLeast},
                                                                                  {"contains", Comparison::kContains}}};

const Comparison* findComparison(const Token& token) {
  if (token.kind != Token::Kind::kSign && token.kind != Token::Kind::kWord)
    return nullptr;
  const auto found = std::find_if(kComparisons.begin(), kComparisons.end(),
                                  [&](const auto& each) { return each.first == token.text; });
  return found == kComparisons.end() ? nullptr : &found->second;
}

std::string describe(const Token& token) {
  if (token.kind == Token::Kind::kEnd)
    return "the end";
  return token.kind == Token::Kind::kText ? jsonText(token.text) : token.text;
}

FieldPath split(const std::string& text) {
  FieldPath path(1);
  for (const char c : text) {
    if (c == '.')
      path.emplace_back();
    else
      path.back().push_back(c);
  }
  return path;
}

class Parser {
 public:
  Parser(std::string_view text, const std::vector<std::string_view>& first_words)
      : text_(text), first_words_(first_words), tokens_(tokenize(text)) {}

  NodePointer parse() {
    NodePointer root = alternatives();
    if (now().kind != Token::Kind::kEnd)
      refuse("and, or, or the end");
    return root;
  }

 private:
  // Counts how deep the parser is.
  class Level {
   public:
    explicit Level(Parser& parser) : depth_(parser.depth_) {
      if (++depth_ > kMaxExpressionDepth)
        throw ExpressionError(parser.now().column,
                              "this nests deeper than " + std::to_string(kMaxExpressionDepth) + " levels");
    }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
    ~Level() { --depth_; }

   private:
    int& depth_;
  };

  const Token& now() const { return tokens_[at_]; }
  bool isNow(std::string_view text) const {
    return now().text == text && (now().kind == Token::Kind::kSign || now().kind == Token::Kind::kWord);
  }
  bool accept(std::string_view text) {
    const bool is_there = isNow(text);
    at_ += is_there ? 1 : 0;
    return is_there;
  }
  [[noreturn]] void refuse(const std::string& expected) const {
    throw ExpressionError(now().column, "expected " + expected + ", found " + describe(now()));
  }

  NodePointer joined(Kind kind, std::string_view word, NodePointer (Parser::*part)()) {
    std::vector<NodePointer> parts = {(this->*part)()};
    while (accept(word))
      parts.push_back((this->*part)());
    if (parts.size() == 1)
      return parts.front();
    auto node = std::make_shared<ExpressionNode>();
    node->kind = kind;
    node->parts = std::move(parts);
    return node;
  }
  NodePointer alternatives() { return joined(Kind::kOr, "or", &Parser::conjunction); }
  NodePointer conjunction() { return joined(Kind::kAnd, "and", &Parser::negation); }

  NodePointer negation() {
    if (!accept("not"))
      return primary();
    const Level level(*this);
    auto node = std::make_shared<ExpressionNode>();
    node->kind = Kind::kNot;
    node->parts = {negation()};
    return node;
  }

  NodePointer primary() {
    if (!accept("("))
      return comparison();
    const Level level(*this);
    NodePointer inside = alternatives();
    if (!accept(")"))
      refuse("and, or, or )");
    return inside;
  }

  NodePointer comparison() {
    const std::size_t begin = now().column - 1;
    auto node = std::make_shared<ExpressionNode>();
    node->left = operand("a field such as activity, a value, not or (");
    if (const Comparison* found = findComparison(now())) {
      node->comparison = *found;
      ++at_;
      node->right = operand("a field or a value");
    } else if (node->left.field.empty()) {
      refuse("a comparison such as == or contains");
    } else {
      node->right.value = true;
    }
    node->text = text_.substr(begin, tokens_[at_ - 1].end - 1 - begin);
    return node;
  }

  Operand operand(const char* expected) {
    const Token& token = now();
    Operand result;
    if (token.kind == Token::Kind::kText || token.kind == Token::Kind::kNumber) {
      result.value = token.value;
    } else if (isNow("true") || isNow("false")) {
      result.value = token.text == "true";
    } else if (!isNow("null")) {
      result.field = field(expected);
    }
    ++at_;
    return result;
  }

  FieldPath field(const char* expected) const {
    static constexpr std::array<std::string_view, 4> kReserved = {"and", "or", "not", "contains"};
    const Token& token = now();
    if (token.kind != Token::Kind::kWord ||
        std::find(kReserved.begin(), kReserved.end(), token.text) != kReserved.end())
      refuse(expected);
    FieldPath path = split(token.text);
    if (std::find(first_words_.begin(), first_words_.end(), path.front()) == first_words_.end()) {
      std::string known;
      for (const std::string_view word : first_words_)
        known += (known.empty() ? "" : ", ") + std::string(word);
      throw ExpressionError(
          token.column, "expected one of the fields " + known + ", found " + token.text + "; texts stand in quotes");
    }
    if (std::find(path.begin(), path.end(), "") != path.end())
      throw ExpressionError(token.column, "expected a name behind each dot, found " + token.text);
    return path;
  }

  const std::string_view text_;
  const std::vector<std::string_view>& first_words_;
  const std::vector<Token> tokens_;
  std::size_t at_ = 0;
  int depth_ = 0;
};

}  // namespace

NodePointer parseExpression(std::string_view text, const std::vector<std::string_view>& first_words) {
  return Parser(text, first_words).parse();
}

}  // namespace morvik_service
