// The log for the app's threads: none of them waits for the sink.
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

/// Waiting lines, and their bytes; further ones are only counted.
inline constexpr size_t kMaxPostedLines = 256;
inline constexpr size_t kMaxPostedLineBytes = size_t{1} << 20;

/// Passes lines on in order, one at a time. A thread of the kit waits until its line is written. A marked thread does
/// not: the main queue writes its lines. An app may hold a lock while it calls the kit, and its log sink may take the
/// same one. Any thread; in a forked child a line is tried at once.
class PostedLines final : public kit::LogSink {
 public:
  /// Levels and sink outlive it. Children forked from `process` try a line at once.
  PostedLines(const kit::LogLevels& levels, kit::LogSink& sink, const OwnProcess& process)
      : process_(process), levels_(levels), sink_(sink), later_(*this) {}

  /// From now on lines may wait. `main_queue` outlives the last marked call. Call once, before there are other threads.
  void setMainQueue(kit::MainQueue& main_queue) { main_queue_ = &main_queue; }

  /// Lines of this thread wait while the returned mark lives.
  [[nodiscard]] ThreadMark<PostedLines> postFromHere() const { return {posting_of_thread_, *this}; }
  /// A log whose lines always wait, on any thread; for a thread that a marked thread waits for, say. After
  /// setMainQueue().
  kit::LogSink& later() { return later_; }

  /// After earlier lines, unless this thread is marked.
  void line(std::string_view text) override;
  /// At once, ahead of waiting lines.
  bool tryLine(std::string_view text) override { return sink_.tryLine(text); }

  bool areWaiting() const;
  /// Writes the lines that wait now.
  void writeAll();
  /// The same, but waits until `deadline` at most for another thread that writes; the lines then go on waiting. A line
  /// that the sink does not take at once is left out and counted.
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
  /// Its text is a copy, or belongs to a thread that waits until it is written.
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
  mutable std::mutex mutex_;               ///< held for no call out; guards the next three and writes of `writer_`
  std::deque<Line> lines_;                 ///< only the writing thread removes the first one
  uint64_t end_ = 0;                       ///< number of lines that ever waited
  size_t bytes_ = 0;                       ///< of copies
  std::condition_variable place_is_free_;  ///< with `writer_`
  std::atomic<std::thread::id> writer_{};  ///< the writing thread; none: free
  std::atomic<bool> is_posted_{false};
  std::atomic<size_t> left_out_{0};  ///< since the last waiting line came
  std::atomic<size_t> untold_{0};    ///< before the first waiting line; changed by the writing thread
};

}  // namespace morvik::runtime
