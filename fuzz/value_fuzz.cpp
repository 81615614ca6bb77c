// Any bytes as a stored value. What is read must be written in a form that is read as the same value.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/checks.h"
#include "runtime/store/value_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using morvik::fuzz::require;
  morvik::runtime::ValueDecoder decoder;
  const std::string input(data, data + size);
  const auto first = decoder.decode(input);
  if (!first)
    return 0;
  std::string written;
  require(morvik::runtime::encodeValue(*first, written), "what was read cannot be written");
  const auto second = decoder.decode(written);
  require(second.has_value(), "what was written cannot be read");
  std::string again;
  require(morvik::runtime::encodeValue(*second, again), "what was read a second time cannot be written");
  // Compared as bytes: not-a-number equals nothing, not even itself.
  require(again == written, "reading what was written gives another value");
  return 0;
}
