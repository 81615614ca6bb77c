// JSON text to values by simdjson, values to text by the core's own writer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "kit/json_codec.h"

namespace morvik::host {

/// A document with more members and elements in all is refused, where the first of them too many begins: reading them,
/// and all that is done with them, runs on the main queue.
inline constexpr size_t kMaxJsonItems = 100'000;

/// Holds nothing; one object serves every thread. An error names the byte at which reading stopped, counted from 0.
class SimdjsonCodec final : public kit::JsonCodec {
 public:
  std::variant<kit::Value, kit::Error> read(std::string_view text) const override;
  std::variant<std::string, kit::Error> write(const kit::Value& value) const override;
  std::variant<std::string, kit::Error> writePretty(const kit::Value& value) const override;
};

}  // namespace morvik::host
