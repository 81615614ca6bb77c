#include "apps/service/http/head_watch.h"

#include <sys/socket.h>

#include <algorithm>

namespace morvik_service {

using std::chrono::steady_clock;

HeadWatch::Watched::Watched(HeadWatch& watch, int socket) : watch_(watch), socket_(socket) {
  awaitNext();
}

HeadWatch::Watched::~Watched() {
  arrived();
}

void HeadWatch::Watched::arrived() {
  const std::lock_guard lock(watch_.mutex_);
  watch_.awaited_.erase(socket_);
}

void HeadWatch::Watched::awaitNext() {
  {
    const std::lock_guard lock(watch_.mutex_);
    watch_.awaited_[socket_] = steady_clock::now() + watch_.bound_;
  }
  watch_.changed_.notify_one();
}

HeadWatch::HeadWatch(std::chrono::seconds bound)
    : bound_(bound), thread_([this](const std::stop_token& stop) { run(stop); }) {}

// The timeout is the same for all: a connection added during the wait is due later than the awaited one.
void HeadWatch::run(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (changed_.wait(lock, stop, [this] { return !awaited_.empty(); })) {
    const steady_clock::time_point next = shutLate();
    if (!awaited_.empty())
      changed_.wait_for(lock, stop, next - steady_clock::now(), [] { return false; });
  }
}

steady_clock::time_point HeadWatch::shutLate() {
  const steady_clock::time_point now = steady_clock::now();
  steady_clock::time_point next = steady_clock::time_point::max();
  for (auto entry = awaited_.begin(); entry != awaited_.end();) {
    if (entry->second > now) {
      next = std::min(next, entry->second);
      ++entry;
      continue;
    }
    ::shutdown(entry->first, SHUT_RDWR);
    entry = awaited_.erase(entry);
  }
  return next;
}

}  // namespace morvik_service
