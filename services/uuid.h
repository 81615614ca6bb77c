// Unique identifiers.
#pragma once

#include <string>
#include <string_view>

#include "kit/crypto.h"
#include "kit/date.h"

namespace morvik::services {

/// UUID version 7, lower case, 36 characters: 48 bits of milliseconds since 1970, the rest random, so that ids made
/// later sort later. A date before 1970 counts as 1970.
std::string makeTimeOrderedUuid(kit::Date now, kit::Random& random);

/// UUID version 4, lower case, 36 characters: all of it random.
std::string makeRandomUuid(kit::Random& random);

/// Whether the text has the form of a UUID: 8-4-4-4-12 hexadecimal digits, of either case.
bool isUuid(std::string_view text);

}  // namespace morvik::services
