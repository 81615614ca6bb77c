// A ledger that notes what it is told.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kit/ledger.h"

namespace morvik::testing {

/// Any thread.
class RecordingLedger final : public kit::Ledger {
 public:
  void recorded(kit::LedgerKind kind, size_t count) noexcept override;
  void removed(kit::LedgerKind kind, const kit::Array& which, kit::LedgerReason reason) noexcept override;
  void recorded(kit::DemographicValue value) noexcept override;
  void removed(kit::DemographicValue value, kit::LedgerReason reason) noexcept override;
  kit::LedgerTicket carries(const kit::LedgerLoad& load) noexcept override;
  void answered(kit::LedgerTicket ticket, kit::LedgerAnswer answer) noexcept override;
  void lost(kit::LedgerTicket ticket, kit::LedgerReason reason) noexcept override;
  void departed(kit::LedgerTicket ticket) noexcept override;
  void ended(kit::LedgerTicket ticket, const kit::LedgerEnd& end) noexcept override;

  /// Since it was last asked: "recorded 1 commerceClicks", "removed 2 activities: answered", "1 carries 2 activities",
  /// "1 departed", "1 answered: accepted", "1 lost: sameKey", "1 ended: 200".
  std::vector<std::string> take();

 private:
  void note(std::string line);
  std::mutex mutex_;  // guards what follows
  std::vector<std::string> lines_;
  kit::LedgerTicket last_ = 0;
};

}  // namespace morvik::testing
