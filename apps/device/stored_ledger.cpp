#include "apps/device/stored_ledger.h"

#include "host/ledger/ledger_accounts.h"
#include "host/ledger/ledger_book.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/converters.h"

namespace morvik_device {
namespace {

namespace host = morvik::host;
namespace kit = morvik::kit;
namespace property = morvik::services::property;
using host::LedgerKind;

using ReadEntry = std::function<kit::Value(std::string_view name)>;

/// What an age or gender reads as when none is pending.
constexpr int64_t kNonePending = -1;

struct CountedList {
  LedgerKind kind;
  const char* name;
};
constexpr CountedList kLists[] = {{LedgerKind::kActivities, property::fendoActivityInfos},
                                  {LedgerKind::kImpressions, property::fendoImpressionInfos},
                                  {LedgerKind::kReEngagementClicks, property::reEngagementInfos},
                                  {LedgerKind::kCommerceClicks, property::commerceConversionInfos},
                                  {LedgerKind::kCrashReports, property::MorvikCoreUserInfo_Crash}};

uint64_t pendingDemographics(const ReadEntry& entry) {
  uint64_t count = entry(property::fendoUserDemoInfo_userId).isString() ? 1 : 0;
  for (const char* name : {property::fendoUserDemoInfo_age, property::fendoUserDemoInfo_gender}) {
    const kit::Value value = entry(name);
    count += value.isNumber() && morvik::services::checkNilToZero(value) != kNonePending ? 1U : 0U;
  }
  return count;
}

/// What is stored without having been counted in the book, and in good order: a dying process writes its report past
/// it, and a book is not begun before something else than an activity is to be counted.
void countWhatIsInGoodOrder(bool has_book, morvik::Ledger& ledger) {
  constexpr const char* kReports = host::kLedgerKindNames[static_cast<size_t>(LedgerKind::kCrashReports)];
  for (morvik::Ledger::Account& account : ledger.accounts) {
    const uint64_t known = account.delivered + account.stored + account.under_way + account.givenUp();
    if ((!has_book || account.kind == kReports) && account.recorded < known)
      account.recorded = known;
  }
}

}  // namespace

morvik::Ledger storedLedger(const ReadEntry& entry) {
  const kit::Value written = entry(host::kLedgerKey);
  host::LedgerCounts stored{};
  for (const CountedList& list : kLists)
    stored[static_cast<size_t>(list.kind)] = entry(list.name).size();
  stored[static_cast<size_t>(LedgerKind::kDemographics)] = pendingDemographics(entry);
  const uint64_t activities = stored[static_cast<size_t>(LedgerKind::kActivities)];
  morvik::Ledger ledger = host::LedgerAccounts::from(written, activities).toLedger(stored);
  countWhatIsInGoodOrder(!written.isAbsent(), ledger);
  return ledger;
}

}  // namespace morvik_device
