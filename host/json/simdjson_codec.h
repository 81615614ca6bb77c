// JSON text to values by simdjson, values to text by the core's own writer.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "kit/json_codec.h"

namespace morvik::host {

/// Holds nothing; one object serves every thread. An error names the byte at which reading stopped, counted from 0.
class SimdjsonCodec final : public kit::JsonCodec {
 public:
  std::variant<kit::Value, kit::Error> read(std::string_view text) const override;
  std::variant<std::string, kit::Error> write(const kit::Value& value) const override;
  std::variant<std::string, kit::Error> writePretty(const kit::Value& value) const override;
};

}  // namespace morvik::host
