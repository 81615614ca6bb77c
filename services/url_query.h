// The one reader of a URL's query.
#pragma once

#include <string_view>

#include "kit/value.h"

namespace morvik::services {

/// The query of `url` as a dictionary of texts, in the order of the URL; absent when it has no query. What follows '#'
/// is no part of it. Pairs stand between '&'; of a repeated key the first value counts; a key without '=' is present
/// and empty, a pair without a key is left out. '+' is a blank, %XX a byte; an escape that is none stays as it stands.
/// Text that is not UTF-8 afterwards is mended (U+FFFD). Any bytes will do; time is proportional to their number.
kit::Value urlQuery(std::string_view url);

/// The text of a URL up to its query or fragment.
std::string_view withoutQuery(std::string_view url);

}  // namespace morvik::services
