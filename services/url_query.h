// The one reader of a URL's query.
#pragma once

#include <string_view>

#include "kit/value.h"

namespace morvik::services {

/// The query of `url` as a dictionary of texts, in the order of the URL; absent when it has no query. What follows '#'
/// is not part of it. Pairs are separated by '&'; of a repeated key the first value counts; a key without '=' is
/// present and empty, a pair without a key is left out. '+' is a space, %XX a byte; an invalid escape stays as it is.
/// In text that is not UTF-8 afterwards each bad byte becomes U+FFFD. Accepts any bytes, in linear time.
kit::Value urlQuery(std::string_view url);

/// The text of a URL up to its query or fragment.
std::string_view withoutQuery(std::string_view url);

}  // namespace morvik::services
