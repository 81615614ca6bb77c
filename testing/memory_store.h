// A key-value store in memory that forgets what a real one would lose.
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

/// Readers see every write at once. A write is kept for the next process from the moment that synchronize() or the end
/// of a turn commits it; kill() loses the rest. Safe per call from any thread; nothing blocks.
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
  /// A store of a second process: it finds what an earlier one had committed.
  explicit MemoryStore(Contents committed) : current_(committed), committed_(std::move(committed)) {}

  kit::Value get(std::string_view key) const override;
  void set(std::string_view key, kit::Value value) override;
  void append(std::string_view key, kit::Value element) override;
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override;
  bool synchronize() override;
  std::optional<kit::Value> tryGet(std::string_view key) const override;
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override;

  /// The store is in use, by a thread that is not to be seen: what may not wait gets nothing, until this is taken back.
  void setInUse(bool in_use);
  /// The disk is full, say: synchronize() answers false, and what is written is kept for this process alone.
  void setKeepsNothing(bool keeps_nothing);

  /// The end of a turn: everything written so far is kept. Noted in the journal only if something was waiting.
  void commitTurn();
  /// The process dies: what was not committed is lost, and readers see what was. The journal stays.
  void kill();

  /// What a process that dies now leaves behind.
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
  /// The journal in short, for comparing orders: a key for each write, "synchronize", "end of turn".
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
