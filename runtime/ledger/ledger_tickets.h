// The requests that are under way, and which of them carries a record.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kit/date.h"
#include "kit/ledger.h"
#include "kit/value.h"
#include "runtime/ledger/ledger_reasons.h"

namespace morvik::runtime {

/// Age, gender, user id.
inline constexpr size_t kDemographicValues = 3;

/// Some records, by what tells them from others: activities by their event ids, clicks by what they say, and the rest
/// by being the very same. Asked in their order each costs one comparison; out of that order, a look-up.
class CarriedRecords {
 public:
  CarriedRecords() = default;
  CarriedRecords(LedgerKind kind, kit::Array records);
  size_t size() const { return records_.size(); }
  const kit::Array& records() const { return records_; }
  bool contains(const kit::Value& record);

 private:
  bool isAt(const kit::Value& carried, const kit::Value& record) const;
  bool isIndexed(const kit::Value& record);
  void index();

  LedgerKind kind_ = LedgerKind::kActivities;
  kit::Array records_;
  kit::Array::Iterator next_;
  bool has_index_ = false;
  std::unordered_set<std::string_view> ids_;
  std::unordered_set<const kit::Entry*> identities_;
};

struct LedgerTicketState {
  LedgerKind kind = LedgerKind::kActivities;  ///< kActivities: a batch
  CarriedRecords records;
  CarriedRecords impressions;  ///< of a batch
  /// By demographic value, the version of it; 0: none.
  std::array<uint64_t, kDemographicValues> values{};
  /// Nothing but this request has what it carries.
  bool is_only_copy = false;
  /// Why that is given up unless the request is accepted.
  LedgerReason lost = LedgerReason::kUnexplained;
  std::optional<kit::LedgerAnswer> answer;
  uint64_t trail_number = 0;  ///< of a batch; 0: it left no trail
  kit::Date left{};           ///< the epoch: not yet

  bool carries(LedgerKind of, const kit::Value& record);
  bool isAccepted() const { return answer && *answer != kit::LedgerAnswer::kNotAccepted; }
  /// Why what it carries counts as given up although it was accepted; nothing when it counts as delivered.
  std::optional<LedgerReason> emptyAcceptance() const;
};

/// So many requests are followed at a time.
inline constexpr size_t kMaxLedgerTickets = 1024;

/// Plain; not safe for threads.
class LedgerTickets {
 public:
  /// 0: so many are under way that this one is not followed.
  kit::LedgerTicket begin(LedgerTicketState state);
  /// Null when it is not under way. Valid until it ends.
  LedgerTicketState* find(kit::LedgerTicket ticket);
  std::optional<LedgerTicketState> end(kit::LedgerTicket ticket);
  /// All end.
  void abandon() { tickets_.clear(); }

  /// Those that have not ended.
  const std::map<kit::LedgerTicket, LedgerTicketState>& all() const { return tickets_; }

  /// The one that was accepted, has not ended, and carries this; null: none does.
  LedgerTicketState* acceptedCarrier(LedgerKind kind, const kit::Value& record);
  LedgerTicketState* acceptedCarrierOfValue(size_t slot, uint64_t version);
  /// Those that carry this and have no answer.
  std::vector<kit::LedgerTicket> carriers(LedgerKind kind, const kit::Value& record);
  std::vector<kit::LedgerTicket> carriersOfValue(size_t slot, uint64_t version) const;
  /// A click that a request alone had is in the store now. False: none had it so.
  bool noteStoredClick(const kit::Value& click);

 private:
  std::map<kit::LedgerTicket, LedgerTicketState> tickets_;
  kit::LedgerTicket last_ = 0;
};

}  // namespace morvik::runtime
