// Notifies watchers of changes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stop_token>

namespace morvik_service {

/// Any thread.
class Feed {
 public:
  /// Counts the changes.
  std::uint64_t version() const;

  void publish();

  /// Waits until there are more changes than `seen`: true then; false after `patience`, or when `stop` is requested.
  bool waitBeyond(std::uint64_t seen, std::chrono::milliseconds patience, const std::stop_token& stop) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable_any changed_;
  std::uint64_t version_ = 0;
};

}  // namespace morvik_service
