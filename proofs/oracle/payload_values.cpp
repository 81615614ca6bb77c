#include "proofs/oracle/payload_values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>
#include <system_error>

namespace morvik::proofs {
namespace {

constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
constexpr int64_t kSmallest = std::numeric_limits<int64_t>::min();

std::string_view withoutLeadingBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  return text;
}

int64_t leadingInteger(std::string_view text) {
  text = withoutLeadingBlanks(text);
  const bool is_negative = text.starts_with('-');
  if (text.starts_with('+') && !text.starts_with("+-"))
    text.remove_prefix(1);
  int64_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec == std::errc::result_out_of_range)
    return is_negative ? kSmallest : kLargest;
  return number;
}

int64_t integerOf(double number) {
  // 2 to the power of 63: the first that does not fit.
  constexpr double kLimit = 9'223'372'036'854'775'808.0;
  if (std::isnan(number))
    return 0;
  if (number >= kLimit)
    return kLargest;
  return number < -kLimit ? kSmallest : static_cast<int64_t>(number);
}

}  // namespace

std::string textOf(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kString:
      return std::string(value.string());
    case kit::Kind::kBoolean:
      return value.boolean() ? "1" : "0";
    case kit::Kind::kInteger:
      return std::to_string(value.integer());
    default:
      return "";
  }
}

int64_t integerOf(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kBoolean:
      return value.boolean() ? 1 : 0;
    case kit::Kind::kInteger:
      return value.integer();
    case kit::Kind::kUnsigned:
      return kLargest;
    case kit::Kind::kDouble:
      return integerOf(value.number());
    case kit::Kind::kString:
      return leadingInteger(value.string());
    default:
      return 0;
  }
}

bool meansYes(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kBoolean:
      return value.boolean();
    case kit::Kind::kInteger:
      return value.integer() != 0;
    case kit::Kind::kUnsigned:
      return true;
    case kit::Kind::kDouble:
      return value.number() < 0 || value.number() > 0;
    case kit::Kind::kString: {
      constexpr std::string_view kYes = "YyTt123456789";
      const std::string_view text = withoutLeadingBlanks(value.string());
      return !text.empty() && kYes.find(text.front()) != std::string_view::npos;
    }
    default:
      return false;
  }
}

int64_t conversionKeyOf(const kit::Value& record) {
  return integerOf(record["conversion_key"]);
}

int64_t failuresOf(const kit::Value& record) {
  return integerOf(record["failure_cnt"]);
}

}  // namespace morvik::proofs
