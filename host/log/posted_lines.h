// The log as the app's threads meet it: none of them waits for whoever takes the lines.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "host/life/thread_mark.h"
#include "kit/log.h"
#include "kit/mutex.h"
#include "kit/queues.h"
#include "services/log.h"

namespace morvik::host {

/// Lines that wait, and their bytes; of further ones only the number is told.
inline constexpr size_t kMaxPostedLines = 256;
inline constexpr size_t kMaxPostedLineBytes = size_t{1} << 20;

/// Passes each line on at once, but those of a thread that is marked: they wait, and the main queue writes them. An app
/// may hold a lock of its own while it calls the kit, and its log sink may take the same one. Any thread.
class PostedLines final : public kit::LogSink {
 public:
  /// Both outlive it.
  PostedLines(const kit::LogLevels& levels, kit::LogSink& sink) : logger_(levels, sink), sink_(sink) {}

  /// From here on lines may wait. `main_queue` outlives the last call that is marked. Once, before other threads come.
  void setMainQueue(kit::MainQueue& main_queue) { main_queue_ = &main_queue; }

  /// Lines of this thread wait as long as what is returned lives.
  [[nodiscard]] ThreadMark<PostedLines> postFromHere() const { return {posting_of_thread_, *this}; }

  /// After those that wait, unless this thread is marked.
  void line(std::string_view text) override;
  /// At once, and past those that wait.
  bool tryLine(std::string_view text) override { return sink_.tryLine(text); }

  bool areWaiting();
  /// Writes those that wait.
  void writeAll();
  /// The same, but a line that would have to wait for a lock is dropped.
  void tryWriteAll();

 private:
  void keep(std::string_view text);
  bool tryToAppend(std::string_view text);
  void post();
  std::optional<std::string> takeOne();
  void write(std::string_view text);
  static void tellLeftOut(const services::Logger& logger, size_t count);

  static thread_local const PostedLines* posting_of_thread_;
  static thread_local const PostedLines* writing_of_thread_;

  const services::Logger logger_;
  kit::LogSink& sink_;
  kit::MainQueue* main_queue_ = nullptr;
  kit::Mutex mutex_;  ///< held for no call out; guards the two that follow
  std::deque<std::string> lines_;
  size_t bytes_ = 0;
  std::atomic<bool> is_posted_{false};
  std::atomic<size_t> left_out_{0};
};

}  // namespace morvik::host
