#include "testing/recording_ledger.h"

#include <array>
#include <utility>

namespace morvik::testing {
namespace {

constexpr std::array kKinds = {"activities",     "impressions",  "reEngagementClicks",
                               "commerceClicks", "crashReports", "demographics"};
constexpr std::array kValues = {"age", "gender", "userId"};
constexpr std::array kReasons = {
    "keptSession",  "placeTaken",   "tooLarge",        "addedDuringUpload", "notAccepted", "forgotten", "newerClick",
    "sameKey",      "sessionEnded", "sixthSessionEnd", "otherKeyAccepted",  "emptyAnswer", "replaced",  "takenBack",
    "noIdentifier", "processEnded", "byHand",          "missing",           "unexplained", "answered",  "notKept"};
constexpr std::array kAnswers = {"notAccepted", "accepted", "acceptedEmpty", "acceptedNameless"};

template <class Names, class Which>
std::string nameIn(const Names& names, Which which) {
  return names[static_cast<size_t>(which)];
}

}  // namespace

void RecordingLedger::recorded(kit::LedgerKind kind, size_t count) noexcept {
  note("recorded " + std::to_string(count) + " " + nameIn(kKinds, kind));
}

void RecordingLedger::removed(kit::LedgerKind kind, const kit::Array& which, kit::LedgerReason reason) noexcept {
  if (!which.empty())
    note("removed " + std::to_string(which.size()) + " " + nameIn(kKinds, kind) + ": " + nameIn(kReasons, reason));
}

void RecordingLedger::recorded(kit::DemographicValue value) noexcept {
  note("recorded " + nameIn(kValues, value));
}

void RecordingLedger::removed(kit::DemographicValue value, kit::LedgerReason reason) noexcept {
  note("removed " + nameIn(kValues, value) + ": " + nameIn(kReasons, reason));
}

kit::LedgerTicket RecordingLedger::carries(const kit::LedgerLoad& load) noexcept {
  kit::LedgerTicket ticket = 0;
  {
    const std::scoped_lock hold(mutex_);
    ticket = ++last_;
  }
  note(std::to_string(ticket) + " carries " + std::to_string(load.records.size()) + " " + nameIn(kKinds, load.kind) +
       (load.impressions.empty() ? "" : " and " + std::to_string(load.impressions.size()) + " impressions") +
       (load.is_only_copy ? ", the only copy" : ""));
  return ticket;
}

void RecordingLedger::answered(kit::LedgerTicket ticket, kit::LedgerAnswer answer) noexcept {
  if (ticket != 0)
    note(std::to_string(ticket) + " answered: " + nameIn(kAnswers, answer));
}

void RecordingLedger::lost(kit::LedgerTicket ticket, kit::LedgerReason reason) noexcept {
  if (ticket != 0)
    note(std::to_string(ticket) + " lost: " + nameIn(kReasons, reason));
}

void RecordingLedger::departed(kit::LedgerTicket ticket) noexcept {
  note(std::to_string(ticket) + " departed");
}

void RecordingLedger::ended(kit::LedgerTicket ticket, const kit::LedgerEnd& end) noexcept {
  note(std::to_string(ticket) + " ended: " + (end.was_sent ? std::to_string(end.status_code) : "not sent") +
       (end.error.empty() ? "" : ", " + end.error));
}

std::vector<std::string> RecordingLedger::take() {
  const std::scoped_lock hold(mutex_);
  return std::exchange(lines_, {});
}

void RecordingLedger::note(std::string line) {
  const std::scoped_lock hold(mutex_);
  lines_.push_back(std::move(line));
}

}  // namespace morvik::testing
