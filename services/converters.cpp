#include "services/converters.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "services/describe.h"

namespace morvik::services {
namespace {

std::string_view withoutLeadingBlanks(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\n\v\f\r");
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

/// Here a plus sign is part of a number; std::from_chars does not accept it.
std::string_view withoutPlus(std::string_view text) {
  const bool plus = text.size() > 1 && text[0] == '+' && text[1] != '-';
  return plus ? text.substr(1) : text;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Length of sign, digits, fraction and exponent at the start; words such as "inf" are not numbers here.
size_t numberLength(std::string_view text) {
  size_t i = text.starts_with('-') ? 1 : 0;
  const size_t first = i;
  while (i < text.size() && isDigit(text[i]))
    ++i;
  size_t digits = i - first;
  if (i < text.size() && text[i] == '.') {
    size_t fraction = i + 1;
    while (fraction < text.size() && isDigit(text[fraction]))
      ++fraction;
    digits += fraction - i - 1;
    i = fraction;
  }
  if (digits == 0)
    return 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    size_t exponent = i + 1;
    if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-'))
      ++exponent;
    const size_t start = exponent;
    while (exponent < text.size() && isDigit(text[exponent]))
      ++exponent;
    if (exponent > start)
      i = exponent;
  }
  return i;
}

/// The exponent in a number's text, clamped to bounds that no text in memory can reach; 0 if there is none.
int64_t statedExponent(std::string_view text) {
  constexpr int64_t kBound = int64_t{1} << 40;
  const size_t e = text.find_first_of("eE");
  const int64_t stated = e == std::string_view::npos ? 0 : leadingInteger(text.substr(e + 1));
  return std::clamp(stated, -kBound, kBound);
}

/// The power of ten of the first nonzero digit, or one more. There must be such a digit.
int64_t magnitude(std::string_view text) {
  const std::string_view mantissa = text.substr(0, text.find_first_of("eE"));
  const size_t point = std::min(mantissa.find('.'), mantissa.size());
  const size_t first = mantissa.find_first_of("123456789");
  return static_cast<int64_t>(point) - static_cast<int64_t>(first) + statedExponent(text);
}

/// For a number far outside the range of a double: the largest double, or 0 if it is too small.
double outOfRange(std::string_view text) {
  if (magnitude(text) < 0)
    return 0;
  constexpr double largest = std::numeric_limits<double>::max();
  return text.starts_with('-') ? -largest : largest;
}

}  // namespace

int64_t saturatedInteger(double number) {
  constexpr double limit = 9223372036854775808.0;  // 2^63, exact
  if (std::isnan(number))
    return 0;
  if (number >= limit)
    return std::numeric_limits<int64_t>::max();
  if (number < -limit)
    return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(number);
}

int64_t leadingInteger(std::string_view text) {
  text = withoutPlus(withoutLeadingBlanks(text));
  int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc::result_out_of_range) {
    return text.starts_with('-') ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return number;
}

double leadingDouble(std::string_view text) {
  text = withoutPlus(withoutLeadingBlanks(text));
  text = text.substr(0, numberLength(text));
  double number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  return result.ec == std::errc::result_out_of_range ? outOfRange(text) : number;
}

bool beginsWithNumber(std::string_view text) {
  return numberLength(withoutPlus(withoutLeadingBlanks(text))) > 0;
}

bool isConversionKey(const kit::Value& element) {
  return !element.isNil() && !element.isArray() && !element.isDictionary();
}

kit::Value checkNilToBlankString(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kString:
      return value;
    case kit::Kind::kBoolean:
    case kit::Kind::kInteger:
    case kit::Kind::kUnsigned:
    case kit::Kind::kDouble:
    case kit::Kind::kDate:
      return kit::Value(describe(value));
    default:
      return kit::Value::literal("");
  }
}

bool checkNilToNo(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kBoolean:
      return value.boolean();
    case kit::Kind::kInteger:
      return value.integer() != 0;
    case kit::Kind::kUnsigned:
      return true;
    case kit::Kind::kDouble:
      return value.number() != 0 && !std::isnan(value.number());
    case kit::Kind::kString: {
      const std::string_view text = withoutLeadingBlanks(value.string());
      return !text.empty() && std::string_view("YyTt123456789").find(text.front()) != std::string_view::npos;
    }
    default:
      return false;
  }
}

int64_t checkIntegerNilToZero(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kBoolean:
      return value.boolean() ? 1 : 0;
    case kit::Kind::kInteger:
      return value.integer();
    case kit::Kind::kUnsigned:
      return std::numeric_limits<int64_t>::max();
    case kit::Kind::kDouble:
      return saturatedInteger(value.number());
    case kit::Kind::kString:
      return leadingInteger(value.string());
    default:
      return 0;
  }
}

int64_t checkLongLongNilToZero(const kit::Value& value) {
  return checkIntegerNilToZero(value);
}

double checkDoubleNilToZero(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kBoolean:
      return value.boolean() ? 1 : 0;
    case kit::Kind::kInteger:
      return static_cast<double>(value.integer());
    case kit::Kind::kUnsigned:
      return static_cast<double>(value.unsignedInteger());
    case kit::Kind::kDouble: {
      const double limit = std::numeric_limits<double>::max();
      if (std::isnan(value.number()))
        return 0;
      return std::isinf(value.number()) ? std::copysign(limit, value.number()) : value.number();
    }
    case kit::Kind::kString:
      return leadingDouble(value.string());
    default:
      return 0;
  }
}

int32_t checkNilToZero(const kit::Value& value) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(checkIntegerNilToZero(value))));
}

}  // namespace morvik::services
