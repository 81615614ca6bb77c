// The store's file: its tables, its versions, and its connections: one that commits and those that sync.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/posix/process_word.h"
#include "host/store/array_rows.h"
#include "host/store/sqlite_connection.h"
#include "host/store/store_files.h"
#include "kit/value.h"

struct sqlite3_file;

namespace morvik::host {

/// Of the file's layout. A file of a later version is never changed.
inline constexpr int64_t kStoreVersion = 1;
/// "MRVK": marks a file as a store of ours.
inline constexpr int64_t kStoreApplicationId = 0x4D52564B;
/// Property numbers go from 1 to this, over the whole life of a store.
inline constexpr int64_t kMaxPropertyId = (int64_t{1} << 22) - 1;

/// A longer log is truncated to this length when it is restarted.
inline constexpr int64_t kLogKeptBytes = int64_t{4} << 20;
/// How much is cut at a time: it takes a few milliseconds.
inline constexpr int64_t kLogCutBytes = int64_t{4} << 20;

/// A property as found in the file.
struct StoredProperty {
  int64_t id = 0;
  std::string name;
  kit::Value value;
  ArrayRows rows;  ///< of an array
};

/// What one transaction writes. Names are not copied: they must live until the changes are applied.
class StoreChanges {
 public:
  void clear();
  bool empty() const { return properties_.empty() && removals_.empty() && elements_.empty(); }
  /// Sets a property that is no array; an absent value removes it. False if the value cannot be stored (see
  /// encodeValue); then nothing is added.
  [[nodiscard]] bool setProperty(int64_t id, std::string_view name, const kit::Value& value);
  /// Sets the rows of a property that is an array.
  /// `rows`: how many exist in these ranges, which may span rows removed earlier.
  void removeRows(int64_t property_id, std::span<const RowRange> ranges, size_t rows);
  [[nodiscard]] bool addRow(int64_t property_id, int64_t order, const kit::Value& element);

  /// To undo what was added for a property that turns out not to be storable.
  struct Mark {
    size_t properties, removals, removed_rows, elements, bytes;
  };
  Mark mark() const { return {properties_.size(), removals_.size(), removed_rows_, elements_.size(), bytes_.size()}; }
  void backTo(const Mark& mark);

 private:
  friend class StoreDatabase;
  struct Property {
    int64_t id;
    std::string_view name;
    size_t begin, size;  ///< in bytes_; size 0: nothing is stored
  };
  struct Removal {
    int64_t first, last;
  };
  struct Element {
    int64_t row;
    size_t begin, size;
  };
  std::vector<Property> properties_;
  std::vector<Removal> removals_;
  size_t removed_rows_ = 0;  ///< by all of these
  std::vector<Element> elements_;
  std::string bytes_;
};

/// The connection that commits. A commit is a write into the log, which is in the kernel's hands when it returns;
/// nothing here waits for the disk except restartLog(). One thread at a time.
class StoreDatabase {
 public:
  /// Opens the file, and creates the tables of an empty one. `read_only`: reads its current content without changing
  /// it; the file must be a store.
  static StoreOutcome open(const StorePlace& place, bool read_only, std::unique_ptr<StoreDatabase>& out);

  /// All properties. Unreadable records are left out and counted; the next apply() moves them to the table
  /// "unreadable".
  StoreOutcome load(std::vector<StoredProperty>& out);
  /// Records that load() could not read.
  size_t damaged() const { return damaged_properties_.size() + damaged_elements_.size(); }
  /// Whether damaged records still have to be moved.
  bool hasDamagedToMove() const { return damaged() != 0; }
  /// All or nothing; in a forked child nothing, with an error.
  StoreOutcome apply(const StoreChanges& changes);

  /// This object created the tables: the file itself has not been synced yet.
  bool fresh() const { return fresh_; }
  void setSynced() { fresh_ = false; }
  /// Bytes of the log with commits since its last restart.
  int64_t logBytes() const;
  /// The log's length in pages, as checkpoints count them.
  int framesInLog() const { return frames_in_log_; }
  /// Restarts the log. Everything in it must have been written back. Waits for one disk sync.
  StoreOutcome restartLog();

 private:
  StoreOutcome connect(const StorePlace& place, bool read_only);
  StoreOutcome identify(bool read_only);
  StoreOutcome makeTables();
  StoreOutcome prepareAll();
  StoreOutcome loadElements(std::vector<StoredProperty>& properties);
  StoreOutcome write(const StoreChanges& changes);
  size_t changedRows() const;
  StoreOutcome moveDamaged();
  StoreOutcome inTransaction(const StoreChanges& changes);
  StoreOutcome ran(int code) const;
  void watchLog();

  Connection connection_;
  Statement begin_, commit_, rollback_;
  Statement set_property_, remove_rows_, add_row_;
  std::vector<int64_t> damaged_properties_;
  std::vector<int64_t> damaged_elements_;
  int frames_in_log_ = 0;
  const runtime::OwnProcess process_ = ownProcess();
  bool fresh_ = false;
};

/// The connections that sync the log and write it back into the file, on the background thread, while the other one
/// goes on committing.
class StoreLogKeeper {
 public:
  static StoreOutcome open(const StorePlace& place, std::unique_ptr<StoreLogKeeper>& out);

  /// Reads the whole file, which a load alone does not.
  StoreOutcome check();
  /// Waits until all commits made before the call are on the disk.
  StoreOutcome syncLog();
  /// Until letGo(), nobody can restart the log: a commit that finds all of it written back would do so by itself, and
  /// wait for a sync. What is committed by now can be written back; later commits only after the next hold(). Not
  /// during a commit, and only while something is left to write back.
  StoreOutcome hold();
  void letGo();
  /// Truncates a part of the log's file beyond its first `used` bytes, if it is longer than needed. Not during a
  /// commit. `is_short`: nothing is left to cut.
  StoreOutcome cutLog(int64_t used, bool& is_short);
  /// Syncs the log, writes back as much of it as possible, syncs the file. `frames`: how much, from the log's
  /// beginning.
  StoreOutcome writeBack(int& frames);

 private:
  sqlite3_file* log() const;

  Connection connection_;
  Connection reader_;  ///< in a transaction while it holds
};

}  // namespace morvik::host
