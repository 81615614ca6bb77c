// How large a batch may become: the kit's limit, halved while a service finds batches too large.
#pragma once

#include <cstddef>
#include <string>

#include "kit/batch_limit.h"
#include "kit/value.h"

namespace morvik {

/// The room for the entries of one batch; filled entry by entry.
class BatchRoom {
 public:
  explicit BatchRoom(const kit::BatchLimit& limit) : limit_(limit) {}
  /// It holds as many entries as the limit allows.
  bool isFull() const { return entries_ >= limit_.records; }
  /// False, and the entry is not added, if it would exceed the limit. A first entry never does.
  bool take(const kit::Value& entry);
  /// Of the entries in it; not counted if there is no limit.
  size_t plainBytes() const { return plain_bytes_; }

 private:
  const kit::BatchLimit limit_;
  size_t entries_ = 0;
  size_t plain_bytes_ = 0;
  std::string text_;
};

/// The current limit. Lives as long as the process.
class BatchSize {
 public:
  explicit BatchSize(const kit::BatchLimit& most)
      : most_(most), activities_(most.records), impressions_(most.records) {}

  bool isLimited() const { return !most_.isUnlimited(); }
  kit::BatchLimit activities() const { return {activities_, most_.plain_bytes}; }
  /// May be no limit at all.
  kit::BatchLimit impressions() const { return {impressions_, most_.plain_bytes}; }
  /// A batch was accepted: the next may be twice as large, up to the kit's limit.
  void grow();
  /// A batch with this many entries was too large: the next has half as many.
  void halve(size_t activities, size_t impressions);

 private:
  const kit::BatchLimit most_;
  size_t activities_;
  size_t impressions_;
};

}  // namespace morvik
