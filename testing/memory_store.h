// A key-value store in memory that loses what a real one would lose.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/key_value_store.h"
#include "testing/recording.h"

namespace morvik::testing {

/// Readers see every write at once. A write survives the process once synchronize() or the end of a turn commits it;
/// kill() loses the rest. Single calls are safe from any thread; nothing blocks.
class MemoryStore : public kit::KeyValueStore {
 public:
  using Contents = std::map<std::string, kit::Value, std::less<>>;

  enum class Operation { kSet, kSynchronize, kCommitTurn };
  struct JournalEntry {
    Operation operation = Operation::kSet;
    std::string key;   ///< of a kSet
    kit::Value value;  ///< of a kSet; absent: the key was removed
  };

  MemoryStore() = default;
  /// The store of a later process: it starts with what an earlier one committed.
  explicit MemoryStore(Contents committed) : current_(committed), committed_(std::move(committed)) {}

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void append(std::string_view key, kit::Value element) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override;
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override;

  /// Another thread, which the test does not see, uses the store: calls that must not wait get nothing until this is
  /// reset.
  void setInUse(bool in_use);
  /// Simulates a full disk, for example: synchronize() returns false, and writes last for this process only.
  void setKeepsNothing(bool keeps_nothing);

  /// The end of a turn: commits all writes so far. Recorded in the journal only if there were any.
  void commitTurn();
  /// The process dies: uncommitted writes are lost, and readers see the committed state. The journal stays.
  void kill();

  /// What a process that dies now would leave behind.
  Contents committed() const;
  /// What readers see.
  Contents contents() const;
  /// Writes since the last commit.
  size_t uncommittedWrites() const;
  /// Calls of synchronize().
  size_t synchronizeCount() const;

  /// Every write and commit in order (the latest kMaxRecordedEntries).
  std::vector<JournalEntry> journal() const { return journal_.all(); }
  void clearJournal() { journal_.clear(); }
  /// The journal in short form, for comparing orders: a key for each write, "synchronize", "end of turn".
  std::vector<std::string> journalTexts() const;

 private:
  void setLocked(std::string_view key, kit::Value value);
  void commitLocked();

  mutable std::mutex mutex_;
  Contents current_;
  Contents committed_;
  size_t uncommitted_writes_ = 0;
  size_t synchronize_count_ = 0;
  bool in_use_ = false;
  bool keeps_nothing_ = false;
  Recording<JournalEntry> journal_;
};

}  // namespace morvik::testing
