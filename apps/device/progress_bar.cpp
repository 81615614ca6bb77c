#include "apps/device/progress_bar.h"

#include <algorithm>
#include <utility>

namespace morvik_device {
namespace {

constexpr uint64_t kWidth = 30;
constexpr const char* kWipe = "\r\033[K";

}  // namespace

ProgressBar::ProgressBar(std::ostream& terminal, bool is_shown, std::string what)
    : terminal_(terminal), is_shown_(is_shown), what_(std::move(what)) {}

ProgressBar::~ProgressBar() {
  if (is_drawn_)
    terminal_ << kWipe << std::flush;
}

void ProgressBar::show(uint64_t done, uint64_t total, Clock::time_point now) {
  if (!is_shown_ || total == 0 || now - began_ < kProgressAfter || now - last_ < kProgressEvery)
    return;
  last_ = now;
  is_drawn_ = true;
  done = std::min(done, total);
  const uint64_t filled = done * kWidth / total;
  terminal_ << kWipe << what_ << " [" << std::string(filled, '#') << std::string(kWidth - filled, '.') << "] "
            << done * 100 / total << "%" << std::flush;
}

}  // namespace morvik_device
