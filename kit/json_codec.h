// JSON text to values and back.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "kit/error.h"
#include "kit/value.h"

namespace morvik::kit {

/// Containers nested deeper than this are refused, by the reader and by the writer.
inline constexpr size_t kMaxJsonDepth = 512;

class JsonCodec {
 public:
  virtual ~JsonCodec() = default;
  /// Any document; null is Value::null(), integers beyond 64 bits become doubles, of a key that is repeated the last
  /// value counts. Strict otherwise: trailing text, comments, bad UTF-8, and more members and elements than the reader
  /// takes (the host's: kMaxJsonItems) are errors that say where. Any thread; blocks by the size of the text alone.
  virtual std::variant<Value, Error> read(std::string_view text) const = 0;
  /// Compact text without options. Errors: dates, absent values, numbers that are not finite, depth.
  virtual std::variant<std::string, Error> write(const Value& value) const = 0;
  /// The same text for people: each entry and element on a line of its own, indented by two blanks a level, a blank on
  /// both sides of the colon; an empty container stays in one piece. No line feed at the end.
  virtual std::variant<std::string, Error> writePretty(const Value& value) const = 0;
};

}  // namespace morvik::kit
