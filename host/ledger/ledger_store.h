// A machine's store that tells the ledger what passes through it.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/ledger/ledger_book.h"
#include "host/machine/machine.h"
#include "kit/house_lock.h"
#include "kit/queues.h"

namespace morvik::host {

class LedgerStore final : public MachineStore {
 public:
  /// All outlive it; `store` is the one in which the book lies, `house_lock` the one under which its lists are changed.
  LedgerStore(MachineStore& store, LedgerBook& book, kit::HouseLock& house_lock);
  ~LedgerStore() override;
  LedgerStore(const LedgerStore&) = delete;
  LedgerStore& operator=(const LedgerStore&) = delete;

  kit::Value get(std::string_view key) const override { return book_.get(key); }
  void set(std::string_view key, kit::Value value) override { book_.set(key, std::move(value), LedgerWriter::kKit); }
  /// Past the book, which takes it in with its next look: whoever records waits for no walk over a list.
  void append(std::string_view key, kit::Value element) override { store_.append(key, std::move(element)); }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    book_.replace(key, before, std::move(after), LedgerWriter::kKit);
  }
  void setTogether(std::span<StoreWrite> writes) override { store_.setTogether(writes); }
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override { return store_.tryGet(key); }
  /// Past the book, which takes it in with its next change: a dying process waits for no lock.
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    return store_.trySetAndSynchronize(key, std::move(value));
  }

  StoreOpening opening() const override { return store_.opening(); }
  const std::string& openingLine() const override { return store_.openingLine(); }
  void setWhenTakenOver(kit::Block hook) override;
  bool commitTurn() override;
  bool synchronizeUntold() override;
  void tellWaiting() override;
  bool isKept() const override { return store_.isKept(); }
  std::vector<std::pair<std::string, kit::Value>> all() const override { return store_.all(); }
  void flushNow() override { store_.flushNow(); }
  void setWhenFlushed(kit::Block hook) override { store_.setWhenFlushed(std::move(hook)); }
  void shutdown() override;

 private:
  std::unique_lock<kit::Mutex> keepListsStill();

  MachineStore& store_;
  LedgerBook& book_;
  kit::HouseLock& house_lock_;
  /// The store could not be read at its opening, and did not come to light since.
  std::atomic<bool> is_dark_;
};

}  // namespace morvik::host
