#include "runtime/ledger/ledger_tickets.h"

#include <algorithm>
#include <utility>

namespace morvik::runtime {
namespace {

constexpr std::string_view kEventIdKey = "activityEventID";

}  // namespace

CarriedRecords::CarriedRecords(LedgerKind kind, kit::Array records)
    : kind_(kind), records_(std::move(records)), next_(records_.begin()) {}

bool CarriedRecords::isAt(const kit::Value& carried, const kit::Value& record) const {
  switch (kind_) {
    case LedgerKind::kActivities:
      return carried.string() == record[kEventIdKey].string();
    case LedgerKind::kReEngagementClicks:
      return carried == record;
    default:
      return carried.identicalTo(record);
  }
}

bool CarriedRecords::contains(const kit::Value& record) {
  if (next_ != records_.end() && isAt(*next_, record)) {
    ++next_;
    return true;
  }
  return isIndexed(record);
}

/// What is no dictionary is nothing that the kit records.
bool CarriedRecords::isIndexed(const kit::Value& record) {
  if (kind_ == LedgerKind::kReEngagementClicks || (kind_ != LedgerKind::kActivities && !record.isDictionary()))
    return std::any_of(records_.begin(), records_.end(),
                       [&](const kit::Value& carried) { return isAt(carried, record); });
  if (!has_index_)
    index();
  return kind_ == LedgerKind::kActivities ? ids_.contains(record[kEventIdKey].string())
                                          : record.size() > 0 && identities_.contains(record.dictionary().begin());
}

void CarriedRecords::index() {
  for (const kit::Value& carried : records_) {
    if (kind_ == LedgerKind::kActivities)
      ids_.insert(carried.string());
    else if (carried.size() > 0)
      identities_.insert(carried.dictionary().begin());
  }
  has_index_ = true;  // not if there was no memory for all of it
}

bool LedgerTicketState::carries(LedgerKind of, const kit::Value& record) {
  if (kind == LedgerKind::kActivities && of == LedgerKind::kImpressions)
    return impressions.contains(record);
  return kind == of && records.contains(record);
}

std::optional<LedgerReason> LedgerTicketState::emptyAcceptance() const {
  if (answer == kit::LedgerAnswer::kAcceptedEmpty)
    return LedgerReason::kEmptyAnswer;
  if (answer == kit::LedgerAnswer::kAcceptedNameless)
    return LedgerReason::kNoIdentifier;
  return std::nullopt;
}

kit::LedgerTicket LedgerTickets::begin(LedgerTicketState state) {
  if (tickets_.size() == kMaxLedgerTickets)
    return 0;
  tickets_.emplace(last_ + 1, std::move(state));
  return ++last_;
}

LedgerTicketState* LedgerTickets::find(kit::LedgerTicket ticket) {
  const auto found = tickets_.find(ticket);
  return found == tickets_.end() ? nullptr : &found->second;
}

std::optional<LedgerTicketState> LedgerTickets::end(kit::LedgerTicket ticket) {
  auto node = tickets_.extract(ticket);
  return node.empty() ? std::nullopt : std::optional(std::move(node.mapped()));
}

LedgerTicketState* LedgerTickets::acceptedCarrier(LedgerKind kind, const kit::Value& record) {
  for (auto& [ticket, state] : tickets_) {
    if (state.isAccepted() && state.carries(kind, record))
      return &state;
  }
  return nullptr;
}

LedgerTicketState* LedgerTickets::acceptedCarrierOfValue(size_t slot, uint64_t version) {
  for (auto& [ticket, state] : tickets_) {
    if (state.isAccepted() && state.values[slot] == version)
      return &state;
  }
  return nullptr;
}

std::vector<kit::LedgerTicket> LedgerTickets::carriers(LedgerKind kind, const kit::Value& record) {
  std::vector<kit::LedgerTicket> found;
  for (auto& [ticket, state] : tickets_) {
    if (!state.answer && state.carries(kind, record))
      found.push_back(ticket);
  }
  return found;
}

std::vector<kit::LedgerTicket> LedgerTickets::carriersOfValue(size_t slot, uint64_t version) const {
  std::vector<kit::LedgerTicket> found;
  for (const auto& [ticket, state] : tickets_) {
    if (!state.answer && state.values[slot] == version)
      found.push_back(ticket);
  }
  return found;
}

bool LedgerTickets::noteStoredClick(const kit::Value& click) {
  for (auto& [ticket, state] : tickets_) {
    if (state.is_only_copy && state.carries(LedgerKind::kReEngagementClicks, click)) {
      state.is_only_copy = false;
      return true;
    }
  }
  return false;
}

}  // namespace morvik::runtime
