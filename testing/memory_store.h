// A key-value store in memory that forgets what a real one would lose.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
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
  void synchronize() override;

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
  mutable std::mutex mutex_;
  Contents current_;
  Contents committed_;
  size_t uncommitted_writes_ = 0;
  size_t synchronize_count_ = 0;
  Recording<JournalEntry> journal_;
};

}  // namespace morvik::testing
