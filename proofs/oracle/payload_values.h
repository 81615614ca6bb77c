// How the values of stored records, payloads and answers are read. Not by the kit's converters: those are checked.
#pragma once

#include <cstdint>
#include <string>

#include "kit/value.h"

namespace morvik::proofs {

/// Text as it is, an integer or boolean in decimal form; "" for all else.
std::string textOf(const kit::Value& value);

/// A number without its fraction, a boolean as 1 or 0, the integer that a text begins with; 0 for all else. What does
/// not fit is the nearest that does.
int64_t integerOf(const kit::Value& value);

/// Whether an answer means yes: true, a number other than 0, a text that begins with Y, y, T, t or a digit but 0.
bool meansYes(const kit::Value& value);

/// Of a click, or of the count of its failures.
int64_t conversionKeyOf(const kit::Value& record);
int64_t failuresOf(const kit::Value& record);

}  // namespace morvik::proofs
