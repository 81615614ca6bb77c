// The one writer of property lists.
#pragma once

#include <optional>
#include <string>

#include "kit/error.h"
#include "kit/value.h"

namespace morvik::services {

/// Appends `value` to `out` as an XML property list. In text that is not UTF-8 each bad byte becomes
/// U+FFFD. Errors, each saying what: an absent value, null, a number that is not finite, a control character that XML
/// cannot hold, nesting beyond kit::kMaxJsonDepth. An error leaves in `out` what was written so far. Any thread.
std::optional<kit::Error> appendPropertyList(const kit::Value& value, std::string& out);

}  // namespace morvik::services
