#include "services/format.h"

namespace morvik::services {
namespace {

/// A conversion at the start of a text: how long it is and what it asks for.
struct Conversion {
  size_t length = 0;
  char kind = 0;  ///< '@' text, 'd' 32-bit, 'l' 64-bit, 'u' unsigned 64-bit, '%' a percent sign
};

Conversion conversionAt(std::string_view text) {
  struct Known {
    std::string_view spelling;
    char kind;
  };
  constexpr Known known[] = {{"%@", '@'},   {"%s", '@'},  {"%d", 'd'}, {"%ld", 'l'},
                             {"%lld", 'l'}, {"%lu", 'u'}, {"%%", '%'}};
  for (const Known& candidate : known) {
    if (text.starts_with(candidate.spelling))
      return {candidate.spelling.size(), candidate.kind};
  }
  return {};
}

void appendConverted(char kind, const FormatArgument& argument, std::string& out) {
  switch (kind) {
    case '@':
      argument.appendText(out);
      break;
    case 'd':
      out += std::to_string(static_cast<int32_t>(argument.number()));
      break;
    case 'u':
      out += std::to_string(static_cast<uint64_t>(argument.number()));
      break;
    default:
      out += std::to_string(argument.number());
  }
}

}  // namespace

void FormatArgument::appendText(std::string& out) const {
  if (const auto* number = std::get_if<int64_t>(&held_)) {
    out += std::to_string(*number);
  } else if (const auto* view = std::get_if<std::string_view>(&held_)) {
    out += *view;
  } else {
    out += std::get<std::string>(held_);
  }
}

int64_t FormatArgument::number() const {
  const auto* number = std::get_if<int64_t>(&held_);
  return number != nullptr ? *number : 0;
}

std::string format(std::string_view text, std::initializer_list<FormatArgument> arguments) {
  std::string out;
  const auto* next = arguments.begin();
  while (!text.empty()) {
    const size_t percent = text.find('%');
    out += text.substr(0, percent);
    if (percent == std::string_view::npos)
      break;
    text.remove_prefix(percent);
    const Conversion conversion = conversionAt(text);
    const size_t length = conversion.length == 0 ? 1 : conversion.length;
    if (conversion.kind == '%') {
      out += '%';
    } else if (conversion.length != 0 && next != arguments.end()) {
      appendConverted(conversion.kind, *next++, out);
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace morvik::services
