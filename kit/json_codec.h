// Converts between JSON text and values.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "kit/error.h"
#include "kit/value.h"

namespace morvik::kit {

/// Deeper nesting of containers is refused, by the reader and by the writer.
inline constexpr size_t kMaxJsonDepth = 512;

class JsonCodec {
 public:
  virtual ~JsonCodec() = default;
  /// Any document. null is Value::null(), integers beyond 64 bits become doubles, and the last value of a repeated key
  /// counts. Otherwise strict: trailing text, comments, bad UTF-8, and more members and elements than the reader takes
  /// (kMaxJsonItems) are errors that say where. Any thread; blocks only as long as the text takes.
  virtual std::variant<Value, Error> read(std::string_view text) const = 0;
  /// Compact text without options. Errors: dates, absent values, non-finite numbers, depth.
  virtual std::variant<std::string, Error> write(const Value& value) const = 0;
  /// The same for people: each entry and element on its own line, indented by two blanks per level, a blank on both
  /// sides of the colon; an empty container in one piece. No final line feed.
  virtual std::variant<std::string, Error> writePretty(const Value& value) const = 0;
};

}  // namespace morvik::kit
