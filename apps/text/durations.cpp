#include "apps/text/durations.h"

#include <array>

namespace morvik_text {
namespace {

struct Unit {
  std::string_view name;
  std::int64_t milliseconds;
};

// Larger units first.
constexpr std::array kUnits = {
    Unit{"d", 24 * 3600 * 1000}, Unit{"h", 3600 * 1000}, Unit{"m", 60 * 1000}, Unit{"s", 1000}, Unit{"ms", 1},
};

constexpr int kMostFractionDigits = 3;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

void skipBlanks(std::string_view& text) {
  while (!text.empty() && text.front() == ' ')
    text.remove_prefix(1);
}

/// A decimal number, in thousandths; nothing if there is none or it is too large.
std::optional<std::int64_t> takeThousandths(std::string_view& text) {
  constexpr std::int64_t kMost = kMaxDurationMilliseconds;
  if (text.empty() || !isDigit(text.front()))
    return std::nullopt;
  std::int64_t thousandths = 0;
  while (!text.empty() && isDigit(text.front())) {
    thousandths = thousandths * 10 + (text.front() - '0');
    if (thousandths > kMost)
      return std::nullopt;
    text.remove_prefix(1);
  }
  int digits = 0;
  if (text.size() > 1 && text.front() == '.' && isDigit(text[1])) {
    text.remove_prefix(1);
    for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1), ++digits)
      thousandths = digits < kMostFractionDigits ? thousandths * 10 + (text.front() - '0') : thousandths;
  }
  if (digits > kMostFractionDigits)
    return std::nullopt;
  for (; digits < kMostFractionDigits; ++digits)
    thousandths *= 10;
  return thousandths;
}

/// The index of the unit; nothing if there is none.
std::optional<std::size_t> takeUnit(std::string_view& text) {
  std::size_t length = 0;
  while (length < text.size() && text[length] >= 'a' && text[length] <= 'z')
    ++length;
  const std::string_view name = text.substr(0, length);
  for (std::size_t i = 0; i < kUnits.size(); ++i) {
    if (kUnits[i].name == name) {
      text.remove_prefix(length);
      return i;
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> readDuration(std::string_view text) {
  std::int64_t total = 0;
  std::size_t next_unit = 0;
  bool has_any = false;
  for (skipBlanks(text); !text.empty(); skipBlanks(text)) {
    const auto thousandths = takeThousandths(text);
    const auto unit = thousandths ? takeUnit(text) : std::nullopt;
    if (!unit || *unit < next_unit)
      return std::nullopt;
    // Exceeds the bound before it could overflow 64 bits: a day has fewer than 2^27 milliseconds.
    if (*thousandths / 1000 > kMaxDurationMilliseconds / kUnits[*unit].milliseconds)
      return std::nullopt;
    const std::int64_t product = *thousandths * kUnits[*unit].milliseconds;
    total += product / 1000;
    if (product % 1000 != 0 || total > kMaxDurationMilliseconds)
      return std::nullopt;
    next_unit = *unit + 1;
    has_any = true;
  }
  return has_any ? std::optional(total) : std::nullopt;
}

std::string durationText(std::int64_t milliseconds) {
  if (milliseconds == 0)
    return "0s";
  std::string text;
  for (const Unit& unit : kUnits) {
    if (milliseconds >= unit.milliseconds) {
      text += (text.empty() ? "" : " ") + std::to_string(milliseconds / unit.milliseconds) + std::string(unit.name);
      milliseconds %= unit.milliseconds;
    }
  }
  return text;
}

}  // namespace morvik_text
