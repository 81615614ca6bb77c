// Any bytes as a server's answer, read as JSON. What is read must survive being written and read again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <variant>

#include "host/json/simdjson_codec.h"
#include "kit/value.h"

namespace {

[[noreturn]] void report(const char* what, std::string_view text) {
  std::cerr << what << ": " << text << '\n';
  std::abort();
}

std::string written(const morvik::host::SimdjsonCodec& codec, const morvik::kit::Value& value) {
  const auto text = codec.write(value);
  if (!std::holds_alternative<std::string>(text))
    report("what was read cannot be written", std::get<morvik::kit::Error>(text).message);
  return std::get<std::string>(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const morvik::host::SimdjsonCodec codec;
  const std::string input(data, data + size);
  const auto first = codec.read(input);
  if (!std::holds_alternative<morvik::kit::Value>(first))
    return 0;
  const std::string text = written(codec, std::get<morvik::kit::Value>(first));
  const auto second = codec.read(text);
  if (!std::holds_alternative<morvik::kit::Value>(second))
    report("what was written cannot be read", text);
  if (!(std::get<morvik::kit::Value>(first) == std::get<morvik::kit::Value>(second)))
    report("reading what was written gives another value", text);
  return 0;
}
