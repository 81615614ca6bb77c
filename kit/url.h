// A URL that opened the app, as the platform hands it over.
#pragma once

#include <string>
#include <utility>

namespace morvik::kit {

/// Only its text, which may be any bytes. The utility class parses it.
class Url {
 public:
  explicit Url(std::string text) : text_(std::move(text)) {}
  const std::string& absoluteString() const { return text_; }
  friend bool operator==(const Url&, const Url&) = default;

 private:
  std::string text_;
};

}  // namespace morvik::kit
