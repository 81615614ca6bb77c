// The null-safe converters: the only place where values of any kind become text, booleans and numbers. Each is total.
#pragma once

#include <cstdint>
#include <string_view>

#include "kit/value.h"

namespace morvik::services {

/// Text as it is; a number in decimal form; a boolean "1" or "0"; a date in ISO 8601; absent, null and containers "".
kit::Value checkNilToBlankString(const kit::Value& value);
/// A boolean as it is; a number other than 0 (not-a-number is not); text that begins, after white space, with Y, y, T,
/// t or a digit 1 to 9. Anything else is false.
bool checkNilToNo(const kit::Value& value);
/// A number truncated toward zero and saturated to 64 bits (not-a-number 0), a boolean 1 or 0, text by its leading
/// integer. Anything else is 0.
int64_t checkIntegerNilToZero(const kit::Value& value);
/// The same under its other name; the two differ only on 32-bit platforms.
int64_t checkLongLongNilToZero(const kit::Value& value);
/// A number, a boolean 1 or 0, text by its leading number; out of range saturates, not-a-number is 0. Anything else is
/// 0.
double checkDoubleNilToZero(const kit::Value& value);
/// The low 32 bits of checkIntegerNilToZero (two's complement).
int32_t checkNilToZero(const kit::Value& value);

/// Whether an element of a list of conversion keys is a key: null and containers are not, and do not count as key 0.
bool isConversionKey(const kit::Value& element);

/// Whether the text begins, after white space, with what leadingDouble reads.
bool beginsWithNumber(std::string_view text);

/// A double truncated toward zero to 64 bits; out of range saturates, not-a-number is 0.
int64_t saturatedInteger(double number);

/// The number that a text begins with, after white space: sign, digits, fraction, exponent. 0 if there is none.
double leadingDouble(std::string_view text);
/// The integer that a text begins with, after white space, saturated. 0 if there is none.
int64_t leadingInteger(std::string_view text);

}  // namespace morvik::services
