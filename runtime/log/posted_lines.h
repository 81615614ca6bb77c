// The log as the app's threads meet it: none of them waits for whoever takes the lines.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include "kit/log.h"
#include "kit/queues.h"
#include "runtime/life/own_process.h"
#include "runtime/life/thread_mark.h"

namespace morvik::runtime {

/// Lines that wait, and their bytes; of further ones only the number is told.
inline constexpr size_t kMaxPostedLines = 256;
inline constexpr size_t kMaxPostedLineBytes = size_t{1} << 20;

/// Passes lines on in the order in which they come, one at a time. A thread of the kit waits until its line is written.
/// One that is marked does not: the main queue writes its lines. An app may hold a lock of its own while it calls the
/// kit, and its log sink may take the same one. Any thread; in a forked child a line is tried at once.
class PostedLines final : public kit::LogSink {
 public:
  /// Levels and sink outlive it. In children that `process` forks a line is tried at once.
  PostedLines(const kit::LogLevels& levels, kit::LogSink& sink, const OwnProcess& process)
      : process_(process), levels_(levels), sink_(sink), later_(*this) {}

  /// From here on lines may wait. `main_queue` outlives the last call that is marked. Once, before other threads come.
  void setMainQueue(kit::MainQueue& main_queue) { main_queue_ = &main_queue; }

  /// Lines of this thread wait as long as what is returned lives.
  [[nodiscard]] ThreadMark<PostedLines> postFromHere() const { return {posting_of_thread_, *this}; }
  /// Its lines wait, whatever thread they come from: one that a marked thread waits for, say. After setMainQueue().
  kit::LogSink& later() { return later_; }

  /// After those that came before, unless this thread is marked.
  void line(std::string_view text) override;
  /// At once, and past those that wait.
  bool tryLine(std::string_view text) override { return sink_.tryLine(text); }

  bool areWaiting() const;
  /// Writes those that wait now.
  void writeAll();
  /// The same, but waits until `deadline` at most for another thread that writes: then they go on waiting. One that the
  /// sink does not take at once is left out, and counted.
  void tryWriteAll(std::chrono::steady_clock::time_point deadline);

 private:
  class Later final : public kit::LogSink {
   public:
    explicit Later(PostedLines& lines) : lines_(lines) {}
    void line(std::string_view text) override;
    bool tryLine(std::string_view text) override { return lines_.tryLine(text); }

   private:
    PostedLines& lines_;
  };
  /// Its text is a copy, or that of a thread which waits until it is written.
  struct Line {
    std::string_view text() const;
    std::variant<std::string, std::string_view> whole;
    size_t left_out_before = 0;
  };
  class Place;
  enum class Wait { kForSink, kNot };

  bool mustNotWait() const;
  void keep(std::string_view text);
  bool tryToAppend(std::string_view text);
  void post();
  void write(std::string_view text);
  uint64_t append(std::string_view text);
  uint64_t end();
  void writeUpTo(uint64_t end, Wait wait);
  const Line* front(uint64_t end);
  void takeAway();
  void tellLeftOut(Wait wait);
  size_t takeLeftOut();
  bool hand(std::string_view text, Wait wait);

  static thread_local const PostedLines* posting_of_thread_;

  const OwnProcess process_;
  const kit::LogLevels& levels_;
  kit::LogSink& sink_;
  Later later_;
  kit::MainQueue* main_queue_ = nullptr;
  mutable std::mutex mutex_;               ///< held for no call out; guards the three that follow, and sets `writer_`
  std::deque<Line> lines_;                 ///< only whoever has the place takes the first one away
  uint64_t end_ = 0;                       ///< lines that ever waited
  size_t bytes_ = 0;                       ///< of copies
  std::condition_variable place_is_free_;  ///< with `writer_`
  std::atomic<std::thread::id> writer_{};  ///< has the place; none: the place is free
  std::atomic<bool> is_posted_{false};
  std::atomic<size_t> left_out_{0};  ///< since the last line that waits came
  std::atomic<size_t> untold_{0};    ///< before the first line that waits; changed by whoever has the place
};

}  // namespace morvik::runtime
