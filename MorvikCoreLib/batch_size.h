// How large a batch may become: the kit's limit, halved while a service finds batches too large.
#pragma once

#include <cstddef>
#include <string>

#include "kit/batch_limit.h"
#include "kit/value.h"

namespace morvik {

/// What entries of one batch may take; filled entry by entry.
class BatchRoom {
 public:
  explicit BatchRoom(const kit::BatchLimit& limit) : limit_(limit) {}
  /// So many entries are in it as may be.
  bool isFull() const { return entries_ >= limit_.records; }
  /// False, and it is not in, when it would become too much. One alone is never too much.
  bool take(const kit::Value& entry);
  /// Of the entries in it; not counted where there is no limit at all.
  size_t plainBytes() const { return plain_bytes_; }

 private:
  const kit::BatchLimit limit_;
  size_t entries_ = 0;
  size_t plain_bytes_ = 0;
  std::string text_;
};

/// The limit as it is now. Lives as long as the process.
class BatchSize {
 public:
  explicit BatchSize(const kit::BatchLimit& most)
      : most_(most), activities_(most.records), impressions_(most.records) {}

  bool isLimited() const { return !most_.isUnlimited(); }
  kit::BatchLimit activities() const { return {activities_, most_.plain_bytes}; }
  /// May be for none at all.
  kit::BatchLimit impressions() const { return {impressions_, most_.plain_bytes}; }
  /// A batch was accepted: the next may be twice as large, up to the kit's limit.
  void grow();
  /// A batch of so many entries was too large: the next has half of them.
  void halve(size_t activities, size_t impressions);

 private:
  const kit::BatchLimit most_;
  size_t activities_;
  size_t impressions_;
};

}  // namespace morvik
