#include "services/describe.h"

#include <charconv>
#include <cmath>

#include "services/dates.h"
#include "services/json_writer.h"

namespace morvik::services {
namespace {

// Doubles between these are written without an exponent.
constexpr double kSmallestDecimal = 1e-6;
constexpr double kLargestDecimal = 1e21;

std::string doubleText(double number) {
  if (std::isnan(number))
    return "nan";
  if (std::isinf(number))
    return number > 0 ? "inf" : "-inf";
  // By default the shortest text of 100000.0 is "1e+05".
  const double size = std::fabs(number);
  const bool decimal = size == 0 || (size >= kSmallestDecimal && size < kLargestDecimal);
  const auto form = decimal ? std::chars_format::fixed : std::chars_format::scientific;
  char digits[40];
  const auto end = std::to_chars(digits, digits + sizeof digits, number, form).ptr;
  return {digits, end};
}

}  // namespace

std::string numberText(const kit::Value& number) {
  switch (number.kind()) {
    case kit::Kind::kInteger:
      return std::to_string(number.integer());
    case kit::Kind::kUnsigned:
      return std::to_string(number.unsignedInteger());
    default:
      return doubleText(number.number());
  }
}

std::string describe(const kit::Value& value) {
  switch (value.kind()) {
    case kit::Kind::kAbsent:
      return kAbsentText;
    case kit::Kind::kNull:
      return kNullText;
    case kit::Kind::kBoolean:
      return value.boolean() ? "1" : "0";
    case kit::Kind::kInteger:
    case kit::Kind::kUnsigned:
    case kit::Kind::kDouble:
      return numberText(value);
    case kit::Kind::kString:
      return std::string(value.string());
    case kit::Kind::kDate:
      return iso8601(value.date());
    default: {
      std::string text;
      appendJsonDescription(value, text);
      return text;
    }
  }
}

std::string describe(const kit::Request& request) {
  return request.method + ' ' + request.url;
}
std::string describe(const kit::Response& response) {
  return std::to_string(response.status_code) + ' ' + response.url;
}
std::string describe(const std::optional<kit::Response>& response) {
  return response ? describe(*response) : kAbsentText;
}
std::string describe(const kit::Url& url) {
  return url.absoluteString();
}
std::string describe(const kit::Error& error) {
  return error.message;
}
std::string describe(const kit::Exception& exception) {
  return exception.reason;
}

}  // namespace morvik::services
