#include "host/log/posted_lines.h"

#include <mutex>
#include <new>
#include <utility>

namespace morvik::host {

thread_local const PostedLines* PostedLines::posting_of_thread_ = nullptr;
thread_local const PostedLines* PostedLines::writing_of_thread_ = nullptr;

/// A sink that calls the kit would be called with what that says, and so on without end: there it is dropped.
void PostedLines::line(std::string_view text) {
  if (writing_of_thread_ == this)
    static_cast<void>(sink_.tryLine(text));
  else if (posting_of_thread_ == this && main_queue_ != nullptr)
    keep(text);
  else
    write(text);
}

void PostedLines::write(std::string_view text) {
  writeAll();
  const ThreadMark marked(writing_of_thread_, *this);
  sink_.line(text);
}

void PostedLines::writeAll() {
  {
    const ThreadMark marked(writing_of_thread_, *this);
    while (const auto text = takeOne())
      sink_.line(*text);
  }
  if (const size_t count = left_out_.exchange(0); count > 0)
    tellLeftOut(logger_, count);
}

void PostedLines::tryWriteAll() {
  while (const auto text = takeOne())
    sink_.tryLine(*text);
  if (const size_t count = left_out_.exchange(0); count > 0)
    tellLeftOut(logger_.withoutWaiting(), count);
}

/// Whoever calls has something to do that must not fail for a line.
void PostedLines::keep(std::string_view text) {
  try {
    if (!tryToAppend(text))
      ++left_out_;
    post();
  } catch (const std::bad_alloc&) {
    // The next line of any thread tells.
    ++left_out_;
  }
}

bool PostedLines::tryToAppend(std::string_view text) {
  const std::scoped_lock hold(mutex_);
  if (lines_.size() >= kMaxPostedLines || text.size() > kMaxPostedLineBytes - bytes_)
    return false;
  lines_.emplace_back(text);
  bytes_ += text.size();
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

bool PostedLines::areWaiting() {
  const std::scoped_lock hold(mutex_);
  return !lines_.empty() || left_out_ > 0;
}

std::optional<std::string> PostedLines::takeOne() {
  const std::scoped_lock hold(mutex_);
  if (lines_.empty())
    return std::nullopt;
  std::string text = std::move(lines_.front());
  lines_.pop_front();
  bytes_ -= text.size();
  return text;
}

void PostedLines::tellLeftOut(const services::Logger& logger, size_t count) {
  MORVIK_LOG(logger, kit::lcl_vWarning, "-[MorvikCore log]",
             "Morvik host: %lu lines like those before were left out: they came faster than they could be written",
             count);
}

}  // namespace morvik::host
