// Command-line arguments of a benchmark that stores many events.
#pragma once

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <system_error>

namespace morvik::bench {

struct EventArguments {
  int events = 0;
  std::string_view kind;  ///< one of the options; "": none
};

/// Digits only, and not 0; nothing for anything else.
inline std::optional<int> eventCountOf(std::string_view text) {
  int count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  const bool is_number = error == std::errc() && end == text.data() + text.size();
  return is_number && count > 0 ? std::optional(count) : std::nullopt;
}

/// "[EVENTS] [--one | --another]", in any order; `default_events` if no number is given. Nothing if there is anything
/// else. The texts outlive it.
inline std::optional<EventArguments> eventArguments(int argc, char** argv, int default_events,
                                                    std::initializer_list<std::string_view> kinds) {
  EventArguments arguments;
  for (int i = 1; i < argc; ++i) {
    const std::string_view text = argv[i];
    const auto count = eventCountOf(text);
    if (count && arguments.events == 0)
      arguments.events = *count;
    else if (arguments.kind.empty() && std::find(kinds.begin(), kinds.end(), text) != kinds.end())
      arguments.kind = text;
    else
      return std::nullopt;
  }
  if (arguments.events == 0)
    arguments.events = default_events;
  return arguments;
}

}  // namespace morvik::bench
