// What a crash report will say of the device and the app. Noted ahead: during a crash nothing can be asked.
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

/// The latest of several texts. A signal handler may read it.
class CrashNote {
 public:
  /// The text to be read from now on; empty if it is too long. Any thread; waits for others that set one. While a
  /// handler reads, the note does not change.
  void set(std::string text);

  /// The latest text; valid until endReading(). Async-signal-safe; one reader at a time.
  std::string_view beginReading();
  void endReading();

 private:
  std::mutex setting_;
  std::array<std::string, 2> texts_;
  std::atomic<const std::string*> latest_{texts_.data()};
  std::atomic<bool> is_read_{false};
};

}  // namespace morvik::runtime
