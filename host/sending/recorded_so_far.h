// Which of the stored activities and impressions were recorded before certain moments, and what became of the others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "host/ledger/ledger_book.h"
#include "kit/stop_request.h"
#include "kit/value.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik::host {

/// Both lists are only appended to at their end, so what was recorded before a moment is what lies before a place in
/// the list. A list that has lost something is walked over once, for all moments together; one that has only grown is
/// not walked over. A stop ends a walk, and the places stay as they were before it. Any thread.
class RecordedSoFar {
 public:
  /// Names a moment.
  using Moment = uint64_t;

  /// Of what was recorded before a moment.
  struct Left {
    uint64_t waiting = 0;
    /// Impressions that went with the acceptance of a batch that did not carry them, and activities that were given up.
    uint64_t given_up = 0;
  };

  /// All of them outlive it.
  RecordedSoFar(const services::MorvikGVUserDefaults& store, LedgerBook& ledger, const kit::StopRequest& stop)
      : store_(store), ledger_(ledger), stop_(stop) {}
  RecordedSoFar(const RecordedSoFar&) = delete;
  RecordedSoFar& operator=(const RecordedSoFar&) = delete;

  /// This one. To be forgotten some time.
  Moment now();
  void forget(Moment moment);
  /// Nothing of a moment that was forgotten.
  Left left(Moment moment);
  /// As it was looked at last; waits for nobody.
  Left lastKnownLeft(Moment moment) const;
  /// An activity that is stored is given up, and will be removed.
  void giveUp(const kit::Value& activity);
  /// Of what is stored now.
  uint64_t stored() const;

 private:
  struct Places {
    size_t activities = 0;   ///< so many of the first ones in the list
    size_t impressions = 0;  ///< likewise
    uint64_t impressions_then = 0;
    uint64_t delivered_then = 0;  ///< impressions, ever
    uint64_t impressions_given_up = 0;
    uint64_t activities_given_up = 0;

    Left left() const {
      return {.waiting = activities + impressions, .given_up = impressions_given_up + activities_given_up};
    }
  };

  // These hold mutex_.
  void follow();
  void followActivities(const kit::Array& now);
  void followImpressions(const kit::Array& now);
  void noteWhatWasGivenUp(Places& places, std::optional<uint64_t>& delivered) const;
  uint64_t deliveredImpressions() const;

  const services::MorvikGVUserDefaults store_;
  LedgerBook& ledger_;
  const kit::StopRequest& stop_;
  mutable std::mutex mutex_;  // guards what follows
  kit::Value activities_;
  kit::Value impressions_;
  std::map<Moment, Places> moments_;  ///< a later one's places are never before an earlier one's
  Moment latest_ = 0;
};

}  // namespace morvik::host
