#include "runtime/ledger/ledger_store.h"

namespace morvik::runtime {

LedgerStore::LedgerStore(MachineStore& store, LedgerBook& book, kit::ListLock& list_lock)
    : PassingStore(store),
      book_(book),
      list_lock_(list_lock),
      is_unavailable_(store.opening() == StoreOpening::kUnavailable) {
  LedgerStore::setWhenTakenOver({});
}

LedgerStore::~LedgerStore() {
  store_.setWhenTakenOver({});  // the book goes before the store
}

void LedgerStore::setWhenTakenOver(kit::Block hook) {
  store_.setWhenTakenOver([this, hook = std::move(hook)] {
    is_unavailable_ = false;
    book_.storeRecovered();
    if (hook)
      hook();
  });
}

/// When a store recovers with a commit, its file's content goes before what was written without it. A caller that had
/// read a list by then and wrote it back later would undo that, so no such commit happens in between.
std::unique_lock<kit::Mutex> LedgerStore::keepListsStill() {
  if (isUnavailable())
    return std::unique_lock(list_lock_.mutex);
  return {};
}

// Lists are set under the list lock, where nothing may be logged; here no lock is held.
bool LedgerStore::synchronize() {
  const bool all_kept = synchronizeUntold();
  tellWaiting();
  return all_kept;
}

bool LedgerStore::synchronizeUntold() {
  const std::unique_lock still = keepListsStill();
  return store_.synchronizeUntold();
}

void LedgerStore::tellWaiting() {
  store_.tellWaiting();
  book_.tellBroken();
}

/// While the store is unavailable, nothing is logged under the list lock either.
bool LedgerStore::commitTurn() {
  if (!isUnavailable()) {
    const bool all_kept = store_.commitTurn();
    book_.tellBroken();
    return all_kept;
  }
  synchronize();
  return isUnavailable() ? store_.isKept() : store_.commitTurn();
}

void LedgerStore::shutdown() {
  book_.writeAtTheEnd();
  const std::unique_lock still = keepListsStill();
  store_.shutdown();
}

}  // namespace morvik::runtime
