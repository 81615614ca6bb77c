// Reads JSON with simdjson; writes it with the core's own writer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "kit/json_codec.h"

namespace morvik::host {

/// A document with more members and elements in total is refused at the first excess one: reading and processing them
/// happens on the main queue.
inline constexpr size_t kMaxJsonItems = 100'000;

/// Stateless; one object serves all threads. An error names the byte (from 0) at which reading stopped.
class SimdjsonCodec final : public kit::JsonCodec {
 public:
  std::variant<kit::Value, kit::Error> read(std::string_view text) const override;
  std::variant<std::string, kit::Error> write(const kit::Value& value) const override;
  std::variant<std::string, kit::Error> writePretty(const kit::Value& value) const override;
};

}  // namespace morvik::host
