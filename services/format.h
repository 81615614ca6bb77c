// Type-safe filling of "%@", "%ld", "%lld", "%lu", "%d" and "%s" in fixed message texts.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "services/describe.h"

namespace morvik::services {

/// One argument of a message. Lives as long as the full expression that makes it; texts are not copied.
class FormatArgument {
 public:
  template <std::integral Integer>
  requires(!std::same_as<Integer, bool>) FormatArgument(Integer number)
      : held_(static_cast<int64_t>(number)) {}                                                         // NOLINT
  FormatArgument(bool flag) : held_(static_cast<int64_t>(flag)) {}                                     // NOLINT
  FormatArgument(const char* text) : held_(std::string_view(text != nullptr ? text : kAbsentText)) {}  // NOLINT
  FormatArgument(const std::string& text) : held_(std::string_view(text)) {}                           // NOLINT
  FormatArgument(std::string_view text) : held_(text) {}                                               // NOLINT
  FormatArgument(const std::optional<std::string>& text)                                               // NOLINT
      : held_(text ? std::string_view(*text) : std::string_view(kAbsentText)) {}
  template <class Described>
  requires requires(const Described& object) {
    describe(object);
  } &&(!std::integral<Described>)&&(!std::convertible_to<const Described&, std::string_view>)
      FormatArgument(const Described& object)
      : held_(describe(object)) {
  }  // NOLINT

  /// As text, for "%@" and "%s".
  void appendText(std::string& out) const;
  /// As a number, for "%d" (32 bits), "%ld" and "%lld"; 0 for a text.
  int64_t number() const;

 private:
  std::variant<int64_t, std::string_view, std::string> held_;
};

/// `text` with its conversions filled in order. A conversion without an argument is left as it is; a surplus
/// argument is ignored: a message is never lost over its arguments.
std::string format(std::string_view text, std::initializer_list<FormatArgument> arguments);

}  // namespace morvik::services
