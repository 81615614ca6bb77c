// What a report of a crash will tell of the device and the app: noted ahead, for a crash is no time to ask.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace morvik::runtime {

/// A longer note is left out.
inline constexpr size_t kMaxCrashNoteBytes = size_t{64} << 10;

/// The latest of texts, of which a signal handler may read one.
class CrashNote {
 public:
  /// The text to be read from now on; an empty one when it is too long. Any thread; waits for others that set one. Once
  /// a handler reads, the note stays as it is until it has.
  void set(std::string text);

  /// The latest text; it stays until endReading(). Async-signal-safe; one reader at a time.
  std::string_view beginReading();
  void endReading();

 private:
  std::mutex setting_;
  std::array<std::string, 2> texts_;
  std::atomic<const std::string*> latest_{texts_.data()};
  std::atomic<bool> is_read_{false};
};

}  // namespace morvik::runtime
