#include "host/log/posted_lines.h"

#include <utility>

namespace morvik::host {

void PostedLines::post(kit::LogLevel level, kit::Block write) {
  if (!logger_.enabled(level))
    return;
  if (waiting_.fetch_add(1) >= kMaxPostedLines) {
    --waiting_;
    ++left_out_;
    return;
  }
  main_queue_.async([this, write = std::move(write)] {
    --waiting_;
    write();
    tellLeftOut();
  });
}

void PostedLines::tellLeftOut() {
  const size_t count = left_out_.exchange(0);
  if (count == 0)
    return;
  MORVIK_LOG(logger_, kit::lcl_vWarning, "-[MorvikCore log]",
             "Morvik host: %lu lines like those before were left out: they came faster than they could be written",
             count);
}

}  // namespace morvik::host
