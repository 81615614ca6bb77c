#include "apps/device/stored_ledger.h"

#include "runtime/ledger/ledger_accounts.h"
#include "runtime/ledger/ledger_stored.h"

namespace morvik_device {
namespace {

namespace runtime = morvik::runtime;
namespace kit = morvik::kit;
using runtime::LedgerKind;

/// Stored records that the ledger legitimately does not count: a dying process writes its report without it, and a
/// ledger is not created before something other than an activity is counted.
void countWhatIsInGoodOrder(bool has_book, morvik::Ledger& ledger) {
  constexpr const char* kReports = runtime::kLedgerKindNames[static_cast<size_t>(LedgerKind::kCrashReports)];
  for (morvik::Ledger::Account& account : ledger.accounts) {
    const uint64_t known = account.delivered + account.stored + account.under_way + account.givenUp();
    if ((!has_book || account.kind == kReports) && account.recorded < known)
      account.recorded = known;
  }
}

}  // namespace

morvik::Ledger storedLedger(const kit::KeyValueStore& store) {
  const kit::Value written = store.get(runtime::kLedgerKey);
  const runtime::LedgerStored stored(store);
  const runtime::LedgerAccounts accounts(written, stored.recordedUnwritten());
  morvik::Ledger ledger = accounts.toLedger(stored.counts());
  countWhatIsInGoodOrder(!written.isAbsent(), ledger);
  return ledger;
}

}  // namespace morvik_device
