#include "host/ledger/ledger_store.h"

namespace morvik::host {

// Lists are set under the house lock, where nothing may be told; here no lock is held.
bool LedgerStore::synchronize() {
  const bool all_kept = store_.synchronize();
  book_.tellBroken();
  return all_kept;
}

void LedgerStore::commitTurn() {
  store_.commitTurn();
  book_.tellBroken();
}

}  // namespace morvik::host
