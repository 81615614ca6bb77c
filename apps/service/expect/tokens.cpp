#include "apps/service/expect/tokens.h"

#include <array>

#include "apps/service/expect/expression.h"

namespace morvik_service {
namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  Token next() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\n'))
      ++at_;
    begin_ = at_;
    if (at_ == text_.size())
      return finish(Token::Kind::kEnd);
    const char c = text_[at_];
    if (isLetter(c))
      return word();
    if (c == '"' || c == '\'')
      return quoted(c);
    if (isDigit(c) || (c == '-' && at_ + 1 < text_.size() && isDigit(text_[at_ + 1])))
      return number();
    return sign();
  }

 private:
  Token finish(Token::Kind kind, Json value = nullptr) const {
    return {kind, std::string(text_.substr(begin_, at_ - begin_)), std::move(value), begin_ + 1, at_ + 1};
  }

  // Fields have dots, and names of headers have dashes.
  Token word() {
    while (at_ < text_.size() &&
           (isLetter(text_[at_]) || isDigit(text_[at_]) || text_[at_] == '.' || text_[at_] == '-'))
      ++at_;
    return finish(Token::Kind::kWord);
  }

  Token quoted(char quote) {
    std::string content;
    for (++at_; at_ < text_.size() && text_[at_] != quote; ++at_) {
      if (text_[at_] == '\\' && at_ + 1 < text_.size())
        content.push_back(unescaped(text_[++at_]));
      else
        content.push_back(text_[at_]);
    }
    if (at_ == text_.size())
      throw ExpressionError(begin_ + 1, std::string("this text has no closing ") + quote);
    ++at_;
    Token token = finish(Token::Kind::kText, content);
    token.text = content;
    return token;
  }

  char unescaped(char c) const {
    switch (c) {
      case 'n':
        return '\n';
      case 't':
        return '\t';
      case '\\':
      case '"':
      case '\'':
        return c;
      default:
        throw ExpressionError(at_, std::string("\\") + c + R"( is unknown; expected \\, \", \', \n or \t)");
    }
  }

  Token number() {
    ++at_;
    while (at_ < text_.size() &&
           (isDigit(text_[at_]) || text_[at_] == '.' || text_[at_] == 'e' || text_[at_] == 'E' ||
            ((text_[at_] == '+' || text_[at_] == '-') && (text_[at_ - 1] == 'e' || text_[at_ - 1] == 'E'))))
      ++at_;
    Json value = Json::parse(text_.substr(begin_, at_ - begin_), nullptr, false);
    if (!value.is_number())
      throw ExpressionError(begin_ + 1, "expected a number such as 7 or -2.5, found " + finish(Token::Kind::kEnd).text);
    return finish(Token::Kind::kNumber, std::move(value));
  }

  Token sign() {
    static constexpr std::array<std::string_view, 8> kSigns = {"==", "!=", "<=", ">=", "<", ">", "(", ")"};
    for (const std::string_view each : kSigns) {
      if (text_.substr(at_, each.size()) == each) {
        at_ += each.size();
        return finish(Token::Kind::kSign);
      }
    }
    if (text_[at_] == '=')
      throw ExpressionError(at_ + 1, "expected ==, found a single =");
    throw ExpressionError(at_ + 1, "expected a field, a value or a sign such as ==, found " +
                                       jsonText(std::string(text_.substr(at_, 1))));
  }

  const std::string_view text_;
  std::size_t at_ = 0;
  std::size_t begin_ = 0;
};

}  // namespace

std::vector<Token> tokenize(std::string_view text) {
  if (text.size() > kMaxExpressionBytes) {
    throw ExpressionError(kMaxExpressionBytes + 1,
                          "the expression is longer than " + std::to_string(kMaxExpressionBytes) + " bytes");
  }
  Reader reader(text);
  std::vector<Token> tokens;
  do {
    tokens.push_back(reader.next());
  } while (tokens.back().kind != Token::Kind::kEnd);
  return tokens;
}

}  // namespace morvik_service
