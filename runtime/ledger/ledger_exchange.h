// A request whose answer decides what happens to records, and the records it carries.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kit/value.h"
#include "runtime/ledger/ledger_reasons.h"
#include "services/endpoints.h"

namespace morvik::runtime {

/// Where a request of the ledger goes.
enum class LedgerEndpoint : uint8_t { kTracking, kReEngagement, kCommerce, kCrash, kDemographics };
inline constexpr size_t kLedgerEndpoints = 5;

services::Endpoint kitEndpointOf(LedgerEndpoint endpoint);

/// The endpoint that takes records of this kind.
LedgerEndpoint ledgerEndpointOf(LedgerKind kind);

/// Age, gender, user id.
inline constexpr size_t kDemographicValues = 3;

/// The event ids of a batch. They share their texts with the records.
class BatchIds {
 public:
  BatchIds() = default;
  /// The ids of a payload's entries.
  explicit BatchIds(const kit::Array& entries);
  size_t size() const { return ids_.size(); }
  /// Absent if there is none.
  kit::Value first() const { return ids_.empty() ? kit::Value() : ids_.front(); }
  /// Lookups in the order of the batch cost one comparison each; others use an index.
  bool contains(std::string_view id);

 private:
  std::vector<kit::Value> ids_;
  size_t next_ = 0;
  std::unordered_set<std::string_view> index_;  ///< empty until it is needed
};

struct LedgerExchange {
  LedgerEndpoint endpoint = LedgerEndpoint::kTracking;

  // What it carries.
  BatchIds activities;
  /// The "end" of a kept session: among the ids that the answer deletes, but not in the batch. Absent: none.
  kit::Value left_out_id;
  /// By kind: how many of the first records of the stored list. For impressions, commerce clicks and crash reports.
  std::array<size_t, kLedgerKinds> leading{};
  kit::Value click;
  /// Only this request holds the click.
  bool holds_click = false;
  /// Versions, by value; 0: none.
  std::array<uint64_t, kDemographicValues> values{};
  /// Its payload could not say whose the values are.
  bool says_nothing = false;

  // How it ended.
  /// Of a successful exchange; nothing until then and after a failure.
  std::optional<kit::Value> answer;
  int status_code = 0;  ///< 0: there was no answer, or none yet

  bool carries(LedgerKind kind, const kit::Value& record, size_t index);
  /// By its endpoint's rules the service has what it carries, or said so.
  bool isAccepted() const;
  /// The service said that its only activity is too large.
  bool isOneTooLarge() const;
  /// Why its content counts as given up although accepted; nothing if it counts as delivered.
  std::optional<LedgerReason> emptyAcceptance() const;
};

}  // namespace morvik::runtime
