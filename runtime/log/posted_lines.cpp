#include "runtime/log/posted_lines.h"

#include <new>
#include <optional>
#include <utility>

#include "services/log.h"

namespace morvik::runtime {
namespace {

/// Takes one line and stores it.
class KeptLine final : public kit::LogSink {
 public:
  void line(std::string_view text) override { text_ = text; }
  bool tryLine(std::string_view text) override {
    line(text);
    return true;
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// Empty if the level filters it.
std::string leftOutText(const kit::LogLevels& levels, size_t count) {
  KeptLine line;
  const services::Logger logger(levels, line);
  MORVIK_LOG(logger, kit::lcl_vWarning, "-[MorvikCore log]",
             "Morvik host: %lu lines like those before were left out: they came faster than they could be written",
             count);
  return line.text();
}

}  // namespace

thread_local const PostedLines* PostedLines::posting_of_thread_ = nullptr;

/// While it lives, only this thread writes.
class PostedLines::Place {
 public:
  /// Waits for its turn, until `deadline` at most if there is one.
  explicit Place(PostedLines& lines, std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt)
      : lines_(lines) {
    std::unique_lock hold(lines_.mutex_);
    const auto is_free = [this] { return lines_.writer_ == std::thread::id(); };
    if (!deadline)
      lines_.place_is_free_.wait(hold, is_free);
    else if (!lines_.place_is_free_.wait_until(hold, *deadline, is_free))
      return;
    lines_.writer_ = std::this_thread::get_id();
    is_taken_ = true;
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  /// In a child forked by the sink nobody asks for it, and another thread's lock may never be released.
  ~Place() {
    if (!is_taken_ || !lines_.process_.isHere())
      return;
    const std::scoped_lock hold(lines_.mutex_);
    lines_.writer_ = std::thread::id();
    lines_.place_is_free_.notify_all();
  }
  bool isTaken() const { return is_taken_; }

 private:
  PostedLines& lines_;
  bool is_taken_ = false;
};

std::string_view PostedLines::Line::text() const {
  return std::visit([](const auto& text) { return std::string_view(text); }, whole);
}

void PostedLines::Later::line(std::string_view text) {
  if (lines_.mustNotWait())
    lines_.tryLine(text);
  else
    lines_.keep(text);
}

void PostedLines::line(std::string_view text) {
  if (mustNotWait())
    tryLine(text);
  else if (posting_of_thread_ == this && main_queue_ != nullptr)
    keep(text);
  else
    write(text);
}

/// A sink that calls the kit would be called with the kit's lines, endlessly. So such lines are dropped, unless the
/// sink takes several at once.
bool PostedLines::mustNotWait() const {
  return !process_.isHere() || writer_ == std::this_thread::get_id();
}

// ------------------------------------------------------------------------------------------------------------- waiting

/// The caller has something to do that must not fail because of a log line.
void PostedLines::keep(std::string_view text) {
  try {
    if (!tryToAppend(text))
      ++left_out_;
    post();
  } catch (const std::bad_alloc&) {
    // The next line of any thread reports it.
    ++left_out_;
  }
}

bool PostedLines::tryToAppend(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  if (lines_.size() >= kMaxPostedLines || text.size() > kMaxPostedLineBytes - bytes_)
    return false;
  lines_.push_back({.whole = std::string(text), .left_out_before = left_out_});
  left_out_ -= lines_.back().left_out_before;
  bytes_ += text.size();
  ++end_;
  return true;
}

void PostedLines::post() {
  if (is_posted_.exchange(true))
    return;
  try {
    main_queue_->async([this] {
      is_posted_ = false;
      writeAll();
    });
  } catch (...) {
    is_posted_ = false;
    throw;
  }
}

bool PostedLines::areWaiting() const {
  const std::scoped_lock hold(mutex_);
  return !lines_.empty() || left_out_ > 0 || untold_ > 0;
}

// ------------------------------------------------------------------------------------------------------------- writing

/// Keeps its place in the order of calls. Without memory for that it comes after all waiting lines.
void PostedLines::write(std::string_view text) {
  uint64_t end = 0;
  try {
    end = append(text);
  } catch (const std::bad_alloc&) {
    writeAll();
    const Place place(*this);
    static_cast<void>(hand(text, Wait::kForSink));
    return;
  }
  const Place place(*this);
  writeUpTo(end, Wait::kForSink);
}

/// One per waiting thread, so no limit counts them.
uint64_t PostedLines::append(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  lines_.push_back({.whole = text, .left_out_before = left_out_});
  left_out_ -= lines_.back().left_out_before;
  return ++end_;
}

void PostedLines::writeAll() {
  if (!process_.isHere())
    return;
  const Place place(*this);
  writeUpTo(end(), Wait::kForSink);
  untold_ += takeLeftOut();
  tellLeftOut(Wait::kForSink);
}

void PostedLines::tryWriteAll(std::chrono::steady_clock::time_point deadline) {
  if (!process_.isHere())
    return;
  const Place place(*this, deadline);
  if (!place.isTaken())
    return;
  writeUpTo(end(), Wait::kNot);
  untold_ += takeLeftOut();
  tellLeftOut(Wait::kNot);
}

uint64_t PostedLines::end() {
  const std::scoped_lock hold(mutex_);
  return end_;
}

void PostedLines::writeUpTo(uint64_t end, Wait wait) {
  while (const Line* const line = front(end)) {
    untold_ += line->left_out_before;
    tellLeftOut(wait);
    if (!hand(line->text(), wait))
      ++untold_;
    if (process_.isHere())
      takeAway();
  }
}

/// The first waiting line if it is among the first `end`. Also null in a child forked by the sink.
const PostedLines::Line* PostedLines::front(uint64_t end) {
  if (!process_.isHere())
    return nullptr;
  const std::scoped_lock hold(mutex_);
  return lines_.empty() || end_ - lines_.size() >= end ? nullptr : &lines_.front();
}

void PostedLines::takeAway() {
  const std::scoped_lock hold(mutex_);
  if (const auto* const copy = std::get_if<std::string>(&lines_.front().whole))
    bytes_ -= copy->size();
  lines_.pop_front();
}

/// Lines left out after the last waiting line.
size_t PostedLines::takeLeftOut() {
  if (!process_.isHere())
    return 0;
  const std::scoped_lock hold(mutex_);
  return lines_.empty() ? left_out_.exchange(0) : 0;
}

void PostedLines::tellLeftOut(Wait wait) {
  const size_t count = untold_;
  if (count == 0)
    return;
  try {
    const std::string text = leftOutText(levels_, count);
    if (text.empty() || hand(text, wait))
      untold_ -= count;
  } catch (const std::bad_alloc&) {
    // The next one reports it.
    return;
  }
}

/// False: the sink did not take it.
bool PostedLines::hand(std::string_view text, Wait wait) {
  if (wait == Wait::kNot)
    return sink_.tryLine(text);
  try {
    sink_.line(text);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace morvik::runtime
