// The one writer of JSON text, straight from kit::Value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "kit/error.h"
#include "kit/stop_request.h"
#include "kit/value.h"

namespace morvik::services {

/// Compact JSON text of `value`, without options. In text that is not UTF-8 each bad byte becomes U+FFFD.
/// Errors, each saying what: a date, an absent value, a number that is not finite, nesting beyond kit::kMaxJsonDepth.
std::variant<std::string, kit::Error> writeJson(const kit::Value& value);

/// The same text for people: each entry and element on its own line, indented by two spaces per level, a space on both
/// sides of the colon; an empty container stays on one line. No line feed at the end.
std::variant<std::string, kit::Error> writePrettyJson(const kit::Value& value);

/// As writeJson, appended to `out`. An error leaves in `out` what was written so far. A stop that is requested
/// meanwhile is an error too; `stop` may be null.
std::optional<kit::Error> appendJson(const kit::Value& value, std::string& out, const kit::StopRequest* stop = nullptr);

/// JSON text for people: total, never fails. Dates in ISO 8601, an absent value as null, numbers that are not finite as
/// their name in quotes, nesting beyond kit::kMaxJsonDepth as "…".
void appendJsonDescription(const kit::Value& value, std::string& out);
/// The same, as a new text.
std::string jsonDescription(const kit::Value& value);

/// Copies `text` to `out`, with U+FFFD in place of each byte that is not part of well-formed UTF-8.
void appendRepairedUtf8(std::string_view text, std::string& out);

/// The number of well-formed UTF-8 bytes at the start of `text`: its size, or the position of the first bad byte.
size_t wellFormedBytes(std::string_view text);

/// True when `text` is well-formed UTF-8.
bool isUtf8(std::string_view text);

}  // namespace morvik::services
