// A log with somebody who listens at its door.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "kit/log.h"

namespace morvik::proofs {

/// Tells `listener` of each line as it is said, before the log gets it. As safe per thread as both.
class HeardLines final : public kit::LogSink {
 public:
  using Listener = std::function<void(std::string_view text)>;
  /// `log` outlives it.
  HeardLines(kit::LogSink& log, Listener listener) : log_(log), listener_(std::move(listener)) {}
  void line(std::string_view text) override {
    listener_(text);
    log_.line(text);
  }
  bool tryLine(std::string_view text) override { return log_.tryLine(text); }

 private:
  kit::LogSink& log_;
  const Listener listener_;
};

}  // namespace morvik::proofs
