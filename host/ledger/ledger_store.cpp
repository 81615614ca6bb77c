#include "host/ledger/ledger_store.h"

namespace morvik::host {

LedgerStore::LedgerStore(MachineStore& store, LedgerBook& book) : store_(store), book_(book) {
  LedgerStore::setWhenTakenOver({});
}

LedgerStore::~LedgerStore() {
  store_.setWhenTakenOver({});  // the book goes before the store
}

void LedgerStore::setWhenTakenOver(kit::Block hook) {
  store_.setWhenTakenOver([&book = book_, hook = std::move(hook)] {
    book.storeCameToLight();
    if (hook)
      hook();
  });
}

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
