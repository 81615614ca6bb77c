// JSON for tests: a small strict reader, and a codec that uses it and the kit's own writer, so that a test needs no
// library.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "kit/json_codec.h"

namespace morvik::testing {

/// Reads one document, by the rules of kit::JsonCodec::read. Errors name the problem and its byte offset.
std::variant<kit::Value, kit::Error> readJson(std::string_view text);

/// The value of a document that the test wrote itself; std::invalid_argument, with the reader's message, if it is bad.
kit::Value json(std::string_view text);

/// Any thread; nothing blocks.
class PlainJsonCodec : public kit::JsonCodec {
 public:
  std::variant<kit::Value, kit::Error> read(std::string_view text) const override { return readJson(text); }
  std::variant<std::string, kit::Error> write(const kit::Value& value) const override;
  std::variant<std::string, kit::Error> writePretty(const kit::Value& value) const override;

  /// The error of every write from now on; nullopt: writes succeed, as initially. Not while another thread writes.
  void refuseToWrite(std::optional<std::string> error) { refusal_ = std::move(error); }

 private:
  std::optional<std::string> refusal_;
};

}  // namespace morvik::testing
