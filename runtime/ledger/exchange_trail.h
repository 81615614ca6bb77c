// The latest batches and how they ended, as they are stored: they tell what became of an event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kit/date.h"
#include "kit/value.h"
#include "morvik/explanation.h"

namespace morvik::runtime {

/// Their property. A list: an element when a batch begins, with what it carries, one when it ends, and one when
/// activities are given up.
inline constexpr std::string_view kTrailKey = "host.exchanges";

/// At most this many batches and removals are kept; past it the oldest is dropped.
inline constexpr size_t kMaxTrailExchanges = 256;
/// All elements take no more than this: their ids, errors, and kTrailElementBytes each. Past it the oldest is dropped.
inline constexpr size_t kMaxTrailBytes = 1'000'000;
inline constexpr size_t kTrailElementBytes = 100;
/// A longer error text is cut.
inline constexpr size_t kMaxTrailErrorBytes = 200;
/// A larger number is none that the kit wrote.
inline constexpr uint64_t kMaxTrailNumber = uint64_t{1} << 53U;

enum class TrailOutcome : uint8_t { kAccepted, kNotAccepted, kFailed, kNotSent, kAbandoned, kUnknown };

/// How an exchange ended.
struct TrailEnd {
  uint64_t number = 0;
  TrailOutcome outcome = TrailOutcome::kUnknown;
  kit::Date left{};   ///< the epoch: not known
  kit::Date ended{};  ///< the same
  int status_code = 0;
  std::string error{};
};

kit::Value trailBegin(uint64_t number, kit::Date begun, const kit::Array& event_ids);
kit::Value trailEnd(const TrailEnd& end);
/// `reason`: the key of the row in ledgerRules().
kit::Value trailGivenUp(kit::Date when, std::string_view reason, const kit::Array& event_ids);

/// A trail as it was read, without what does not belong into one.
struct SoundTrail {
  kit::Value trail;
  size_t dropped = 0;  ///< so many elements did not belong there
};
SoundTrail soundTrail(const kit::Value& stored);

// What follows takes a sound trail.
/// A number larger than all that were used.
uint64_t nextTrailNumber(const kit::Value& trail);
/// Whether this batch is in the trail and has not ended.
bool isOpen(const kit::Value& trail, uint64_t number);
/// The ends of the batches with a number before `first` that are still open: nobody knows the answers.
kit::Array endsOfEarlierOnes(const kit::Value& trail, uint64_t first);
/// What the trail covers. `oldest`: when the oldest exchange began that it knows; `now` if it knows none.
struct TrailExtent {
  size_t exchanges = 0;
  kit::Date oldest{};
};
TrailExtent extentOf(const kit::Value& trail, kit::Date now);
/// Whether the trail is longer than it may be.
bool isTrailTooLong(const kit::Value& trail);
/// The newest elements, as many as may be kept.
kit::Value shortenedTrail(const kit::Value& trail);

/// What trail and stored activities say of the event; the trail need not be sound. `now`: for an empty trail.
Explanation explain(const kit::Value& trail, const kit::Value& activities, std::string_view event_id, kit::Date now);

}  // namespace morvik::runtime
