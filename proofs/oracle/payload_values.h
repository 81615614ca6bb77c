// Reads the values of stored records, payloads and answers. The kit's own converters are not used, since they are under
// test.
#pragma once

#include <cstdint>
#include <string>

#include "kit/value.h"

namespace morvik::proofs {

/// Text unchanged, an integer or boolean in decimal form; "" for anything else.
std::string textOf(const kit::Value& value);

/// A number without its fraction, a boolean as 1 or 0, the integer at the start of a text; 0 for anything else. Values
/// out of range are clamped.
int64_t integerOf(const kit::Value& value);

/// Whether an answer means yes: true, a number other than 0, or a text that begins with Y, y, T, t or a digit from 1 to
/// 9.
bool meansYes(const kit::Value& value);

/// For a click, or for the count of its failures.
int64_t conversionKeyOf(const kit::Value& record);
int64_t failuresOf(const kit::Value& record);

}  // namespace morvik::proofs
