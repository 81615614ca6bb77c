#include "apps/service/inspect/feed.h"

namespace morvik_service {

std::uint64_t Feed::version() const {
  const std::lock_guard lock(mutex_);
  return version_;
}

void Feed::publish() {
  {
    const std::lock_guard lock(mutex_);
    ++version_;
  }
  changed_.notify_all();
}

bool Feed::waitBeyond(std::uint64_t seen, std::chrono::milliseconds patience, const std::stop_token& stop) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, stop, patience, [&] { return version_ != seen; });
}

}  // namespace morvik_service
