#include "host/store/store_database.h"

#include <sqlite3.h>

#include <algorithm>
#include <unordered_map>

#include "host/store/store_files.h"
#include "host/store/store_snapshot.h"
#include "runtime/store/value_codec.h"

namespace morvik::host {
namespace {

using kit::Value;

constexpr int64_t kFrameBytes = kStorePageBytes + 24;  // a page and its header in the log

// A property's value is in its row; an array's row holds the empty array, and its elements have rows of their own.
// Their key combines the property's number and the element's order in one integer: the fastest key there is, and a run
// of elements is a range of keys.
constexpr const char* kMakeTables =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE properties(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, value BLOB);"
    "CREATE TABLE elements(id INTEGER PRIMARY KEY, value BLOB);"
    "CREATE TABLE unreadable(property TEXT, id INTEGER, value BLOB);"
    "CREATE TABLE log(restarts INTEGER);"
    "INSERT INTO log VALUES(0);"
    "PRAGMA application_id=1297241675;"
    "PRAGMA user_version=1;"
    "COMMIT";
static_assert(kStoreApplicationId == 1297241675 && kStoreVersion == 1, "the text above names both");

constexpr int kPropertyShift = 40;
static_assert(kMaxRowOrder == int64_t{1} << kPropertyShift);

/// A damaged page may hide from a lookup what a walk over all rows found.
constexpr const char* kHidden = "it does not find again what it showed";

int64_t rowId(int64_t property_id, int64_t order) {
  return (property_id << kPropertyShift) | order;
}

bool isPropertyId(int64_t id) {
  return id >= 1 && id <= kMaxPropertyId;
}

StoreProblem unreadable(std::string message) {
  return {StoreProblem::Kind::kUnreadable, std::move(message)};
}

}  // namespace

// ------------------------------------------------------------------------------------------------------------- changes

void StoreChanges::clear() {
  properties_.clear();
  removals_.clear();
  removed_rows_ = 0;
  elements_.clear();
  bytes_.clear();
}

bool StoreChanges::setProperty(int64_t id, std::string_view name, const Value& value) {
  const size_t begin = bytes_.size();
  if (!value.isAbsent() && !runtime::encodeValue(value, bytes_))
    return false;
  properties_.push_back({id, name, begin, bytes_.size() - begin});
  return true;
}

void StoreChanges::removeRows(int64_t property_id, std::span<const RowRange> ranges, size_t rows) {
  for (const RowRange& range : ranges) {
    const int64_t first = rowId(property_id, range.first);
    removals_.push_back({first, first + range.count - 1});
  }
  removed_rows_ += rows;
}

bool StoreChanges::addRow(int64_t property_id, int64_t order, const Value& element) {
  const size_t begin = bytes_.size();
  if (!runtime::encodeValue(element, bytes_))
    return false;
  elements_.push_back({rowId(property_id, order), begin, bytes_.size() - begin});
  return true;
}

void StoreChanges::backTo(const Mark& mark) {
  properties_.resize(mark.properties);
  removals_.resize(mark.removals);
  removed_rows_ = mark.removed_rows;
  elements_.resize(mark.elements);
  bytes_.resize(mark.bytes);
}

// ------------------------------------------------------------------------------------------------------------ database

StoreOutcome StoreDatabase::open(const StorePlace& place, bool read_only, std::unique_ptr<StoreDatabase>& out) {
  auto database = std::make_unique<StoreDatabase>();
  if (StoreOutcome failed = database->connect(place, read_only))
    return failed;
  if (StoreOutcome failed = database->identify(read_only))
    return failed;
  if (!read_only) {
    database->watchLog();
    if (StoreOutcome failed = database->prepareAll())
      return failed;
  }
  out = std::move(database);
  return std::nullopt;
}

// SQLite itself creates a missing log and needs locks to read a store in use, even when told to read only.
StoreOutcome StoreDatabase::connect(const StorePlace& place, bool read_only) {
  if (!read_only)
    return Connection::open(place.path(), place.vfs, connection_);
  std::string image;
  if (StoreOutcome failed = readStoreSnapshot(place, image))
    return failed;
  return Connection::openImage(image, connection_);
}

StoreOutcome StoreDatabase::identify(bool read_only) {
  int64_t application = 0;
  int64_t version = 0;
  int64_t tables = 0;
  if (StoreOutcome failed = connection_.number("PRAGMA application_id", application))
    return failed;
  if (StoreOutcome failed = connection_.number("PRAGMA user_version", version))
    return failed;
  if (StoreOutcome failed = connection_.number("SELECT count(*) FROM sqlite_schema", tables))
    return failed;
  if (application == 0 && version == 0 && tables == 0 && !read_only)
    return makeTables();
  if (application != kStoreApplicationId)
    return unreadable("it is not a store of the kit");
  if (version > kStoreVersion)
    return StoreProblem{StoreProblem::Kind::kNewer, std::to_string(version)};
  if (version < kStoreVersion)
    return unreadable("it has no version");
  return std::nullopt;
}

StoreOutcome StoreDatabase::makeTables() {
  // Nothing to lose yet, and the log is a new file: it has no old content that a reordered write could bring back.
  if (StoreOutcome failed = connection_.execute("PRAGMA synchronous=OFF"))
    return failed;
  watchLog();
  if (StoreOutcome failed = connection_.execute(kMakeTables))
    return failed;
  fresh_ = true;
  return std::nullopt;
}

// synchronous=NORMAL with a log means: a commit is a write without a sync. A checkpoint syncs the log before it writes
// to the file, and the file before the log may restart. Whoever restarts the log syncs its first page before writing
// on. OFF would leave out this last step: then a power cut could leave the old log's beginning with the new log's pages
// behind it, and old pages would be played into a newer file and corrupt it. So the committing connection stays at
// NORMAL, and the background thread makes sure that the commit is never the one to restart the log.
StoreOutcome StoreDatabase::prepareAll() {
  if (StoreOutcome failed = connection_.execute("PRAGMA synchronous=NORMAL"))
    return failed;
  const std::pair<const char*, Statement*> all[] = {
      {"BEGIN IMMEDIATE", &begin_},
      {"COMMIT", &commit_},
      {"ROLLBACK", &rollback_},
      {"INSERT INTO properties(id,name,value) VALUES(?,?,?) ON CONFLICT(id) DO UPDATE SET value=excluded.value",
       &set_property_},
      {"DELETE FROM elements WHERE id BETWEEN ? AND ?", &remove_rows_},
      {"INSERT INTO elements(id,value) VALUES(?,?)", &add_row_},
  };
  for (const auto& [sql, statement] : all) {
    // A missing table shows here.
    if (StoreOutcome failed = connection_.prepare(sql, *statement))
      return failed;
  }
  return std::nullopt;
}

void StoreDatabase::watchLog() {
  // Also keeps SQLite from checkpointing on its own: this replaces its own hook.
  sqlite3_wal_hook(
      connection_.handle(),
      [](void* database, sqlite3*, const char*, int frames) {
        static_cast<StoreDatabase*>(database)->frames_in_log_ = frames;
        return SQLITE_OK;
      },
      this);
}

StoreOutcome StoreDatabase::load(std::vector<StoredProperty>& out) {
  Statement rows;
  if (StoreOutcome failed = connection_.prepare("SELECT id,name,value FROM properties ORDER BY id", rows))
    return failed;
  runtime::ValueDecoder decoder;
  int code = SQLITE_ROW;
  while ((code = rows.step()) == SQLITE_ROW) {
    StoredProperty property;
    property.id = rows.integer(0);
    property.name = rows.bytes(1);
    std::optional<Value> value;
    if (rows.isNull(2))
      value = Value();
    else
      value = decoder.decode(rows.bytes(2));
    if (!isPropertyId(property.id) || !value || (value->isArray() && value->size() != 0)) {
      damaged_properties_.push_back(property.id);
      continue;
    }
    property.value = *value;
    out.push_back(std::move(property));
  }
  if (code != SQLITE_DONE)
    return connection_.problem();
  return loadElements(out);
}

StoreOutcome StoreDatabase::loadElements(std::vector<StoredProperty>& properties) {
  Statement rows;
  if (StoreOutcome failed = connection_.prepare("SELECT id,value FROM elements ORDER BY id", rows))
    return failed;
  runtime::ValueDecoder decoder;
  kit::MutableArray elements;
  // Both are ordered by property number, so one walk over both is enough.
  auto property = properties.begin();
  const auto finish = [&] {
    if (property->value.isArray() && !elements.empty())
      property->value = Value(std::move(elements));
    elements = kit::MutableArray();
  };
  int code = SQLITE_ROW;
  while ((code = rows.step()) == SQLITE_ROW) {
    const int64_t id = rows.integer(0);
    while (property != properties.end() && property->id < (id >> kPropertyShift)) {
      finish();
      ++property;
    }
    const bool owned =
        property != properties.end() && property->id == id >> kPropertyShift && property->value.isArray();
    std::optional<Value> value;
    if (owned)
      value = decoder.decode(rows.bytes(1));
    if (!value) {
      damaged_elements_.push_back(id);
      continue;
    }
    property->rows.add(id & (kMaxRowOrder - 1));
    elements.append(std::move(*value));
  }
  if (code != SQLITE_DONE)
    return connection_.problem();
  if (property != properties.end())
    finish();
  return std::nullopt;
}

StoreOutcome StoreDatabase::ran(int code) const {
  if (code == SQLITE_OK)
    return std::nullopt;
  return connection_.problem();
}

size_t StoreDatabase::changedRows() const {
  return static_cast<size_t>(sqlite3_changes(connection_.handle()));
}

StoreOutcome StoreDatabase::write(const StoreChanges& changes) {
  for (const StoreChanges::Property& property : changes.properties_) {
    set_property_.bind(1, property.id).bindText(2, property.name);
    if (property.size == 0)
      set_property_.bindNull(3);
    else
      set_property_.bindBlob(3, std::string_view(changes.bytes_).substr(property.begin, property.size));
    if (StoreOutcome failed = ran(set_property_.run()))
      return failed;
  }
  size_t removed_rows = 0;
  for (const StoreChanges::Removal& removal : changes.removals_) {
    if (StoreOutcome failed = ran(remove_rows_.bind(1, removal.first).bind(2, removal.last).run()))
      return failed;
    removed_rows += changedRows();
  }
  if (removed_rows != changes.removed_rows_)
    return unreadable(kHidden);
  for (const StoreChanges::Element& element : changes.elements_) {
    add_row_.bind(1, element.row).bindBlob(2, std::string_view(changes.bytes_).substr(element.begin, element.size));
    if (StoreOutcome failed = ran(add_row_.run()))
      return failed;
  }
  return std::nullopt;
}

StoreOutcome StoreDatabase::moveDamaged() {
  const auto moveAll = [this](const std::vector<int64_t>& ids, const char* keep_sql, const char* remove_sql) {
    Statement keep;
    Statement remove;
    if (StoreOutcome failed = connection_.prepare(keep_sql, keep))
      return failed;
    if (StoreOutcome failed = connection_.prepare(remove_sql, remove))
      return failed;
    for (const int64_t id : ids) {
      if (StoreOutcome failed = ran(keep.bind(1, id).run()))
        return failed;
      if (StoreOutcome failed = ran(remove.bind(1, id).run()))
        return failed;
      if (changedRows() != 1)
        return StoreOutcome(unreadable(kHidden));
    }
    return StoreOutcome();
  };
  // Elements first, while their property's name still exists.
  if (StoreOutcome failed =
          moveAll(damaged_elements_,
                  "INSERT INTO unreadable SELECT (SELECT name FROM properties WHERE id=elements.id>>40),id,value"
                  " FROM elements WHERE id=?",
                  "DELETE FROM elements WHERE id=?"))
    return failed;
  return moveAll(damaged_properties_, "INSERT INTO unreadable SELECT name,id,value FROM properties WHERE id=?",
                 "DELETE FROM properties WHERE id=?");
}

StoreOutcome StoreDatabase::inTransaction(const StoreChanges& changes) {
  if (StoreOutcome failed = ran(begin_.run()))
    return failed;
  // First, so that removing a range of rows does not take a damaged one along.
  if (hasDamagedToMove()) {
    if (StoreOutcome failed = moveDamaged())
      return failed;
  }
  if (StoreOutcome failed = write(changes))
    return failed;
  return ran(commit_.run());
}

StoreOutcome StoreDatabase::apply(const StoreChanges& changes) {
  if (!process_.isHere())
    return StoreProblem{StoreProblem::Kind::kUnavailable, "this process is a fork of the one that opened it"};
  const size_t commands = changes.properties_.size() + changes.removals_.size() + changes.elements_.size();
  // A single command is its own transaction, which saves two commands: an appended record is the case that matters.
  StoreOutcome failed = commands == 1 && !hasDamagedToMove() ? write(changes) : inTransaction(changes);
  if (failed) {
    if (sqlite3_get_autocommit(connection_.handle()) == 0)
      rollback_.run();
    return failed;
  }
  damaged_properties_.clear();
  damaged_elements_.clear();
  return std::nullopt;
}

int64_t StoreDatabase::logBytes() const {
  return frames_in_log_ * kFrameBytes;
}

StoreOutcome StoreDatabase::restartLog() {
  // Any write restarts the log once all of it has been written back; this one does so when nobody waits.
  return connection_.execute("UPDATE log SET restarts=restarts+1");
}

// ---------------------------------------------------------------------------------------------------------- log keeper

StoreOutcome StoreLogKeeper::open(const StorePlace& place, std::unique_ptr<StoreLogKeeper>& out) {
  auto keeper = std::make_unique<StoreLogKeeper>();
  if (StoreOutcome failed = Connection::open(place.path(), place.vfs, keeper->connection_))
    return failed;
  if (StoreOutcome failed = keeper->connection_.execute("PRAGMA wal_autocheckpoint=0;PRAGMA synchronous=NORMAL"))
    return failed;
  // The log is opened with the first read.
  int64_t tables = 0;
  if (StoreOutcome failed = keeper->connection_.number("SELECT count(*) FROM sqlite_schema", tables))
    return failed;
  if (StoreOutcome failed = Connection::open(place.path(), place.vfs, keeper->reader_))
    return failed;
  out = std::move(keeper);
  return std::nullopt;
}

StoreOutcome StoreLogKeeper::check() {
  Statement check;
  if (StoreOutcome failed = connection_.prepare("PRAGMA quick_check(1)", check))
    return failed;
  if (check.step() != SQLITE_ROW)
    return connection_.problem();
  if (check.bytes(0) != "ok")
    return unreadable(std::string(check.bytes(0)));
  return std::nullopt;
}

sqlite3_file* StoreLogKeeper::log() const {
  sqlite3_file* log = nullptr;
  sqlite3_file_control(connection_.handle(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
  return log == nullptr || log->pMethods == nullptr ? nullptr : log;
}

StoreOutcome StoreLogKeeper::cutLog(int64_t used, bool& is_short) {
  is_short = true;
  sqlite3_file* const file = log();
  sqlite3_int64 bytes = 0;
  if (file == nullptr || file->pMethods->xFileSize(file, &bytes) != SQLITE_OK)
    return std::nullopt;
  // The log's header precedes its frames.
  const int64_t needed = std::max(kLogKeptBytes, used + kFrameBytes);
  if (bytes <= needed)
    return std::nullopt;
  const int64_t left = std::max(needed, int64_t{bytes} - kLogCutBytes);
  is_short = left == needed;
  const int code = file->pMethods->xTruncate(file, left);
  if (code != SQLITE_OK)
    return StoreProblem{problemKindOf(code), sqlite3_errstr(code)};
  return std::nullopt;
}

StoreOutcome StoreLogKeeper::syncLog() {
  sqlite3_file* const file = log();
  if (file == nullptr)
    return StoreProblem{StoreProblem::Kind::kUnavailable, "its log is not open"};
  const int code = file->pMethods->xSync(file, SQLITE_SYNC_NORMAL);
  if (code != SQLITE_OK)
    return StoreProblem{problemKindOf(code), sqlite3_errstr(code)};
  return std::nullopt;
}

StoreOutcome StoreLogKeeper::hold() {
  letGo();
  return reader_.execute("BEGIN;SELECT count(*) FROM sqlite_schema");
}

void StoreLogKeeper::letGo() {
  if (sqlite3_get_autocommit(reader_.handle()) == 0)
    reader_.execute("COMMIT");
}

StoreOutcome StoreLogKeeper::writeBack(int& frames) {
  int in_log = 0;
  if (sqlite3_wal_checkpoint_v2(connection_.handle(), "main", SQLITE_CHECKPOINT_PASSIVE, &in_log, &frames) != SQLITE_OK)
    return connection_.problem();
  return std::nullopt;
}

}  // namespace morvik::host
