#include "testing/json_reader.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "services/json_writer.h"

namespace morvik::testing {
namespace {

constexpr uint32_t kFirstHighSurrogate = 0xD800;
constexpr uint32_t kFirstLowSurrogate = 0xDC00;
constexpr uint32_t kAfterSurrogates = 0xE000;

void appendUtf8(uint32_t code_point, std::string& out) {
  const auto put = [&out](uint32_t byte) { out += static_cast<char>(byte); };
  if (code_point < 0x80) {
    put(code_point);
  } else if (code_point < 0x800) {
    put(0xC0 | (code_point >> 6));
    put(0x80 | (code_point & 0x3F));
  } else if (code_point < 0x10000) {
    put(0xE0 | (code_point >> 12));
    put(0x80 | ((code_point >> 6) & 0x3F));
    put(0x80 | (code_point & 0x3F));
  } else {
    put(0xF0 | (code_point >> 18));
    put(0x80 | ((code_point >> 12) & 0x3F));
    put(0x80 | ((code_point >> 6) & 0x3F));
    put(0x80 | (code_point & 0x3F));
  }
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

/// For a number out of a double's range: whether it is too small (and not too large).
bool isTiny(std::string_view number) {
  const size_t exponent_at = std::min(number.find_first_of("eE"), number.size());
  const std::string_view mantissa = number.substr(number.front() == '-' ? 1 : 0, exponent_at);
  const size_t first_digit = mantissa.find_first_of("123456789");
  const size_t point = std::min(mantissa.find('.'), mantissa.find_first_of("eE"));
  const auto place = static_cast<int64_t>(std::min(point, mantissa.size())) - static_cast<int64_t>(first_digit);
  std::string_view exponent_text = number.substr(std::min(exponent_at + 1, number.size()));
  if (exponent_text.starts_with('+'))
    exponent_text.remove_prefix(1);
  int64_t exponent = 0;
  const auto result = std::from_chars(exponent_text.data(), exponent_text.data() + exponent_text.size(), exponent);
  if (result.ec == std::errc::result_out_of_range)
    return exponent_text.starts_with('-');
  constexpr int64_t limit = std::numeric_limits<int64_t>::max() / 2;
  return place + std::clamp(exponent, -limit, limit) < 0;
}

/// Entries of an object in order: the last value of a repeated key counts, at the position of the first.
class ObjectBuilder {
 public:
  void set(const std::string& key, kit::Value value) {
    const auto [place, is_new] = places_.emplace(key, entries_.size());
    if (is_new) {
      entries_.push_back({kit::Value(key), std::move(value)});
    } else {
      entries_[place->second].value = std::move(value);
    }
  }
  kit::Value take() { return kit::Dictionary::fromEntries(entries_); }

 private:
  std::vector<kit::Entry> entries_;
  std::unordered_map<std::string, size_t> places_;
};

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::variant<kit::Value, kit::Error> document() {
    if (!services::isUtf8(text_))
      return kit::Error{"JSON: the text is not UTF-8"};
    kit::Value value;
    skipBlanks();
    if (!readValue(value, 0))
      return error_;
    skipBlanks();
    if (at_ != text_.size()) {
      fail("there is more text after the document");
      return error_;
    }
    return value;
  }

 private:
  bool fail(const std::string& what) {
    error_.message = "JSON, byte " + std::to_string(at_) + ": " + what;
    return false;
  }
  bool atEnd() const { return at_ == text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[at_]; }
  bool take(char expected) {
    if (atEnd() || text_[at_] != expected)
      return false;
    ++at_;
    return true;
  }
  void skipBlanks() {
    while (!atEnd() && std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos)
      ++at_;
  }
  bool takeWord(std::string_view word) {
    if (text_.substr(at_, word.size()) != word)
      return fail("a value was expected");
    at_ += word.size();
    return true;
  }

  bool readValue(kit::Value& out, size_t depth) {
    switch (peek()) {
      case '{':
        return readObject(out, depth + 1);
      case '[':
        return readArray(out, depth + 1);
      case '"':
        return readStringValue(out);
      case 't':
        out = kit::Value(true);
        return takeWord("true");
      case 'f':
        out = kit::Value(false);
        return takeWord("false");
      case 'n':
        out = kit::Value::null();
        return takeWord("null");
      default:
        return readNumber(out);
    }
  }

  bool enter(size_t depth) {
    if (depth > kit::kMaxJsonDepth)
      return fail("containers are nested deeper than " + std::to_string(kit::kMaxJsonDepth));
    ++at_;
    skipBlanks();
    return true;
  }

  bool readArray(kit::Value& out, size_t depth) {
    if (!enter(depth))
      return false;
    kit::MutableArray elements;
    if (!take(']')) {
      do {
        skipBlanks();
        kit::Value element;
        if (!readValue(element, depth))
          return false;
        elements.append(std::move(element));
        skipBlanks();
      } while (take(','));
      if (!take(']'))
        return fail("a comma or ] was expected");
    }
    out = kit::Value(std::move(elements));
    return true;
  }

  bool readObject(kit::Value& out, size_t depth) {
    if (!enter(depth))
      return false;
    ObjectBuilder object;
    if (!take('}')) {
      do {
        skipBlanks();
        std::string key;
        if (peek() != '"')
          return fail("a key in quotes was expected");
        if (!readString(key))
          return false;
        skipBlanks();
        if (!take(':'))
          return fail("a colon was expected");
        skipBlanks();
        kit::Value value;
        if (!readValue(value, depth))
          return false;
        object.set(key, std::move(value));
        skipBlanks();
      } while (take(','));
      if (!take('}'))
        return fail("a comma or } was expected");
    }
    out = object.take();
    return true;
  }

  bool readStringValue(kit::Value& out) {
    std::string text;
    if (!readString(text))
      return false;
    out = kit::Value(text);
    return true;
  }

  bool readString(std::string& out) {
    ++at_;
    while (!atEnd()) {
      const char character = text_[at_];
      if (character == '"') {
        ++at_;
        return true;
      }
      if (static_cast<unsigned char>(character) < 0x20)
        return fail("a control character stands in a string; write it as an escape");
      ++at_;
      if (character != '\\') {
        out += character;
      } else if (!readEscape(out)) {
        return false;
      }
    }
    return fail("a string does not end");
  }

  bool readEscape(std::string& out) {
    constexpr std::string_view names = "\"\\/bfnrt";
    constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
    if (take('u'))
      return readUnicodeEscape(out);
    const size_t index = atEnd() ? std::string_view::npos : names.find(text_[at_]);
    if (index == std::string_view::npos)
      return fail("an unknown escape");
    out += meanings[index];
    ++at_;
    return true;
  }

  bool readUnicodeEscape(std::string& out) {
    uint32_t code_point = 0;
    if (!readFourHexDigits(code_point))
      return false;
    if (code_point >= kFirstLowSurrogate && code_point < kAfterSurrogates)
      return fail("half of a surrogate pair");
    if (code_point >= kFirstHighSurrogate && code_point < kFirstLowSurrogate) {
      uint32_t low = 0;
      if (!take('\\') || !take('u'))
        return fail("half of a surrogate pair");
      if (!readFourHexDigits(low))
        return false;
      if (low < kFirstLowSurrogate || low >= kAfterSurrogates)
        return fail("half of a surrogate pair");
      code_point = 0x10000 + ((code_point - kFirstHighSurrogate) << 10) + (low - kFirstLowSurrogate);
    }
    appendUtf8(code_point, out);
    return true;
  }

  bool readFourHexDigits(uint32_t& out) {
    const std::string_view digits = text_.substr(at_, 4);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), out, 16);
    if (digits.size() != 4 || error != std::errc() || end != digits.data() + 4 || digits.front() == '-')
      return fail("four hexadecimal digits were expected");
    at_ += 4;
    return true;
  }

  void skipDigits() {
    while (isDigit(peek()))
      ++at_;
  }

  bool readNumber(kit::Value& out) {
    const size_t start = at_;
    take('-');
    if (!isDigit(peek()))
      return fail("a value was expected");
    if (!take('0'))
      skipDigits();
    const bool has_fraction = take('.');
    if (has_fraction && !isDigit(peek()))
      return fail("a digit was expected after the decimal point");
    if (has_fraction)
      skipDigits();
    const bool has_exponent = peek() == 'e' || peek() == 'E';
    if (has_exponent) {
      ++at_;
      if (!take('+'))
        take('-');
      if (!isDigit(peek()))
        return fail("a digit was expected in the exponent");
      skipDigits();
    }
    const std::string_view number = text_.substr(start, at_ - start);
    if (!has_fraction && !has_exponent && readInteger(number, out))
      return true;
    return readDouble(number, out);
  }

  template <class Integer>
  static bool readAs(std::string_view number, kit::Value& out) {
    Integer integer = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), integer);
    if (error != std::errc() || end != number.data() + number.size())
      return false;
    out = kit::Value(integer);
    return true;
  }

  static bool readInteger(std::string_view number, kit::Value& out) {
    return readAs<int64_t>(number, out) || (number.front() != '-' && readAs<uint64_t>(number, out));
  }

  bool readDouble(std::string_view number, kit::Value& out) {
    double value = 0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
      if (!isTiny(number))
        return fail("a number is too large");
      value = number.front() == '-' ? -0.0 : 0.0;
    }
    out = kit::Value(value);
    return true;
  }

  std::string_view text_;
  size_t at_ = 0;
  kit::Error error_;
};

}  // namespace

std::variant<kit::Value, kit::Error> readJson(std::string_view text) {
  return Reader(text).document();
}

kit::Value json(std::string_view text) {
  auto result = readJson(text);
  if (const auto* error = std::get_if<kit::Error>(&result))
    throw std::invalid_argument(error->message + " in " + std::string(text));
  return std::get<kit::Value>(std::move(result));
}

std::variant<std::string, kit::Error> PlainJsonCodec::write(const kit::Value& value) const {
  if (refusal_)
    return kit::Error{*refusal_};
  return services::writeJson(value);
}

std::variant<std::string, kit::Error> PlainJsonCodec::writePretty(const kit::Value& value) const {
  if (refusal_)
    return kit::Error{*refusal_};
  return services::writePrettyJson(value);
}

}  // namespace morvik::testing
