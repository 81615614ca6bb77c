// A machine's store that reports to the ledger what passes through it.
#pragma once

#include <atomic>
#include <mutex>
#include <string_view>
#include <utility>

#include "kit/list_lock.h"
#include "kit/queues.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/machine/machine.h"
#include "runtime/machine/passing_store.h"

namespace morvik::runtime {

/// Appended elements bypass the book, which takes them in with its next look: recording never waits for a walk over a
/// list. What a dying process sets bypasses it too, and takes no lock.
class LedgerStore final : public PassingStore {
 public:
  /// All outlive it. The book lies in `store`; its lists are changed under `list_lock`.
  LedgerStore(MachineStore& store, LedgerBook& book, kit::ListLock& list_lock);
  ~LedgerStore() override;
  LedgerStore(const LedgerStore&) = delete;
  LedgerStore& operator=(const LedgerStore&) = delete;

  kit::Value get(std::string_view key) const override { return store_.get(key); }
  void set(std::string_view key, kit::Value value) override { book_.set(key, std::move(value), LedgerWriter::kKit); }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    book_.replace(key, before, std::move(after), LedgerWriter::kKit);
  }
  bool synchronize() override;
  void setWhenTakenOver(kit::Block hook) override;
  bool commitTurn() override;
  bool synchronizeUntold() override;
  void tellWaiting() override;
  void shutdown() override;

 private:
  std::unique_lock<kit::Mutex> keepListsStill();
  /// A file of a newer version never recovers.
  bool isUnavailable() const { return is_unavailable_ && store_.opening() == StoreOpening::kUnavailable; }

  LedgerBook& book_;
  kit::ListLock& list_lock_;
  /// The store could not be read when it was opened, and has not recovered since.
  std::atomic<bool> is_unavailable_;
};

}  // namespace morvik::runtime
