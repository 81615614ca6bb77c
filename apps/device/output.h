// Standard output: one JSON object per line, flushed at once.
#pragma once

#include <cstdio>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

#include "apps/device/verbs.h"
#include "kit/value.h"

namespace morvik_device {

/// Any thread; a line is written whole before the next begins.
class Output {
 public:
  /// `stream` outlives the output.
  explicit Output(std::FILE* stream);
  /// Passes the lines to `taker`, as values.
  explicit Output(std::function<void(const morvik::kit::Value& line)> taker) : taker_(std::move(taker)) {}

  /// {"verb":"event","ok":true} with the verb's other fields, or {"verb":…,"ok":false,"error":…}.
  void verbDone(std::string_view verb, const Outcome& outcome);

  /// {"callback":"didReceiveDeeplink:","args":["app://offer"]}
  void callback(std::string_view selector, const morvik::kit::Array& arguments);
  /// The same for an optional module: {"callback":"saveRetainedConversionKey:","module":"FendoLib","args":[12]}
  void callbackOfModule(std::string_view selector, std::string_view module, const morvik::kit::Array& arguments);

  /// True once a line could not be written.
  bool failed() const;

 private:
  void write(const morvik::kit::Value& line);

  void writeTo(std::FILE* stream, const morvik::kit::Value& line);

  const std::function<void(const morvik::kit::Value& line)> taker_;
  mutable std::mutex mutex_;
  bool failed_ = false;
};

}  // namespace morvik_device
