#include "host/store/sqlite_store.h"

#include <algorithm>
#include <mutex>

#include "host/store/background_flusher.h"
#include "kit/continued_list.h"
#include "runtime/store/value_codec.h"
#include "services/converters.h"

namespace morvik::host {
namespace {

using kit::Array;
using kit::Value;

/// A disk that fails for a moment is no reason to begin without its content.
constexpr int kOpenAttempts = 3;

Array arrayOrEmpty(const Value& value) {
  return value.array();
}

SqliteStoreOptions withFlusher(SqliteStoreOptions options) {
  if (!options.make_flusher) {
    options.make_flusher = [](StoreFlusher::Flush flush, std::chrono::milliseconds delay) {
      return std::make_unique<BackgroundFlusher>(std::move(flush), delay);
    };
  }
  return options;
}

}  // namespace

/// Runs while round_mutex_ is free, and always ends: others wait for its end.
class SqliteStore::Round {
 public:
  Round(SqliteStore& store, std::unique_lock<std::mutex>& lock) : store_(store), lock_(lock) {
    store_.is_round_running_ = true;
    lock_.unlock();
  }
  ~Round() {
    lock_.lock();
    store_.is_round_running_ = false;
    ++store_.round_;
    store_.round_ended_.notify_all();
  }
  Round(const Round&) = delete;
  Round& operator=(const Round&) = delete;

 private:
  SqliteStore& store_;
  std::unique_lock<std::mutex>& lock_;
};

/// The log may be the app's own, and the app may hold a lock while it calls the kit: so nothing is logged under a lock
/// of ours.
class SqliteStore::Committing {
 public:
  explicit Committing(SqliteStore& store) : store_(store), lock_(store.commit_mutex_) {}
  ~Committing() {
    lock_.unlock();
    store_.tellWaiting();
  }
  Committing(const Committing&) = delete;
  Committing& operator=(const Committing&) = delete;

 private:
  SqliteStore& store_;
  std::unique_lock<kit::Mutex> lock_;
};

SqliteStore::SqliteStore(SqliteStoreOptions options, kit::LogSink& log)
    : options_(withFlusher(std::move(options))), log_(log) {
  const Committing committing(*this);
  if (options_.read_only) {
    openReadOnly();
    return;
  }
  opening_ = openFirst();
  if (opening_ == runtime::StoreOpening::kLocked)
    return;
  flusher_ = options_.make_flusher([this](StoreFlusher::Urgency urgency) { flush(urgency); }, options_.flush_delay);
  if (const auto problem = flusher_->problem())
    tellFlushed(StoreProblem::unavailable(problem->message));
  // Makes durable what a killed process may have left unsynced, and the file of a new store.
  if (database_ != nullptr)
    flusher_->flushSoon();
}

SqliteStore::~SqliteStore() {
  shutdown();
}

// ---------------------------------------------------------------------------------------------------- readers, writers

void SqliteStore::setWhenTakenOver(kit::Block hook) {
  const std::lock_guard lock(commit_mutex_);
  when_taken_over_ = std::move(hook);
}

Value SqliteStore::get(std::string_view key) const {
  const std::lock_guard lock(memory_mutex_);
  const auto found = properties_.find(key);
  return found == properties_.end() ? Value() : found->second->value;
}

// The old value goes with the parameter, after the lock: it may be the last handle of a long list.
void SqliteStore::set(std::string_view key, Value value) {
  const std::lock_guard lock(memory_mutex_);
  exchange(key, value);
}

void SqliteStore::setTogether(std::span<runtime::StoreWrite> writes) {
  const std::lock_guard lock(memory_mutex_);
  // All memory first, so that it is all or nothing.
  for (const runtime::StoreWrite& write : writes)
    propertyOf(write.key);
  for (runtime::StoreWrite& write : writes)
    exchange(write.key, write.value);
}

void SqliteStore::append(std::string_view key, Value element) {
  const std::lock_guard lock(memory_mutex_);
  Property& property = propertyOf(key);
  kit::MutableArray list(property.value);
  list.append(std::move(element));
  Value after(std::move(list));
  setDirty(property);
  property.value.swap(after);
}

void SqliteStore::replace(std::string_view key, const Value& before, Value after) {
  Value gone;  // destroyed after the lock, as in set()
  const std::lock_guard lock(memory_mutex_);
  gone = propertyOf(key).value;
  after = kit::continuedList(before, gone, std::move(after));
  exchange(key, after);
}

void SqliteStore::exchange(std::string_view key, Value& value) {
  Property& property = propertyOf(key);
  if (property.value.identicalTo(value))
    return;
  setDirty(property);
  property.value.swap(value);
}

/// Allocates nothing: there is space for each property once.
void SqliteStore::setDirty(Property& property) {
  if (!property.dirty)
    dirty_.push_back(&property);
  property.dirty = true;
  ++writes_;
}

bool SqliteStore::synchronize() {
  const bool all_kept = synchronizeUntold();
  tellWaiting();
  return all_kept;
}

bool SqliteStore::synchronizeUntold() {
  uint64_t up_to = 0;
  {
    const std::lock_guard lock(memory_mutex_);
    up_to = writes_;
  }
  return commitWrites(up_to);
}

/// A round takes everything written until it gathers. So a caller that comes during a round waits for its end and at
/// most for the next one, successful or not.
bool SqliteStore::commitWrites(uint64_t up_to) {
  std::unique_lock lock(round_mutex_);
  const uint64_t with_next = round_ + 2;  // number of ended rounds when the next one has ended too
  while (is_round_running_) {
    const uint64_t round = round_;
    if (options_.when_waiting)
      options_.when_waiting();
    round_ended_.wait(lock, [this, round] { return round_ != round; });
    if (kept_writes_ >= up_to || round_ >= with_next)
      return kept_writes_ >= up_to && refused_up_to_ < up_to;
  }
  const Round running(*this, lock);
  return commitAsRound();
}

bool SqliteStore::commitAsRound() {
  const std::lock_guard lock(commit_mutex_);
  return commit();
}

bool SqliteStore::commitTurn() {
  synchronizeUntold();
  tellWaiting();
  const std::lock_guard lock(commit_mutex_);
  return !anythingDirty() || (database_ == nullptr && !may_reopen_);
}

bool SqliteStore::isKept() const {
  const std::lock_guard lock(memory_mutex_);
  return kept_writes_ >= writes_;
}

std::optional<Value> SqliteStore::tryGet(std::string_view key) const {
  const std::unique_lock lock(memory_mutex_, std::try_to_lock);
  if (!lock.owns_lock())
    return std::nullopt;
  const auto found = properties_.find(key);
  return found == properties_.end() ? Value() : found->second->value;
}

// Both locks are held throughout, and neither the log nor the flusher is used: they have their own locks. No disk sync
// follows, since hardly any process is left to do it; the next start does.
bool SqliteStore::trySetAndSynchronize(std::string_view key, Value value) {
  const std::unique_lock commit_lock(commit_mutex_, std::try_to_lock);
  if (!commit_lock.owns_lock() || database_ == nullptr)
    return false;
  const std::unique_lock memory_lock(memory_mutex_, std::try_to_lock);
  if (!memory_lock.owns_lock())
    return false;
  Property& property = propertyOf(key);
  property.value.swap(value);
  setDirty(property);
  gatherDirty();
  plan();
  const bool is_refused = std::find(refused_.begin(), refused_.end(), &property) != refused_.end() ||
                          std::any_of(pending_.begin(), pending_.end(), [&property](const Pending& pending) {
                            return pending.property == &property && pending.leaves_out_more;
                          });
  const bool is_applied = !applyChanges();
  if (is_applied)
    setStored();
  else
    keepPending();
  pending_.clear();
  for (Property* refused : refused_)
    setDirty(*refused);  // reported with the next commit, if there is one
  if (is_applied && !is_refused)
    return true;
  property.value.swap(value);
  setDirty(property);
  return false;
}

std::vector<std::pair<std::string, Value>> SqliteStore::all() const {
  std::vector<std::pair<std::string, Value>> found;
  {
    const std::lock_guard lock(memory_mutex_);
    for (const auto& [name, property] : properties_) {
      if (!property->value.isAbsent())
        found.emplace_back(name, property->value);
    }
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return found;
}

void SqliteStore::flushNow() {
  if (flusher_ != nullptr)
    flusher_->flushNow(StoreFlusher::Urgency::kSessionEnd);
}

void SqliteStore::flushSoon() {
  if (flusher_ != nullptr)
    flusher_->flushSoon();
}

void SqliteStore::setWhenFlushed(kit::Block hook) {
  {
    const std::lock_guard lock(commit_mutex_);
    when_flushed_ = std::move(hook);
  }
  flushSoon();
}

void SqliteStore::flushAndWait() {
  synchronize();
  if (flusher_ == nullptr)
    return;
  flusher_->flushAndWait(StoreFlusher::Urgency::kSessionEnd);
  // A file that recovered with that flush takes what was recorded without it.
  if (isReopened()) {
    synchronize();
    flusher_->flushAndWait(StoreFlusher::Urgency::kSessionEnd);
  }
}

bool SqliteStore::isReopened() const {
  const std::lock_guard lock(commit_mutex_);
  return reopened_.has_value();
}

void SqliteStore::shutdown() {
  beginToEnd();
  flushAndWait();
  if (flusher_ != nullptr)
    flusher_->stop();
  const Committing committing(*this);
  may_reopen_ = false;
  keeper_.reset();
  reopened_.reset();
  database_.reset();
  lock_.release();
}

SqliteStore::Property& SqliteStore::propertyOf(std::string_view key) {
  const auto found = properties_.find(key);
  if (found != properties_.end())
    return *found->second;
  auto property = std::make_unique<Property>();
  property->name = key;
  if (dirty_.capacity() <= properties_.size())
    dirty_.reserve(2 * properties_.size() + 1);
  return *properties_.emplace(std::string(key), std::move(property)).first->second;
}

/// Includes what an exception left of an earlier round.
bool SqliteStore::anythingDirty() const {
  const std::lock_guard lock(memory_mutex_);
  return !dirty_.empty() || !pending_.empty();
}

// ------------------------------------------------------------------------------------------------------------- opening

void SqliteStore::openReadOnly() {
  Opened opened;
  const StoreOutcome failed = openAndLoad(true, opened);
  if (!failed) {
    adopt(opened);
  } else if (failed->kind == StoreProblem::Kind::kNewer) {
    opening_ = runtime::StoreOpening::kNewerVersion;
    tell(
        "Morvik host: the store \"%@\" has version %@, this program knows versions up to %ld: use a newer program to "
        "look into it.",
        {options_.place.path(), failed->message, kStoreVersion});
  } else {
    opening_ = runtime::StoreOpening::kNothingToRead;
    tell("Morvik host: there is no store to read at \"%@\" (%@): check the folder.",
         {options_.place.path(), failed->message});
  }
  database_.reset();
}

runtime::StoreOpening SqliteStore::openFirst() {
  Opened first = lockAndOpen(std::nullopt);
  opened(first, Attempt::kFirst);
  return first.state;
}

/// On the store's own thread: another program that holds the file makes the opener wait.
void SqliteStore::openAgain() {
  std::optional<StoreProblem> unreadable;
  {
    const std::lock_guard lock(commit_mutex_);
    if (database_ != nullptr || reopened_ || !may_reopen_)
      return;
    unreadable = std::exchange(given_up_, std::nullopt);
  }
  Opened again = lockAndOpen(std::move(unreadable));
  const Committing committing(*this);
  opened(again, Attempt::kLater);
}

void SqliteStore::opened(Opened& opened, Attempt attempt) {
  const bool is_locked_out = opened.state == runtime::StoreOpening::kLocked && attempt == Attempt::kLater;
  const bool is_late = attempt == Attempt::kLater && opened.database != nullptr && !knewAll();
  may_reopen_ = opened.state == runtime::StoreOpening::kUnavailable || is_locked_out || is_late;
  if (opened.unreadable && knewAll())
    given_up_ = std::move(opened.unreadable);  // memory is newer than the file: nobody reads it again
  else if (opened.database == nullptr)
    lock_.release();
  switch (opened.state) {
    case runtime::StoreOpening::kUnavailable:
      if (loaded_once_)
        tellCannotWrite(opened.problem);
      else
        tellCannotOpen(opened.problem);
      return;
    case runtime::StoreOpening::kNewerVersion:
      if (!loaded_once_)
        opening_ = runtime::StoreOpening::kNewerVersion;  // permanent, even if it could not be opened before
      tell(
          "Morvik host: the store \"%@\" has version %@, this program knows versions up to %ld. It stays untouched and "
          "nothing is kept beyond this process: update the program or give it another folder.",
          {options_.place.path(), opened.problem.message, kStoreVersion});
      return;
    case runtime::StoreOpening::kLocked:
      if (is_locked_out) {
        was_locked_out_ = true;
        tellLockedOut(opened.problem);
        return;
      }
      // The caller decides what that means: for an instance, the start fails, and start() says why.
      opening_line_ =
          services::format("the store in \"%@\" is in use by %@", {options_.place.folder, opened.problem.message});
      return;
    default:
      break;
  }
  // A recovery changes lists, which only the committer keeps still.
  if (is_late) {
    reopened_ = std::move(opened);
    return;
  }
  adopt(opened);
  if (attempt == Attempt::kLater)
    commit();
}

void SqliteStore::adopt(Opened& opened) {
  takeOver(opened.loaded);
  database_ = std::move(opened.database);
  files_ = opened.files;
  ++generation_;
  tellDamaged();
}

void SqliteStore::adoptReopened() {
  Opened opened = *std::exchange(reopened_, std::nullopt);
  adopt(opened);
  if (when_taken_over_)
    std::exchange(when_taken_over_, nullptr)();
}

SqliteStore::Opened SqliteStore::lockAndOpen(std::optional<StoreProblem> unreadable) {
  const auto locked = [](const char* by_whom) {
    return Opened{runtime::StoreOpening::kLocked, {StoreProblem::Kind::kUnavailable, by_whom}};
  };
  if (StoreOutcome failed = options_.place.files->makeFolder(options_.place.folder))
    return {runtime::StoreOpening::kUnavailable, *failed};
  StoreProblem problem;
  switch (lock_.take(options_.place, problem)) {
    case LockResult::kHeldByAnother:
      return locked("another process: end that one or give this one a folder of its own");
    case LockResult::kHeldHere:
      return locked(
          "another kit of this process: stop that one first (one that was stopped while a callback or the disk kept it "
          "busy has the store until that is over), or give this one a folder of its own");
    case LockResult::kHeldBeforeTheFork:
      return locked(
          "the process that this one was forked from: start the kit in a fresh process (fork and exec), or give this "
          "one a folder of its own");
    case LockResult::kFailed:
      return {runtime::StoreOpening::kUnavailable, problem};
    case LockResult::kTaken:
      return openFile(std::move(unreadable));
  }
  return {};
}

/// `unreadable`: what is wrong with a file that became unreadable while in use.
SqliteStore::Opened SqliteStore::openFile(std::optional<StoreProblem> unreadable) {
  Opened opened;
  StoreOutcome failed = std::move(unreadable);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    // Another program that holds the file has made this one wait already.
    if (failed && (!failed->leavesTheFileGood() || failed->kind == StoreProblem::Kind::kBusy))
      break;
    failed = makeStoreFile(options_.place);
    if (!failed)
      failed = openAndLoad(false, opened);
    if (!failed) {
      opened.state = opened.database->fresh() ? runtime::StoreOpening::kCreated : runtime::StoreOpening::kOpened;
      return opened;
    }
  }
  if (failed->kind == StoreProblem::Kind::kNewer)
    return {runtime::StoreOpening::kNewerVersion, *failed};
  if (failed->leavesTheFileGood())
    return {runtime::StoreOpening::kUnavailable, *failed};
  return openInPlaceOf(*std::move(failed));
}

/// If no new store can be made, the unreadable file is still the best that outlives the process.
SqliteStore::Opened SqliteStore::openInPlaceOf(StoreProblem unreadable) {
  std::string new_path;
  if (StoreOutcome failed = setStoreAside(options_.place, new_path))
    return {runtime::StoreOpening::kUnavailable, *failed, nullptr, {}, std::move(unreadable)};
  Opened opened;
  StoreOutcome failed = makeStoreFile(options_.place);
  if (!failed)
    failed = openAndLoad(false, opened);
  if (failed) {
    putStoreBack(options_.place, new_path);
    return {runtime::StoreOpening::kUnavailable, *failed, nullptr, {}, std::move(unreadable)};
  }
  tell(
      "Morvik host: the store \"%@\" cannot be read (%@). It was set aside as \"%@\" and a fresh one begins: keep that "
      "file if its contents matter, delete it if not.",
      {options_.place.path(), unreadable.message, nameOfSetAside(options_.place, new_path)});
  opened.state = runtime::StoreOpening::kSetAside;
  return opened;
}

StoreOutcome SqliteStore::openAndLoad(bool read_only, Opened& opened) {
  opened = Opened();
  std::unique_ptr<StoreDatabase> database;
  if (StoreOutcome failed = StoreDatabase::open(options_.place, read_only, database))
    return failed;
  if (StoreOutcome failed = database->load(opened.loaded))
    return failed;
  opened.database = std::move(database);
  opened.files = identifyStoreFiles(options_.place);
  return std::nullopt;
}

// If the file could not be opened at the start, its content becomes known only now; the table says what becomes of each
// property.
void SqliteStore::takeOver(std::vector<StoredProperty>& loaded) {
  const std::lock_guard lock(memory_mutex_);
  const bool is_late = (!loaded_once_ && opening_ == runtime::StoreOpening::kUnavailable) || was_locked_out_;
  for (StoredProperty& found : loaded) {
    const bool set_meanwhile = properties_.contains(found.name);
    Property& property = propertyOf(found.name);
    property.id = found.id;
    property.rows = std::move(found.rows);
    property.stored = std::move(found.value);
    next_id_ = std::max(next_id_, property.id + 1);
    const runtime::TakeOver rule =
        is_late ? options_.take_over.ruleOf(found.name, property.stored) : runtime::TakeOver::kProcess;
    if (rule == runtime::TakeOver::kProcessAlone)
      setDirty(property);
    else if (!set_meanwhile)
      property.value = property.stored;
    else
      property.value = runtime::takenOver(rule, property.stored, property.value, property.lost);
  }
  if (is_late) {
    takeOverRecord();
    takeOverConfirmed();
  }
  for (const auto& [name, property] : properties_)
    property->lost = Value();
  loaded_once_ = true;
  was_locked_out_ = false;
}

/// As a whole: if the file has the record, nothing of what this process set for it stays. Holds memory_mutex_.
void SqliteStore::takeOverRecord() {
  const auto key = properties_.find(options_.take_over.record_key);
  if (key == properties_.end() || !key->second->stored.isNumber() ||
      services::checkIntegerNilToZero(key->second->stored) == -1)
    return;
  for (const runtime::TakeOverRow& row : options_.take_over.rows) {
    const auto found = properties_.find(row.name);
    if (row.rule == runtime::TakeOver::kRecord && found != properties_.end())
      found->second->value = found->second->stored;
  }
}

/// If this process has cleared such a flag, that stands. Holds memory_mutex_.
void SqliteStore::takeOverConfirmed() {
  const auto says = [this](const std::string& name) {
    const auto found = properties_.find(name);
    return found != properties_.end() && found->second->stored.isBoolean() && found->second->stored.boolean();
  };
  for (const runtime::TakeOverRow& row : options_.take_over.rows) {
    if (row.rule != runtime::TakeOver::kConfirmed)
      continue;
    const auto found = properties_.find(row.name);
    if (found == properties_.end() || found->second->value.isAbsent() || (says(row.name) && says(row.confirms)))
      continue;
    found->second->value = Value(false);
    setDirty(*found->second);
  }
}

// The file became unreadable while in use, or no longer exists. Memory has everything, so a new file gets all of it.
void SqliteStore::giveUpFile(std::optional<StoreProblem> unreadable) {
  database_.reset();
  may_reopen_ = true;
  given_up_ = std::move(unreadable);
  forgetStored();
}

void SqliteStore::forgetStored() {
  const std::lock_guard lock(memory_mutex_);
  kept_writes_ = 0;
  ++writes_;
  next_id_ = 1;
  dirty_.clear();
  for (const auto& [name, property] : properties_) {
    property->id = 0;
    property->lost = std::move(property->stored);
    property->stored = Value();
    property->rows = ArrayRows();
    property->left_out.clear();
    property->dirty = true;
    dirty_.push_back(property.get());
  }
}

// ---------------------------------------------------------------------------------------------------------- committing

bool SqliteStore::commit() {
  if (reopened_)
    adoptReopened();
  if (!anythingDirty())
    return database_ != nullptr;
  if (database_ == nullptr) {
    if (may_reopen_)
      flusher_->flushSoon();
    return false;
  }
  const StoreOutcome failed = applyPending();
  if (failed && failed->kind == StoreProblem::Kind::kUnreadable) {
    tellCannotWrite(*failed);
    giveUpFile(*failed);
    flusher_->flushNow(StoreFlusher::Urgency::kRoutine);
    return false;
  }
  if (failed) {
    tellCannotWrite(*failed);
    return false;
  }
  tellLeftOut();
  tellWritable();
  if (database_->logBytes() > kLogRestartBytes)
    flusher_->flushNow(StoreFlusher::Urgency::kRoutine);
  else
    flusher_->flushSoon();
  return refused_up_to_ != pending_writes_;
}

StoreOutcome SqliteStore::applyPending() {
  // What an exception left of an earlier round is still dirty, or is again.
  for (const Pending& left : pending_) {
    const std::lock_guard lock(memory_mutex_);
    setDirty(*left.property);
  }
  pending_.clear();
  {
    const std::lock_guard lock(memory_mutex_);
    gatherDirty();
  }
  plan();
  tellRefused();
  StoreOutcome failed = changes_.empty() ? std::nullopt : applyChanges();
  if (failed) {
    const std::lock_guard lock(memory_mutex_);
    keepPending();
  } else {
    setStored();
  }
  pending_.clear();
  return failed;
}

/// Counted first: a failed attempt may have written something.
StoreOutcome SqliteStore::applyChanges() {
  ++commits_;
  return database_->apply(changes_);
}

void SqliteStore::gatherDirty() {
  pending_.reserve(pending_.size() + dirty_.size());
  pending_writes_ = writes_;
  for (Property* property : dirty_) {
    property->dirty = false;
    pending_.push_back({.property = property, .value = property->value});
  }
  dirty_.clear();
}

void SqliteStore::plan() {
  changes_.clear();
  refused_.clear();
  std::erase_if(pending_, [this](Pending& pending) {
    const StoreChanges::Mark mark = changes_.mark();
    if (planOne(pending))
      return false;
    changes_.backTo(mark);
    refused_.push_back(pending.property);
    return true;
  });
}

bool SqliteStore::planOne(Pending& pending) {
  Property& property = *pending.property;
  const Value& value = pending.value;
  if (property.id == 0) {
    if (next_id_ > kMaxPropertyId)
      return false;
    property.id = next_id_++;
  }
  const bool stays_array = value.isArray() && property.stored.isArray();
  const bool stays_absent = value.isAbsent() && property.stored.isAbsent();
  if (!stays_array && !stays_absent &&
      !changes_.setProperty(property.id, property.name, value.isArray() ? Value(Array()) : value))
    return false;
  planRows(pending);
  // Once the file has the change, nothing that follows may fail.
  if (!property.rows.appliesInPlace(pending.change))
    pending.rows.emplace(property.rows).apply(pending.change, arrayOrEmpty(value).size());
  return true;
}

/// An element that no store can keep has a position among the rows but no row, and does not affect its neighbours.
void SqliteStore::planRows(Pending& pending) {
  const Property& property = *pending.property;
  const Array before = arrayOrEmpty(property.stored);
  const Array after = arrayOrEmpty(pending.value);
  const RowChange& change = pending.change = property.rows.changeTo(before, after);
  for (const int64_t row : property.left_out) {
    if (!change.removes(row))
      pending.left_out.push_back(row);
  }
  const size_t without_row = property.left_out.size() - pending.left_out.size();
  changes_.removeRows(property.id, change.removed, before.size() - change.appended_from - without_row);
  int64_t row = change.first_new_row;
  Array::Iterator element = after.begin();
  for (element += change.appended_from; element != after.end(); ++element, ++row) {
    if (changes_.addRow(property.id, row, *element))
      continue;
    pending.left_out.push_back(row);
    pending.leaves_out_more = true;
  }
}

void SqliteStore::keepPending() {
  for (const Pending& pending : pending_)
    setDirty(*pending.property);
}

void SqliteStore::setStored() {
  kept_writes_ = pending_writes_;
  bool leaves_out = !refused_.empty();
  for (Pending& pending : pending_) {
    leaves_out = leaves_out || pending.leaves_out_more;
    if (pending.leaves_out_more)
      pending.property->left_out_untold = left_out_untold_ = true;
    pending.property->left_out = std::move(pending.left_out);
    if (pending.rows)
      pending.property->rows = *std::move(pending.rows);
    else
      pending.property->rows.apply(pending.change, arrayOrEmpty(pending.value).size());
    pending.property->stored = std::move(pending.value);
    pending.property->refusal_told = false;
  }
  if (leaves_out)
    refused_up_to_ = pending_writes_;
}

// ------------------------------------------------------------------------------------------------------------- telling

void SqliteStore::tellDamaged() {
  const size_t damaged = database_->damaged();
  if (damaged == 0)
    return;
  if (options_.read_only) {
    tell("Morvik host: %ld records of the store \"%@\" are damaged and left out; everything else is shown.",
         {damaged, options_.place.path()});
    return;
  }
  tell(
      "Morvik host: %ld records of the store \"%@\" are damaged. They are kept in its table \"unreadable\" and "
      "everything else is in use: nothing needs to be done.",
      {damaged, options_.place.path()});
  changes_.clear();
  // A file that proves unreadable is replaced with the next commit.
  StoreOutcome failed = applyChanges();
  if (failed && failed->kind != StoreProblem::Kind::kUnreadable)
    tellCannotWrite(*failed);
}

void SqliteStore::tellRefused() {
  for (Property* property : refused_) {
    if (std::exchange(property->refusal_told, true))
      continue;
    tell(
        "Morvik host: the value of \"%@\" cannot be kept beyond this process, since it is nested deeper than %ld or "
        "longer than %ld bytes: the store \"%@\" keeps the one before it.",
        {property->name, runtime::kMaxStoredDepth, runtime::kMaxStoredBytes, options_.place.path()});
  }
}

void SqliteStore::tellLeftOut() {
  if (!std::exchange(left_out_untold_, false))
    return;
  const std::lock_guard lock(memory_mutex_);
  for (const auto& [name, property] : properties_) {
    if (std::exchange(property->left_out_untold, false))
      tell(
          "Morvik host: an element of the list \"%@\" cannot be kept beyond this process, since it is nested deeper than "
          "%ld or longer than %ld bytes: the store \"%@\" keeps everything else of the list.",
          {name, runtime::kMaxStoredDepth, runtime::kMaxStoredBytes, options_.place.path()});
  }
}

void SqliteStore::tellCannotOpen(const StoreProblem& problem) {
  if (std::exchange(write_trouble_told_, true))
    return;
  tell(
      "Morvik host: the store \"%@\" cannot be opened (%@). Everything is kept in memory and tried again with the next "
      "writes: free some space, or make the folder writable.",
      {options_.place.path(), problem.message});
}

void SqliteStore::tellLockedOut(const StoreProblem& problem) {
  if (std::exchange(lock_trouble_told_, true))
    return;
  write_trouble_told_ = true;
  tell(
      "Morvik host: the store in \"%@\" was taken while it could not be opened here: it is in use by %@. Everything is "
      "kept in memory and tried again with the next writes.",
      {options_.place.folder, problem.message});
}

void SqliteStore::tellCannotWrite(const StoreProblem& problem) {
  if (std::exchange(write_trouble_told_, true))
    return;
  tell(
      "Morvik host: the store \"%@\" cannot be written (%@). Everything is kept in memory and tried again with the next "
      "writes: free some space, or make the folder writable.",
      {options_.place.path(), problem.message});
}

void SqliteStore::tellWritable() {
  lock_trouble_told_ = false;
  if (!std::exchange(write_trouble_told_, false))
    return;
  tell("Morvik host: the store \"%@\" can be written again: everything that was pending is stored.",
       {options_.place.path()});
}

void SqliteStore::tellRemoved() {
  tell(
      "Morvik host: files of the store \"%@\" were removed or replaced while it was in use. Everything is in memory "
      "still and is written again; to delete what the kit keeps, call eraseLocalData(), or stop the kit first.",
      {options_.place.path()});
}

void SqliteStore::tellRemovedAtTheEnd() {
  if (std::exchange(removal_at_the_end_told_, true))
    return;
  tell(
      "Morvik host: files of the store \"%@\" were removed or replaced before the kit had stopped. They are not written "
      "again: what the store held is deleted with them.",
      {options_.place.path()});
}

void SqliteStore::tell(std::string_view text, std::initializer_list<services::FormatArgument> arguments) {
  const std::string line = services::format(text, arguments);
  if (flusher_ == nullptr && opening_line_.empty())
    opening_line_ = line;
  const std::lock_guard lock(telling_mutex_);
  waiting_lines_.push_back(line);
}

void SqliteStore::tellWaiting() {
  std::vector<std::string> lines;
  {
    const std::lock_guard lock(telling_mutex_);
    lines.swap(waiting_lines_);
  }
  for (const std::string& line : lines)
    log_.line(line);
}

// ------------------------------------------------------------------------------------------------------------ flushing

void SqliteStore::flush(StoreFlusher::Urgency urgency) {
  // First, so that a listener of the flush finds a folder for its own files.
  const bool stays_removed = replaceRemoved();
  kit::Block when_flushed;
  {
    const std::lock_guard lock(commit_mutex_);
    when_flushed = when_flushed_;
  }
  if (when_flushed)
    when_flushed();
  // A file without a name needs no sync, and what has the name now may be somebody else's.
  if (stays_removed)
    return;
  openAgain();
  uint64_t generation = 0;
  const StoreOutcome failed = flushLog(urgency, generation);
  if (tolerateBusy(failed)) {
    flusher_->flushSoon();
    return;
  }
  if (failed && failed->kind == StoreProblem::Kind::kUnreadable) {
    {
      const std::lock_guard lock(commit_mutex_);
      // A commit may have noticed it first.
      if (generation == generation_ && database_ != nullptr)
        giveUpFile(*failed);
    }
    openAgain();
    return;
  }
  const Committing committing(*this);
  tellFlushed(failed);
}

/// What is committed to a file without a name is lost with the process. True: it should be lost, since somebody deleted
/// it around the end of the kit.
bool SqliteStore::replaceRemoved() {
  uint64_t generation = 0;
  StoreFileIdentities in_use;
  {
    const std::lock_guard lock(commit_mutex_);
    generation = generation_;
    in_use = files_;
  }
  const StoreLoss loss = lossOfStoreFiles(options_.place, in_use);
  if (loss == StoreLoss::kNone)
    return false;
  {
    const Committing committing(*this);
    if (database_ == nullptr || generation != generation_)
      return false;
    if (is_ending_) {
      tellRemovedAtTheEnd();
      return true;
    }
    // Close the file before it is opened again: the new connection would share SQLite's state of the log.
    keeper_.reset();
    if (loss == StoreLoss::kMixed) {
      giveUpFile(StoreProblem{StoreProblem::Kind::kUnreadable, "a part of it was removed or replaced while in use"});
    } else {
      tellRemoved();
      giveUpFile(std::nullopt);
    }
    was_locked_out_ = loss == StoreLoss::kTaken;
    lock_.release();
  }
  openAgain();
  return false;
}

/// Counts the flushes in a row that found the file busy. True: it will be free again soon, and no failure is reported.
bool SqliteStore::tolerateBusy(const StoreOutcome& failed) {
  const bool is_busy = failed && failed->kind == StoreProblem::Kind::kBusy;
  busy_flushes_ = is_busy ? busy_flushes_ + 1 : 0;
  return is_busy && busy_flushes_ < kMaxBusyFlushes;
}

StoreOutcome SqliteStore::flushLog(StoreFlusher::Urgency urgency, uint64_t& generation) {
  bool fresh = false;
  int64_t log_bytes = 0;
  uint64_t commits = 0;
  {
    const std::lock_guard lock(commit_mutex_);
    generation = generation_;
    if (database_ == nullptr)
      return std::nullopt;
    fresh = database_->fresh();
    log_bytes = database_->logBytes();
    commits = commits_;
  }
  if (StoreOutcome failed = renewKeeper(generation))
    return failed;
  const bool is_first = !is_checked_;
  if (is_first) {
    // The sync first: the check reads the whole file, which may take seconds.
    if (StoreOutcome failed = keeper_->syncLog())
      return failed;
    if (StoreOutcome failed = keeper_->check())
      return failed;
    is_checked_ = true;
  }
  const int64_t limit = urgency == StoreFlusher::Urgency::kSessionEnd ? kLogSessionEndBytes : kLogRestartBytes;
  // A new store's file has never been synced itself; writing the log back does that.
  if (fresh || log_bytes >= limit)
    return restartLog(urgency, generation);
  // A flush may have been requested although nothing was committed.
  if (!is_first && synced_commits_ != commits) {
    if (StoreOutcome failed = keeper_->syncLog())
      return failed;
  }
  synced_commits_ = commits;
  return std::nullopt;
}

StoreOutcome SqliteStore::renewKeeper(uint64_t generation) {
  if (keeper_ != nullptr && keeper_generation_ == generation)
    return std::nullopt;
  keeper_.reset();
  std::unique_ptr<StoreLogKeeper> keeper;
  if (StoreOutcome failed = StoreLogKeeper::open(options_.place, keeper))
    return failed;
  // SQLite does this for logs that it creates. A log created by an earlier process and never synced, and the file next
  // to it, may still have no name on the disk.
  if (StoreOutcome failed = options_.place.files->syncFolder(options_.place.folder))
    return failed;
  keeper_ = std::move(keeper);
  keeper_generation_ = generation;
  written_back_ = 0;
  is_checked_ = false;
  return std::nullopt;
}

// Writing back happens at the same time as commits. Only if no commit came in between, which is so unless they come
// without a pause, is the log restarted, with commits held off: that is at most one disk sync.
StoreOutcome SqliteStore::restartLog(StoreFlusher::Urgency urgency, uint64_t generation) {
  bool is_over = false;
  for (int round = 0; round < kCatchUpRounds && !is_over; ++round) {
    {
      const std::lock_guard lock(commit_mutex_);
      if (generation != generation_ || database_ == nullptr)
        return std::nullopt;
      if (StoreOutcome failed = holdLog())
        return failed;
    }
    if (StoreOutcome failed = writeBack())
      return failed;
    const std::lock_guard lock(commit_mutex_);
    if (generation != generation_ || database_ == nullptr)
      return std::nullopt;
    database_->setSynced();
    if (StoreOutcome failed = restartWhileHeld(urgency, is_over))
      return failed;
  }
  return shortenLog(generation);
}

/// Holds commit_mutex_. A log that is completely written back is held already.
StoreOutcome SqliteStore::holdLog() {
  return written_back_ == database_->framesInLog() ? std::nullopt : keeper_->hold();
}

StoreOutcome SqliteStore::writeBack() {
  const auto begin = flusher_->now();
  int frames = 0;
  if (StoreOutcome failed = keeper_->writeBack(frames))
    return failed;
  // If there is nothing to write, the time says nothing about the disk.
  if (std::exchange(written_back_, frames) != frames)
    is_disk_quick_ = flusher_->now() - begin <= kMaxHeldTime;
  return std::nullopt;
}

/// Holds commit_mutex_.
StoreOutcome SqliteStore::restartWhileHeld(StoreFlusher::Urgency urgency, bool& is_over) {
  const int64_t log_bytes = database_->logBytes();
  const bool is_past_most = log_bytes > options_.log_most_bytes;
  const auto is_whole = [this] { return written_back_ == database_->framesInLog(); };
  is_over = is_whole();
  if (is_over && !is_disk_quick_ && urgency != StoreFlusher::Urgency::kSessionEnd && !is_past_most)
    return std::nullopt;
  if (!is_over) {
    if (!is_past_most && (!is_disk_quick_ || log_bytes <= options_.log_hard_bytes))
      return std::nullopt;
    is_over = true;
    if (StoreOutcome failed = keeper_->hold())
      return failed;
    if (StoreOutcome failed = writeBack())
      return failed;
    if (!is_whole())
      return std::nullopt;
  }
  keeper_->letGo();
  written_back_ = 0;
  return database_->restartLog();
}

/// A longer log that was restarted is truncated in pieces: a commit waits for one of them.
StoreOutcome SqliteStore::shortenLog(uint64_t generation) {
  for (bool is_short = false; !is_short;) {
    letCommitGoFirst();
    const std::lock_guard lock(commit_mutex_);
    // The length of an earlier process's log is unknown before the first commit.
    if (generation != generation_ || database_ == nullptr || database_->framesInLog() == 0)
      return std::nullopt;
    if (StoreOutcome failed = keeper_->cutLog(database_->logBytes(), is_short))
      return failed;
  }
  return std::nullopt;
}

/// With the mutex alone, this thread could take it again and again while a commit waits.
void SqliteStore::letCommitGoFirst() {
  std::unique_lock lock(round_mutex_);
  const uint64_t round = round_;
  round_ended_.wait(lock, [this, round] { return !is_round_running_ || round_ != round; });
}

void SqliteStore::tellFlushed(const StoreOutcome& failed) {
  if (failed) {
    if (std::exchange(sync_trouble_told_, true))
      return;
    tell(
        "Morvik host: the store \"%@\" cannot be synced to the disk (%@). A power cut would lose what was written since; "
        "it is tried again with the next writes: free some space, or check the disk.",
        {options_.place.path(), failed->message});
    return;
  }
  if (!std::exchange(sync_trouble_told_, false))
    return;
  tell("Morvik host: the store \"%@\" can be synced to the disk again.", {options_.place.path()});
}

}  // namespace morvik::host
