#include "runtime/privacy/wish_store.h"

#include <algorithm>

#include "services/MorvikGVUserDefaults.h"

namespace morvik::runtime {
namespace {

constexpr std::string_view kWishKey = services::property::MorvikCoreUserInfo_isGDPRForgetMe;
constexpr std::string_view kWishSyncedKey = services::property::MorvikCoreUserInfo_isGDPRForgetMeServerSynced;
constexpr const char* kWishOperation = "-[MorvikCore gdprForgetMe:]";

bool saysForgotten(const kit::Value& value) {
  return value.isBoolean() && value.boolean();
}

/// The content of the store's file is known; otherwise the store only has what this process was told.
bool isRead(StoreOpening opening) {
  return opening == StoreOpening::kOpened || opening == StoreOpening::kCreated || opening == StoreOpening::kSetAside;
}

bool isOurs(StoreOpening opening) {
  return opening != StoreOpening::kLocked && opening != StoreOpening::kNothingToRead;
}

}  // namespace

WishStore::WishStore(MachineStore& store, MachineWishFile* file, const services::Logger& logger)
    : PassingStore(store), file_(isOurs(store.opening()) ? file : nullptr), logger_(logger) {
  if (file_ == nullptr)
    return;
  takeReading(file_->read());
  WishStore::setWhenTakenOver({});
  WishStore::setWhenFlushed({});
}

WishStore::~WishStore() {
  if (file_ == nullptr)
    return;
  WishStore::shutdown();  // from now on the store's thread calls nothing of this
  store_.setWhenTakenOver({});
  store_.setWhenFlushed({});
}

// ---------------------------------------------------------------------------------------------------------- the start

/// Its flag is the one in the file on the disk, except for what this process was told.
bool WishStore::knowsTheStore() const {
  return isRead(opening()) || has_recovered_;
}

void WishStore::takeReading(const Reading& reading) {
  const bool is_stored = saysForgotten(store_.get(kWishKey));
  Doubt doubt = Doubt::kNone;
  bool is_forgotten = false;
  {
    const std::scoped_lock hold(mutex_);
    doubt = startFrom(reading, is_stored);
    is_forgotten = wanted_ == true;
  }
  if (is_forgotten)
    setForgotten();
  doubt_ = doubt;  // last: a reader sees either the flag or the doubt
}

WishStore::Doubt WishStore::startFrom(const Reading& reading, bool is_stored) {
  problem_ = reading.problem;
  switch (reading.state) {
    case MachineWishFile::State::kRead:
      file_->goOnFrom(reading);
      want(reading.is_forgotten);
      written_ = generation_;
      // It could not be written when the store was.
      if (!reading.is_forgotten && is_stored)
        want(true);
      break;
    case MachineWishFile::State::kMissing:
      is_missing_ = true;
      if (knowsTheStore())
        want(is_stored);
      break;
    case MachineWishFile::State::kNotRead:
      ++readings_due_;
      waiting_lines_.push_back(Line::kNotRead);
      return Doubt::kUntilRead;
    case MachineWishFile::State::kUnreadable:
      waiting_lines_.push_back(Line::kUnreadable);
      return Doubt::kUntilTold;
  }
  committed_ = generation_;
  is_behind_ = written_ != generation_;
  return Doubt::kNone;
}

/// The store follows the file. If it said something else, nobody can tell whether the service knows of the wish.
void WishStore::setForgotten() {
  if (saysForgotten(store_.get(kWishKey)))
    return;
  store_.set(kWishKey, true);
  if (knowsTheStore())
    store_.set(kWishSyncedKey, false);
}

/// Within a commit. This process's own wish and the file's wish take precedence over the recovered flag.
void WishStore::storeRecovered() {
  has_recovered_ = true;
  const bool stored = saysForgotten(store_.get(kWishKey));
  const std::scoped_lock hold(mutex_);
  if (!is_told_)
    ++readings_due_;  // until now another process had the lock, or may have had it
  if (doubt_ != Doubt::kNone || wanted_ == stored)
    return;
  want(stored);
  committed_ = generation_;
}

// ------------------------------------------------------------------------------------------------- the file, once more

/// On the store's thread. The reading is taken where the flag is set, so that it undoes no wish.
void WishStore::readAgain() {
  uint64_t due = 0;
  {
    const std::scoped_lock hold(mutex_);
    due = readings_due_;
    if (due == readings_done_)
      return;
  }
  Reading reading = file_->read();
  if (reading.state == MachineWishFile::State::kNotRead)
    return;
  {
    const std::scoped_lock hold(mutex_);
    readings_done_ = due;
    read_again_ = std::move(reading);
  }
  const std::scoped_lock hold(hook_mutex_);
  if (when_read_again_)
    when_read_again_();
}

bool WishStore::isToBeReadAgain() const {
  const std::scoped_lock hold(mutex_);
  return readings_due_ != readings_done_;
}

void WishStore::setWhenReadAgain(kit::Block hook) {
  const std::scoped_lock hold(hook_mutex_);
  when_read_again_ = std::move(hook);
}

void WishStore::takeReadAgain() {
  std::optional<Reading> reading;
  {
    const std::scoped_lock hold(mutex_);
    reading = std::exchange(read_again_, std::nullopt);
    if (!reading || is_told_)
      return;
    // Without a doubt, only another process's wish counts, made while that one had the store.
    const bool is_news = reading->state == MachineWishFile::State::kRead && reading->is_forgotten && wanted_ != true;
    if (doubt_ == Doubt::kNone && !is_news)
      return;
    if (doubt_ == Doubt::kUntilRead && reading->state != MachineWishFile::State::kUnreadable)
      waiting_lines_.push_back(Line::kReadAgain);
  }
  takeReading(*reading);
  store_.flushNow();  // creates a missing file and writes what it lacks
}

// ---------------------------------------------------------------------------------------------- what passes through it

/// Forgotten, but nobody knows whether the service accepted it: then saying so again is not a repetition.
std::optional<kit::Value> WishStore::inDoubt(std::string_view key) const {
  if (doubt_ == Doubt::kNone)
    return std::nullopt;
  if (key == kWishKey)
    return kit::Value(true);
  return key == kWishSyncedKey ? std::optional(kit::Value(false)) : std::nullopt;
}

kit::Value WishStore::get(std::string_view key) const {
  auto in_doubt = inDoubt(key);
  return in_doubt ? *std::move(in_doubt) : store_.get(key);
}

std::optional<kit::Value> WishStore::tryGet(std::string_view key) const {
  auto in_doubt = inDoubt(key);
  return in_doubt ? in_doubt : store_.tryGet(key);
}

void WishStore::set(std::string_view key, kit::Value value) {
  if (key != kWishKey || file_ == nullptr)
    return store_.set(key, std::move(value));
  const bool is_forgotten = saysForgotten(value);
  setting(is_forgotten, [&] { store_.set(key, std::move(value)); });
}

void WishStore::replace(std::string_view key, const kit::Value& before, kit::Value after) {
  if (key == kWishKey)
    return set(key, std::move(after));
  store_.replace(key, before, std::move(after));
}

void WishStore::setTogether(std::span<StoreWrite> writes) {
  std::optional<bool> wish;
  for (const StoreWrite& write : writes) {
    if (write.key == kWishKey && file_ != nullptr)
      wish = saysForgotten(write.value);
  }
  if (!wish)
    return store_.setTogether(writes);
  setting(*wish, [&] { store_.setTogether(writes); });
}

/// If the store cannot take a wish (no memory), it does not count: the file must say again what it said before.
template <class Set>
void WishStore::setting(bool is_forgotten, Set set) {
  const std::optional<bool> before = wanted();
  try {
    beforeSet(is_forgotten);
    set();
  } catch (...) {
    const std::scoped_lock hold(mutex_);
    if (before && wanted_ != before) {
      want(*before);
      committed_ = generation_;
    }
    throw;
  }
  afterSet(is_forgotten);
}

std::optional<bool> WishStore::wanted() const {
  const std::scoped_lock hold(mutex_);
  return wanted_;
}

bool WishStore::trySetAndSynchronize(std::string_view key, kit::Value value) {
  return key != kWishKey && store_.trySetAndSynchronize(key, std::move(value));
}

void WishStore::beforeSet(bool is_forgotten) {
  if (!is_forgotten)
    return;
  {
    const std::scoped_lock hold(mutex_);
    if (wanted_ != true)
      wantAgain(true);
  }
  // Under the list lock, so it does not even wait for another process.
  if (writeIfDue(std::chrono::milliseconds(0)))
    store_.flushNow();
}

void WishStore::afterSet(bool is_forgotten) {
  doubt_ = Doubt::kNone;
  const std::scoped_lock hold(mutex_);
  is_told_ = true;
  readings_done_ = readings_due_;
  if (!is_forgotten && wanted_ != false)
    wantAgain(false);
}

/// A new withdrawal is tried here, once and without waiting; everything else is left to the store's thread.
template <class Commit>
bool WishStore::committing(Commit commit) {
  if (!is_behind_)
    return commit();
  uint64_t asked = 0;
  {
    const std::scoped_lock hold(mutex_);
    asked = generation_;
  }
  const bool all_kept = commit();
  bool is_new = false;
  {
    const std::scoped_lock hold(mutex_);
    committed_ = std::max(committed_, asked);
    is_new = is_new_ && wanted_ == false;
  }
  if (is_new && writeIfDue(std::chrono::milliseconds(0)))
    store_.flushNow();
  else if (is_behind_)
    store_.flushSoon();
  return all_kept;
}

bool WishStore::synchronize() {
  const bool all_kept = synchronizeUntold();
  tellWaiting();
  return all_kept;
}

bool WishStore::synchronizeUntold() {
  return committing([this] { return store_.synchronizeUntold(); });
}

bool WishStore::commitTurn() {
  const bool all_kept = committing([this] { return store_.commitTurn(); });
  tellWaiting();
  return all_kept && !isToBeTriedAgain();
}

void WishStore::setWhenTakenOver(kit::Block hook) {
  if (file_ == nullptr)
    return store_.setWhenTakenOver(std::move(hook));
  store_.setWhenTakenOver([this, hook = std::move(hook)] {
    storeRecovered();
    if (hook)
      hook();
  });
}

void WishStore::setWhenFlushed(kit::Block hook) {
  if (file_ == nullptr)
    return store_.setWhenFlushed(std::move(hook));
  store_.setWhenFlushed([this, hook = std::move(hook)] {
    flushed();
    if (hook)
      hook();
  });
}

void WishStore::beginToEnd() {
  is_ending_ = true;
  store_.beginToEnd();
}

void WishStore::shutdown() {
  is_ending_ = true;
  store_.shutdown();
}

// ------------------------------------------------------------------------------------------------------------ the file

void WishStore::want(bool is_forgotten) {
  wanted_ = is_forgotten;
  ++generation_;
  is_behind_ = true;
  is_new_ = false;
}

/// By the app, now: it supersedes whatever another process has said.
void WishStore::wantAgain(bool is_forgotten) {
  want(is_forgotten);
  is_new_ = true;
}

void WishStore::noteRemoval() {
  is_missing_ = true;
  is_behind_ = true;
  written_ = 0;
  synced_ = 0;
}

/// "Forgotten" is written before the store, "not forgotten" after it.
bool WishStore::mayBeWritten() const {
  return wanted_ && written_ != generation_ && (*wanted_ || committed_ == generation_);
}

/// A missing file that is to say "not forgotten" is created by the store's thread, under another name: half of it would
/// say the opposite.
bool WishStore::isToBeWritten() const {
  return mayBeWritten() && (!is_missing_ || *wanted_);
}

/// True: the store's thread must continue, with a sync or with a waiting attempt. The turn is taken before the mutex.
bool WishStore::writeIfDue(std::chrono::milliseconds longest_wait) {
  {
    const std::scoped_lock hold(mutex_);
    if (!isToBeWritten())
      return false;
  }
  const MachineWishFile::Turn turn = file_->takeTurn(longest_wait);
  const std::scoped_lock hold(mutex_);
  if (!isToBeWritten())
    return false;
  using Word = MachineWishFile::Word;
  const auto error = file_->write(*wanted_, std::exchange(is_new_, false) ? Word::kNew : Word::kAgain, turn);
  if (error && turn.held_up && longest_wait == std::chrono::milliseconds(0))
    return true;  // no problem yet
  noteProblem(error, turn.held_up && !*wanted_ ? Line::kHeldUp : Line::kNotWritten);
  if (error)
    return false;
  is_missing_ = false;
  written_ = generation_;
  is_behind_ = false;
  return true;
}

void WishStore::writeOnceMore() {
  if (is_behind_ && writeIfDue(kMaxWishTurn))
    store_.flushNow();
}

/// Even if nothing else happens on the device. A missing file is created soon, unless there is a problem.
bool WishStore::isToBeTriedAgain() const {
  if (!is_behind_)
    return false;
  const std::scoped_lock hold(mutex_);
  return mayBeWritten() && (is_trouble_told_ || !is_missing_);
}

/// On the store's thread.
void WishStore::flushed() {
  readAgain();
  noticeRemoval();
  if (!sync())
    sync();
}

/// A file that was written, synced and then removed is created again: the store as the only copy is one too few. What
/// is deleted around the end of the kit stays deleted.
void WishStore::noticeRemoval() {
  if (is_ending_)
    return;
  uint64_t generation = 0;
  {
    const std::scoped_lock hold(mutex_);
    generation = generation_;
    if (is_missing_ || !wanted_ || written_ != generation)
      return;
  }
  if (file_->isThere())
    return;
  const std::scoped_lock hold(mutex_);
  if (!is_missing_ && generation == generation_ && !is_ending_)
    noteRemoval();
}

/// False: the file was removed since it was written, and is to be written again.
bool WishStore::sync() {
  uint64_t generation = 0;
  std::optional<bool> to_make;
  writeIfDue(kMaxWishTurn);
  tellWaiting();
  {
    const std::scoped_lock hold(mutex_);
    if (is_missing_ && mayBeWritten())
      to_make = wanted_;
    generation = to_make ? generation_ : written_;
    if (generation == synced_)
      return true;
  }
  auto error = to_make ? make(*to_make, generation) : std::nullopt;
  const bool is_there = !error;
  if (is_there)
    error = file_->sync();
  bool is_on_disk = false;
  bool is_gone = false;
  {
    const std::scoped_lock hold(mutex_);
    const bool was_removed = error && is_there && !is_missing_ && !file_->isThere();
    is_gone = was_removed && !is_ending_;
    const bool stays_removed = was_removed && !is_gone;
    if (!stays_removed && (error || written_ == generation_))
      noteProblem(error);
    if (!error)
      synced_ = std::max(synced_, std::min(generation, written_));
    is_on_disk = synced_ == generation_;
    if (is_gone)
      noteRemoval();
  }
  tellWaiting();
  const std::scoped_lock hold(hook_mutex_);
  if (is_on_disk && when_on_disk_)
    when_on_disk_();
  return !is_gone;
}

/// Written completely under another name first, so that a power cut cannot leave half a file. A newer wish meanwhile
/// creates the file itself.
std::optional<kit::Error> WishStore::make(bool is_forgotten, uint64_t generation) {
  if (auto error = file_->prepare(is_forgotten))
    return error;
  const std::scoped_lock hold(mutex_);
  if (!is_missing_ || generation != generation_) {
    file_->discard();
    return std::nullopt;
  }
  if (auto error = file_->adopt()) {
    if (!file_->isThere())
      return error;
    // Another process has created one meanwhile: the wish goes into that, with the next flush.
    file_->discard();
    is_missing_ = false;
    store_.flushNow();
    return std::nullopt;
  }
  is_missing_ = false;
  written_ = generation;
  is_behind_ = false;
  return std::nullopt;
}

/// If file and store differ, the user is forgotten: so one of them is enough for a wish, and a withdrawal needs both. A
/// missing file and a store of a newer version say nothing.
bool WishStore::isWishKept(bool is_stored) const {
  if (file_ == nullptr)
    return is_stored;
  const bool is_in_store = is_stored || store_.isKept();
  const std::scoped_lock hold(mutex_);
  const bool is_in_file = wanted_ && written_ == generation_;
  if (wanted_ != false)
    return is_in_file || is_in_store;
  return (is_in_file || is_missing_) && (is_in_store || opening() == StoreOpening::kNewerVersion);
}

bool WishStore::isOnDisk() const {
  const std::scoped_lock hold(mutex_);
  return synced_ == generation_;
}

void WishStore::setWhenOnDisk(kit::Block hook) {
  const std::scoped_lock hold(hook_mutex_);
  when_on_disk_ = std::move(hook);
}

// ------------------------------------------------------------------------------------------------------------- telling

void WishStore::noteProblem(const std::optional<kit::Error>& error, Line line) {
  problem_ = error ? error->message : "";
  if (error.has_value() == is_trouble_told_)
    return;
  is_trouble_told_ = error.has_value();
  waiting_lines_.push_back(error ? line : Line::kWritten);
}

WishFileState WishStore::fileState() const {
  switch (doubt_.load()) {
    case Doubt::kUntilRead:
      return WishFileState::kNotRead;
    case Doubt::kUntilTold:
      return WishFileState::kUnreadable;
    case Doubt::kNone:
      break;
  }
  const std::scoped_lock hold(mutex_);
  return problem_.empty() ? WishFileState::kGood : WishFileState::kNotWritten;
}

std::string WishStore::problem() const {
  const std::scoped_lock hold(mutex_);
  return problem_;
}

void WishStore::tellWaiting() {
  store_.tellWaiting();
  std::vector<Line> lines;
  std::string problem;
  {
    const std::scoped_lock hold(mutex_);
    if (waiting_lines_.empty())
      return;
    lines.swap(waiting_lines_);
    problem = problem_;
  }
  for (const Line line : lines) {
    switch (line) {
      case Line::kUnreadable:
        MORVIK_LOG(logger_, kit::lcl_vError, kWishOperation,
                   "Morvik host: the file \"%@\", which keeps the wish to be forgotten, cannot be read (%@): the user "
                   "counts as forgotten; ask the user again, and call gdprForgetMe() with the answer",
                   file_->path(), problem);
        break;
      case Line::kNotRead:
        MORVIK_LOG(
            logger_, kit::lcl_vError, kWishOperation,
            "Morvik host: the file \"%@\", which keeps the wish to be forgotten, cannot be read at present (%@): "
            "the user counts as forgotten until it can be, and it is tried again; make it readable, or check the "
            "disk",
            file_->path(), problem);
        break;
      case Line::kReadAgain:
        MORVIK_LOG(logger_, kit::lcl_vWarning, kWishOperation,
                   "Morvik host: the file \"%@\", which keeps the wish to be forgotten, can be read again, and what it "
                   "says holds",
                   file_->path());
        break;
      case Line::kNotWritten:
        MORVIK_LOG(logger_, kit::lcl_vError, kWishOperation,
                   "Morvik host: the file \"%@\", which keeps the wish to be forgotten, cannot be written (%@): it is "
                   "tried again; make the folder writable, or free some space",
                   file_->path(), problem);
        break;
      case Line::kHeldUp:
        MORVIK_LOG(logger_, kit::lcl_vError, kWishOperation,
                   "Morvik host: the file \"%@\", which keeps the wish to be forgotten, cannot be written (%@): it is "
                   "tried again; end the other program that keeps the file locked, or wait until it lets go",
                   file_->path(), problem);
        break;
      case Line::kWritten:
        MORVIK_LOG(logger_, kit::lcl_vWarning, kWishOperation,
                   "Morvik host: the file \"%@\", which keeps the wish to be forgotten, can be written again",
                   file_->path());
        break;
    }
  }
}

}  // namespace morvik::runtime
