#include "runtime/crash/crash_note.h"

#include <utility>

namespace morvik::runtime {

static_assert(std::atomic<const std::string*>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void CrashNote::set(std::string text) {
  const std::lock_guard lock(setting_);
  // A handler announces its read before it looks up the latest text. So no reader can have got hold of the older text
  // since, unless is_read_ says so.
  if (is_read_)
    return;
  std::string& other = latest_ == texts_.data() ? texts_[1] : texts_[0];
  other = text.size() <= kMaxCrashNoteBytes ? std::move(text) : std::string();
  latest_ = &other;
}

std::string_view CrashNote::beginReading() {
  is_read_ = true;
  return *latest_.load();
}

void CrashNote::endReading() {
  is_read_ = false;
}

}  // namespace morvik::runtime
