// The text of an object in a log line ("%@").
#pragma once

#include <optional>
#include <string>

#include "kit/error.h"
#include "kit/transport.h"
#include "kit/url.h"
#include "kit/value.h"

namespace morvik::services {

inline constexpr const char* kAbsentText = "(null)";
inline constexpr const char* kNullText = "<null>";

/// Absent "(null)", null "<null>", text bare, a date in ISO 8601, containers as JSON text (dates in them in ISO 8601),
/// a number in decimal form, a boolean 1 or 0. Total.
std::string describe(const kit::Value& value);
/// "METHOD URL".
std::string describe(const kit::Request& request);
/// "STATUS URL".
std::string describe(const kit::Response& response);
/// The same, or "(null)" without one.
std::string describe(const std::optional<kit::Response>& response);
/// Its text.
std::string describe(const kit::Url& url);
/// Its message.
std::string describe(const kit::Error& error);
/// Its reason.
std::string describe(const kit::Exception& exception);

/// A number as text: integers in decimal, doubles as the shortest decimal text that reads back
/// the same (with an exponent below 0.000001 and from 10^21 on; "nan", "inf", "-inf").
std::string numberText(const kit::Value& number);

}  // namespace morvik::services
