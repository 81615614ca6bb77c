#include "host/sending/recorded_so_far.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/ledger/list_change.h"

namespace morvik::host {
namespace {

constexpr const char* kEventId = "activityEventID";

/// All of `before` is there, at its places; behind it there may be more.
bool isContinued(const kit::Array& before, const kit::Array& now) {
  if (before.empty())
    return true;
  return now.size() >= before.size() && now[0].identicalTo(before[0]) &&
         now[before.size() - 1].identicalTo(before[before.size() - 1]);
}

/// Where places in `before` lie in `now`, which came of it by removing and appending. False: it came of it otherwise.
/// What both share is not looked at: a flush of a long backlog asks after every batch.
class MovedPlaces {
 public:
  MovedPlaces(const kit::Array& before, const kit::Array& now) : change_(changeBetween(before, now)) {
    is_known_ = change_.added == 0 || change_.removedCount() < before.size();
  }
  bool areKnown() const { return is_known_; }
  size_t operator()(size_t place) const {
    size_t gone = 0;
    for (const ElementRange& range : change_.removed) {
      if (range.first >= place)
        break;
      gone += std::min(range.count, place - range.first);
    }
    return place - gone;
  }

 private:
  const ListChange change_;
  bool is_known_ = false;
};

/// Where records lie in a list: activities by their ids, those without one by their order.
class PlacesOfActivities {
 public:
  /// False: the kit is being stopped.
  bool take(const kit::Array& activities, kit::StopCheck& check) {
    by_id_.reserve(activities.size());
    size_t place = 0;
    for (const kit::Value& record : activities) {
      if (check.isStopping())
        return false;
      const kit::Value& id = record[kEventId];
      ++place;
      if (id.isString())
        by_id_[id.string()] = place;
      else
        without_id_.push_back(place);
    }
    return true;
  }
  /// Behind the record; 0 when it is not there. To be asked in the order of the list that it was in.
  size_t behind(const kit::Value& record) {
    const kit::Value& id = record[kEventId];
    if (!id.isString())
      return asked_without_id_ < without_id_.size() ? without_id_[asked_without_id_++] : 0;
    const auto found = by_id_.find(id.string());
    return found == by_id_.end() ? 0 : found->second;
  }

 private:
  std::unordered_map<std::string_view, size_t> by_id_;
  std::vector<size_t> without_id_;
  size_t asked_without_id_ = 0;
};

}  // namespace

RecordedSoFar::Moment RecordedSoFar::now() {
  const std::scoped_lock hold(mutex_);
  follow();
  Places places;
  // What the ledger says and what is stored must be of one moment.
  do {
    places.delivered_then = store_.fendoImpressionInfos().size() > 0 ? deliveredImpressions() : 0;
    follow();
    places.impressions = impressions_.size();
  } while (places.impressions > 0 && places.delivered_then != deliveredImpressions());
  places.impressions_then = places.impressions;
  places.activities = activities_.size();
  moments_.emplace(++latest_, places);
  return latest_;
}

void RecordedSoFar::forget(Moment moment) {
  const std::scoped_lock hold(mutex_);
  moments_.erase(moment);
  if (!moments_.empty())
    return;
  activities_ = {};
  impressions_ = {};
}

RecordedSoFar::Left RecordedSoFar::left(Moment moment) {
  const std::scoped_lock hold(mutex_);
  const auto found = moments_.find(moment);
  if (found == moments_.end())
    return {};
  follow();
  return found->second.left();
}

RecordedSoFar::Left RecordedSoFar::lastKnownLeft(Moment moment) const {
  const std::unique_lock hold(mutex_, std::try_to_lock);
  if (!hold.owns_lock())
    return {.waiting = stored()};
  const auto found = moments_.find(moment);
  if (found == moments_.end())
    return {};
  return found->second.left();
}

void RecordedSoFar::giveUp(const kit::Value& activity) {
  const std::scoped_lock hold(mutex_);
  if (moments_.empty())
    return;
  follow();
  size_t place = 0;
  for (const kit::Value& record : activities_.array()) {
    if (record.identicalTo(activity))
      break;
    ++place;
  }
  for (auto& [moment, at] : moments_)
    at.activities_given_up += place < at.activities ? 1 : 0;
}

uint64_t RecordedSoFar::stored() const {
  return store_.fendoActivityInfos().size() + store_.fendoImpressionInfos().size();
}

void RecordedSoFar::follow() {
  kit::Value activities = store_.fendoActivityInfos();
  if (!activities.identicalTo(activities_)) {
    followActivities(activities.array());
    activities_ = std::move(activities);
  }
  kit::Value impressions = store_.fendoImpressionInfos();
  if (!impressions.identicalTo(impressions_)) {
    followImpressions(impressions.array());
    impressions_ = std::move(impressions);
  }
}

void RecordedSoFar::followActivities(const kit::Array& now) {
  const kit::Array before = activities_.array();
  if (moments_.empty() || isContinued(before, now))
    return;
  if (const MovedPlaces moved(before, now); moved.areKnown()) {
    for (auto& [moment, at] : moments_)
      at.activities = moved(at.activities);
    return;
  }
  kit::StopCheck check(&stop_);
  PlacesOfActivities places;
  if (!places.take(now, check))
    return;
  std::vector<size_t> followed;
  size_t walked = 0;
  size_t reached = 0;
  auto record = before.begin();
  for (const auto& [moment, at] : moments_) {
    for (; walked < at.activities; ++walked, ++record) {
      if (check.isStopping())
        return;
      reached = std::max(reached, places.behind(*record));
    }
    followed.push_back(reached);
  }
  auto place = followed.begin();
  for (auto& [moment, at] : moments_)
    at.activities = *place++;
}

/// They have no ids. They go all at once, but for those that a batch carried in part.
void RecordedSoFar::followImpressions(const kit::Array& now) {
  const kit::Array before = impressions_.array();
  if (moments_.empty() || isContinued(before, now))
    return;
  std::optional<uint64_t> delivered;
  if (const MovedPlaces moved(before, now); moved.areKnown()) {
    for (auto& [moment, at] : moments_) {
      const bool had_some = at.impressions > 0;
      at.impressions = moved(at.impressions);
      if (had_some && at.impressions == 0)
        noteWhatWasGivenUp(at, delivered);
    }
    return;
  }
  kit::StopCheck check(&stop_);
  const kit::Value& last = before[before.size() - 1];
  size_t behind = 0;  // the last of them, where it is now
  for (size_t place = 0; place < now.size() && behind == 0; ++place) {
    if (check.isStopping())
      return;
    if (now[place].identicalTo(last) || now[place] == last)
      behind = place + 1;
  }
  for (auto& [moment, at] : moments_) {
    const size_t from_the_last = before.size() - at.impressions;
    const bool had_some = at.impressions > 0;
    at.impressions = had_some && behind > from_the_last ? behind - from_the_last : 0;
    if (had_some && at.impressions == 0)
      noteWhatWasGivenUp(at, delivered);
  }
}

/// An accepted batch carried the first ones, and took the others along.
void RecordedSoFar::noteWhatWasGivenUp(Places& places, std::optional<uint64_t>& delivered) const {
  if (!delivered)
    delivered = deliveredImpressions();
  const uint64_t carried = *delivered - std::min(*delivered, places.delivered_then);
  places.impressions_given_up = places.impressions_then - std::min(places.impressions_then, carried);
}

uint64_t RecordedSoFar::deliveredImpressions() const {
  return ledger_.read().accounts[static_cast<size_t>(LedgerKind::kImpressions)].delivered;
}

}  // namespace morvik::host
