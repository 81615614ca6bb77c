#include "runtime/ledger/ledger_book.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "kit/continued_list.h"
#include "runtime/invariant.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;

constexpr const char* kLedgerOperation = "-[MorvikCoreLedger]";

}  // namespace

/// Holds the book, with the setters' notes taken in.
class LedgerBook::Hold {
 public:
  explicit Hold(LedgerBook& book) : lock_(book.mutex_) { book.takeNotes(); }

 private:
  const std::scoped_lock<kit::Mutex> lock_;
};

// ---------------------------------------------------------------------------------------------------------- beginning

LedgerBook::LedgerBook(const LedgerParts& parts)
    : store_(parts.store),
      logger_(parts.logger),
      door_(parts.list_lock.door),
      stored_(parts.store),
      written_(parts.store.get(kLedgerKey)),
      accounts_(written_, stored_.recordedUnwritten()),
      is_unavailable_(parts.store.opening() == StoreOpening::kUnavailable),
      trail_(parts.store, parts.clock) {
  const Hold hold(*this);
  accounts_.bringInLineWith({.stored = stored_.counts(), .is_first = written_.isAbsent()});
  writeBook();
}

morvik::Ledger LedgerBook::read() {
  const Hold hold(*this);
  takeChangesFromElsewhere();
  takeRefusals();
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  return accounts_.toLedger(stored_.counts());
}

LedgerMoments::Moment LedgerBook::momentNow() {
  const Hold hold(*this);
  takeChangesFromElsewhere();
  return moments_->begin(stored_.count(Kind::kActivities), stored_.count(Kind::kImpressions));
}

LedgerMoments::Left LedgerBook::left(LedgerMoments::Moment moment) {
  const Hold hold(*this);
  takeChangesFromElsewhere();
  return moments_->left(moment);
}

// ---------------------------------------------------------------------------------------- what others did to the store

/// A dying process appends its report without the book.
void LedgerBook::takeChangesFromElsewhere() {
  takeInWhatRecovered();
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    if (static_cast<Kind>(kind) != Kind::kDemographics)
      takeListFromElsewhere(static_cast<Kind>(kind));
  }
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  accounts_.record(Kind::kDemographics, stored_.lookAgainAtDemographics().more);
}

/// Activities and impressions are counted where they are recorded, and looked for in the list.
void LedgerBook::takeListFromElsewhere(Kind kind) {
  LedgerStored::Growth growth;
  uint64_t announced = 0;
  {
    const std::scoped_lock door(door_);
    announced = std::exchange(announced_[indexOf(kind)], 0);
    growth = stored_.lookAgainAtList(kind);
  }
  accounts_.recordUnwritten(kind, announced);
  const uint64_t beyond = growth.more - std::min(growth.more, announced);
  if (kind == Kind::kActivities && !is_unavailable_)
    accounts_.recordUncounted(kind, beyond);
  else
    accounts_.record(kind, beyond);  // a dying process's, another module's, or of a file that was recovered
  accounts_.giveUp(kind, Reason::kMissing, growth.fewer);
  if (growth.fewer > 0)
    moments_->listWasCut(kind, stored_.count(kind));
  else if (growth.before.size() > 0 && !stored_.list(kind).array()[0].identicalTo(growth.before.array()[0]))
    moments_->listRecovered(kind, growth.more);
}

/// The book in the file counts: it is another part of the same account, that of earlier processes. A file without a
/// book only brings lists, which are taken in like other changes from outside.
void LedgerBook::takeInWhatRecovered() {
  if (!is_unavailable_)
    return;
  const kit::Value earlier = store_.get(kLedgerKey);
  if (earlier.identicalTo(written_))
    return;
  is_unavailable_ = false;
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  const auto announced = std::exchange(announced_, {});
  const DemographicSets sets = DemographicSets::from(store_.get(kDemographicSetsKey));
  LedgerAccounts::Found found = stored_.lookAgainInTheLight();
  for (size_t kind = 0; kind < kLedgerKinds; ++kind)
    moments_->listRecovered(static_cast<Kind>(kind), found.stored[kind]);
  for (const Kind kind : {Kind::kActivities, Kind::kImpressions}) {
    accounts_.recordUnwritten(kind, announced[indexOf(kind)]);
    uint64_t& stored = found.stored[indexOf(kind)];
    stored -= std::min(stored, announced[indexOf(kind)]);
  }
  LedgerAccounts accounts(earlier, {.activities = found.stored[indexOf(Kind::kActivities)],
                                    .impressions = found.stored[indexOf(Kind::kImpressions)],
                                    .demographics = sets,
                                    .demographics_waiting = found.stored[indexOf(Kind::kDemographics)]});
  accounts.bringInLineWith(found);
  accounts_.add(accounts);
}

void LedgerBook::storeRecovered() {
  const Hold hold(*this);
  takeChangesFromElsewhere();
  is_unavailable_ = false;
  trail_.takeOver();
  writeBook();
}

// ------------------------------------------------------------------------------------------------- what comes and goes

void LedgerBook::set(std::string_view key, kit::Value value, LedgerWriter writer) {
  const LedgerKey of = ledgerKeyOf(key);
  switch (of.part) {
    case LedgerKey::Part::kNone:
      store_.set(key, std::move(value));
      return forgetTrailBy(key);
    case LedgerKey::Part::kList:
      return setListKey(of, key, nullptr, std::move(value), writer);
    case LedgerKey::Part::kDemographic:
      return setDemographic(key, of.slot, value, writer);
  }
}

/// In the commit of the wish: explain() knows nothing more of what was sent before it.
void LedgerBook::forgetTrailBy(std::string_view key) noexcept {
  if (key != services::property::MorvikCoreUserInfo_isGDPRForgetMe)
    return;
  const std::scoped_lock hold(mutex_);
  trail_.forgetIfWished();
}

void LedgerBook::replace(std::string_view key, const kit::Value& before, kit::Value after, LedgerWriter writer) {
  const LedgerKey of = ledgerKeyOf(key);
  if (of.part == LedgerKey::Part::kList)
    return setListKey(of, key, &before, std::move(after), writer);
  store_.replace(key, before, std::move(after));
}

/// The list may grow at its end meanwhile: newer elements stay behind the new value.
void LedgerBook::setListKey(const LedgerKey& of, std::string_view key, const kit::Value* before, kit::Value value,
                            LedgerWriter writer) {
  kit::Value known;  // destroyed once the mutex is free: may be the last handle of a long list
  const Hold hold(*this);
  takeInWhatRecovered();
  takeListFromElsewhere(of.kind);
  known = stored_.list(of.kind);
  if (before != nullptr)
    value = kit::continuedList(*before, known, std::move(value));
  const LedgerAccounts accounts_before = accounts_;
  const uint64_t unclaimed_before = unclaimed_.count();
  try {
    setList(of.kind, value, writer);
    const std::scoped_lock door(door_);
    takeNotesAtTheDoor();
    writeAtTheDoor(key, kit::continuedList(known, store_.get(key), std::move(value)));
  } catch (...) {
    // Without memory the store keeps the previous list. What a request carries is already counted there.
    if (unclaimed_.count() == unclaimed_before) {
      stored_.setList(of.kind, known);
      accounts_.takeBack(of.kind, accounts_before);
    }
    told_[indexOf(of.kind)].clear();
    given_up_ids_.clear();
    throw;
  }
}

/// What was told of it is used up.
void LedgerBook::setList(Kind kind, const kit::Value& value, LedgerWriter writer) {
  const kit::Array before = stored_.list(kind).array();
  const kit::Array after = value.array();
  if (rewritten_ == kind && writer == LedgerWriter::kKit && before.size() == after.size()) {
    stored_.setList(kind, value);
    return;
  }
  const ListChange change = changeBetween(before, after);
  if (!change.removed.empty()) {
    remove(kind, before, change, writer);
    leaveTrailOfGivenUp();
    moments_->listShrank(kind, change);
  }
  add(kind, after, change.added, writer);
  if (writer == LedgerWriter::kKit)
    told_[indexOf(kind)].clear();
  stored_.setList(kind, value);
}

void LedgerBook::remove(Kind kind, const kit::Array& before, const ListChange& change, LedgerWriter writer) {
  LedgerTold& told = told_[indexOf(kind)];
  kit::Array::Iterator record = before.begin();
  for (const ElementRange& range : change.removed) {
    record += range.first - record.index();
    for (size_t i = 0; i < range.count; ++i, ++record) {
      const Reason reason = writer == LedgerWriter::kHand ? Reason::kByHand : told.reasonOf(*record);
      removeOne(kind, *record, range.first + i, reason);
    }
  }
}

/// An accepted request delivers what it carries, whatever else is said of it.
void LedgerBook::removeOne(Kind kind, const kit::Value& record, size_t index, Reason told) {
  if (told == Reason::kNotKept)
    return accounts_.unrecord(kind, 1);
  if (told != Reason::kUnexplained) {
    if (const LedgerTicketState* accepted = tickets_.acceptedCarrier(kind, record))
      return credit(kind, *accepted, 1);
    if (told == Reason::kAnswered && has_lost_tickets_)
      return accounts_.deliver(kind, 1);
  }
  const std::vector<kit::LedgerTicket> carriers = tickets_.carriers(kind, record);
  Reason reason = told == Reason::kAnswered ? Reason::kUnexplained : told;
  if (kind == Kind::kImpressions && reason == Reason::kAddedDuringUpload && !carriers.empty())
    reason = Reason::kPlaceTaken;
  noteWhetherBroken(kind, reason);
  if (kind == Kind::kActivities)
    noteGivenUp(reason, record["activityEventID"]);
  giveUp(kind, reason, moments_->firstAfter(kind, index), carriers);
}

void LedgerBook::add(Kind kind, const kit::Array& after, size_t added, LedgerWriter writer) {
  const size_t told = writer == LedgerWriter::kHand ? added : told_[indexOf(kind)].added();
  const size_t untold = added - std::min(added, told);
  recordUntold(kind, untold);
  accounts_.record(kind, told - std::min(told, added));  // one that never reaches the list is missed
  if (kind != Kind::kReEngagementClicks)
    return accounts_.record(kind, added - untold);
  for (size_t index = after.size() - added + untold; index < after.size(); ++index)
    addClick(after[index], writer);
}

void LedgerBook::recordUntold(Kind kind, uint64_t count) {
  if (kind == Kind::kImpressions)
    return accounts_.record(kind, count);
  accounts_.recordUncounted(kind, count);
  if (count > 0)
    kinds_come_untold_ |= uint32_t{1} << indexOf(kind);
}

/// The click that a failed request leaves behind is the newest one, whichever request failed. It may still be under
/// way, or be counted as delivered already; then it was recorded once more.
void LedgerBook::addClick(const kit::Value& click, LedgerWriter writer) {
  if (writer == LedgerWriter::kKit && tickets_.noteStoredClick(click))
    accounts_.endUnderWay(Kind::kReEngagementClicks, 1);
  else
    accounts_.record(Kind::kReEngagementClicks, 1);
}

/// What an answer changes waits for the book. An app's setter does not: if the book is in use, it leaves a note and
/// stores with the value how many were set, so that a crash loses no count.
void LedgerBook::setDemographic(std::string_view key, size_t slot, const kit::Value& value, LedgerWriter writer) {
  const Reason reason = takeTold(slot, value, writer);
  const bool is_setter = reason == Reason::kReplaced || reason == Reason::kTakenBack;
  std::unique_lock hold(mutex_, std::defer_lock);
  if (!is_setter)
    hold.lock();
  else if (!hold.try_lock() && leaveNote(key, slot, value, reason))
    return;
  if (!hold.owns_lock())
    hold.lock();
  takeInWhatRecovered();
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  const LedgerStored::Demographics before = stored_.demographics();
  const LedgerAccounts accounts_before = accounts_;
  const uint64_t unclaimed_before = unclaimed_.count();
  try {
    takeNote({slot, stored_.setDemographic(slot, value), reason});
    writeAtTheDoor(key, value);
  } catch (...) {
    // Without memory the store keeps the previous value. One that a request carries is already counted there.
    if (unclaimed_.count() == unclaimed_before) {
      stored_.takeBack(before);
      accounts_ = accounts_before;
    }
    throw;
  }
}

LedgerReason LedgerBook::takeTold(size_t slot, const kit::Value& value, LedgerWriter writer) {
  if (writer == LedgerWriter::kHand)
    return Reason::kByHand;
  const std::scoped_lock door(door_);
  return told_values_.take(slot, LedgerStored::isPending(slot, value));
}

/// False: no room for another note.
bool LedgerBook::leaveNote(std::string_view key, size_t slot, const kit::Value& value, Reason reason) {
  const std::scoped_lock door(door_);
  if (notes_.size() >= kMaxLedgerNotes)
    return false;
  const LedgerStored::Demographics before = stored_.demographics();
  const size_t notes_before = notes_.size();
  try {
    notes_.push_back({slot, stored_.setDemographic(slot, value), reason});
    std::array<StoreWrite, 2> writes{
        {{key, value}, {kDemographicSetsKey, stored_.recordedUnwritten().demographics.toValue()}}};
    store_.setTogether(writes);
  } catch (...) {
    notes_.resize(notes_before);
    stored_.takeBack(before);
    throw;
  }
  has_notes_ = true;
  return true;
}

void LedgerBook::takeNotes() {
  if (!has_notes_)
    return;
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
}

void LedgerBook::takeNotesAtTheDoor() {
  for (const Note& note : notes_)
    takeNote(note);
  notes_.clear();
  has_notes_ = false;
}

void LedgerBook::takeNote(const Note& note) {
  if (note.replaced.is_pending && note.reason == Reason::kUnexplained)
    recordUntold(Kind::kDemographics, 1);
  else if (note.replaced.is_pending)
    accounts_.record(Kind::kDemographics, 1);
  if (note.replaced.version == 0)
    return;
  if (const LedgerTicketState* accepted = tickets_.acceptedCarrierOfValue(note.slot, note.replaced.version))
    return credit(Kind::kDemographics, *accepted, 1);
  noteWhetherBroken(Kind::kDemographics, note.reason);
  giveUp(Kind::kDemographics, note.reason, 0, tickets_.carriersOfValue(note.slot, note.replaced.version));
}

/// Of the values that wait, which of them these are.
std::array<uint64_t, kDemographicValues> LedgerBook::versionsOf(const kit::Array& demos) {
  std::array<uint64_t, kDemographicValues> versions{};
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  for (const kit::Value& demo : demos) {
    const std::optional<size_t> slot = LedgerStored::slotOf(demo["demo_key"].string());
    if (slot && store_.get(LedgerStored::keyOf(*slot)) == demo["demo_value"])
      versions[*slot] = stored_.versions()[*slot];
  }
  return versions;
}

// ------------------------------------------------------------------------------------------------------- what is told

/// Activities and impressions at the door, which is held.
void LedgerBook::recorded(Kind kind, size_t count) noexcept {
  if (LedgerMoments::follows(kind)) {
    announced_[indexOf(kind)] += count;
    return;
  }
  const std::scoped_lock hold(mutex_);
  told_[indexOf(kind)].added(count);
}

void LedgerBook::removed(Kind kind, const kit::Array& which, Reason reason) noexcept {
  const std::scoped_lock hold(mutex_);
  told_[indexOf(kind)].removed(which, reason);
}

void LedgerBook::recorded(kit::DemographicValue value) noexcept {
  removed(value, Reason::kReplaced);
}

void LedgerBook::removed(kit::DemographicValue value, Reason reason) noexcept {
  const std::scoped_lock door(door_);
  told_values_.changes(static_cast<size_t>(value), reason);
}

/// What cannot be followed, for want of memory or since too many are under way, is taken at its word when it is
/// answered.
kit::LedgerTicket LedgerBook::carries(const kit::LedgerLoad& load) noexcept {
  const std::scoped_lock hold(mutex_);
  try {
    takeNotes();
    takeInWhatRecovered();
    LedgerTicketState state{.kind = load.kind, .is_only_copy = load.is_only_copy};
    if (load.kind == Kind::kDemographics) {
      state.values = versionsOf(load.records);
    } else {
      state.records = CarriedRecords(load.kind, load.records);
      state.impressions = CarriedRecords(Kind::kImpressions, load.impressions);
    }
    const size_t alone = load.is_only_copy ? load.records.size() : 0;
    const kit::LedgerTicket ticket = tickets_.begin(std::move(state));
    if (ticket == 0) {
      has_lost_tickets_ = true;
      return 0;
    }
    if (load.kind == Kind::kActivities)
      tickets_.find(ticket)->trail_number = trail_.begun(load.records);
    accounts_.record(load.kind, alone);
    accounts_.beginUnderWay(load.kind, alone);
    writeBook();
    return ticket;
  } catch (...) {
    has_lost_tickets_ = true;
    return 0;
  }
}

void LedgerBook::answered(kit::LedgerTicket ticket, kit::LedgerAnswer answer) noexcept {
  const std::scoped_lock hold(mutex_);
  LedgerTicketState* state = tickets_.find(ticket);
  if (state == nullptr || state->answer)
    return;
  state->answer = answer;
  settle(ticket, *state);
}

void LedgerBook::lost(kit::LedgerTicket ticket, Reason reason) noexcept {
  const std::scoped_lock hold(mutex_);
  if (LedgerTicketState* state = tickets_.find(ticket))
    state->lost = reason;
}

void LedgerBook::departed(kit::LedgerTicket ticket) noexcept {
  const std::scoped_lock hold(mutex_);
  if (LedgerTicketState* state = tickets_.find(ticket))
    state->left = trail_.now();
}

/// Without memory it leaves no trail.
void LedgerBook::noteGivenUp(Reason reason, const kit::Value& event_id) noexcept {
  try {
    given_up_ids_[reason].append(event_id);
  } catch (...) {
  }
}

void LedgerBook::leaveTrailOfGivenUp() noexcept {
  for (auto& [reason, ids] : given_up_ids_) {
    if (ids.size() > 0)
      trail_.givenUp(reason, kit::Value(std::move(ids)).array());
  }
  given_up_ids_.clear();
}

void LedgerBook::leaveTrail(const LedgerTicketState& state, const kit::LedgerEnd& end) noexcept {
  const TrailOutcome outcome = !end.was_sent        ? TrailOutcome::kNotSent
                               : state.isAccepted() ? TrailOutcome::kAccepted
                               : end.error.empty()  ? TrailOutcome::kNotAccepted
                                                    : TrailOutcome::kFailed;
  trail_.ended({.number = state.trail_number,
                .outcome = outcome,
                .left = state.left,
                .status_code = end.status_code,
                .error = end.error});
}

/// Only the handles are taken under the lock.
Explanation LedgerBook::explain(std::string_view event_id) {
  kit::Value trail;
  kit::Value activities;
  {
    const Hold hold(*this);
    trail_.forgetIfWished();
    trail = trail_.read();
    activities = store_.get(services::property::fendoActivityInfos);
  }
  return runtime::explain(trail, activities, event_id, trail_.now());
}

void LedgerBook::ended(kit::LedgerTicket ticket, const kit::LedgerEnd& end) noexcept {
  const std::scoped_lock hold(mutex_);
  LedgerTicketState* state = tickets_.find(ticket);
  if (state == nullptr)
    return;
  if (!state->answer) {
    state->answer = kit::LedgerAnswer::kNotAccepted;
    settle(ticket, *state);
  }
  if (state->is_only_copy) {
    const uint64_t count = state->records.size();
    const Reason reason = end.was_sent ? state->lost : Reason::kForgotten;
    accounts_.endUnderWay(state->kind, count);
    noteWhetherBroken(state->kind, reason);
    accounts_.giveUp(state->kind, reason, count);
  }
  leaveTrail(*state, end);
  tickets_.end(ticket);
  writeBookIfItCan();
}

/// What left its list while this request carried it.
void LedgerBook::settle(kit::LedgerTicket ticket, LedgerTicketState& state) noexcept {
  const bool is_accepted = state.isAccepted();
  if (is_accepted && state.is_only_copy) {
    accounts_.endUnderWay(state.kind, state.records.size());
    credit(state.kind, state, state.records.size());
    state.is_only_copy = false;
  }
  std::vector<LedgerUnclaimed::Settled> all;
  try {
    all = unclaimed_.settle(ticket, is_accepted);
  } catch (...) {
    return;  // without memory they stay under way until the process ends
  }
  for (const LedgerUnclaimed::Settled& settled : all) {
    accounts_.endUnderWay(settled.kind, settled.count);
    moments_->wasSettled(settled.kind, settled.first_after, settled.count,
                         !is_accepted && LedgerMoments::isLoss(settled.reason));
    if (is_accepted)
      credit(settled.kind, state, settled.count);
    else
      accounts_.giveUp(settled.kind, settled.reason, settled.count);
  }
}

CarriedLoad LedgerBook::loadOf(kit::LedgerTicket ticket) {
  const std::scoped_lock hold(mutex_);
  const LedgerTicketState* state = tickets_.find(ticket);
  if (state == nullptr)
    return {};
  const kit::Array& records = state->records.records();
  if (state->kind == Kind::kActivities)
    return {.activities = records.size(), .first_event_id = records[0]};
  return {.click = state->kind == Kind::kReEngagementClicks ? records[0] : kit::Value()};
}

LedgerBook::Rewriting::Rewriting(LedgerBook& book, Kind kind) : book_(book) {
  const std::scoped_lock hold(book_.mutex_);
  book_.rewritten_ = kind;
}

LedgerBook::Rewriting::~Rewriting() {
  const std::scoped_lock hold(book_.mutex_);
  book_.rewritten_.reset();
}

void LedgerBook::wasRefused(Recorded reason) {
  const auto* row = std::find(kLedgerRefusals.begin(), kLedgerRefusals.end(), reason);
  if (row != kLedgerRefusals.end())
    ++refusals_[static_cast<size_t>(row - kLedgerRefusals.begin())];
}

void LedgerBook::takeRefusals() {
  LedgerRefusals counts{};
  for (size_t row = 0; row < counts.size(); ++row)
    counts[row] = refusals_[row].exchange(0);
  accounts_.refuse(counts);
}

void LedgerBook::writeAtTheEnd() {
  const Hold hold(*this);
  for (const auto& [ticket, state] : tickets_.all())
    trail_.ended({.number = state.trail_number, .outcome = TrailOutcome::kAbandoned, .left = state.left});
  takeChangesFromElsewhere();
  takeRefusals();
  if (accounts_.hasUnwrittenRefusals())
    accounts_.touch();
  writeBook();
  tickets_.abandon();
}

// ------------------------------------------------------------------------------------------------ counting and writing

/// Counts it now, or only once no request that carries it is accepted.
void LedgerBook::giveUp(Kind kind, Reason reason, LedgerMoments::Moment first_after,
                        const std::vector<kit::LedgerTicket>& carriers) {
  if (carriers.empty()) {
    if (LedgerMoments::isLoss(reason))
      moments_->wasLost(kind, first_after, 1);
    return accounts_.giveUp(kind, reason, 1);
  }
  accounts_.beginUnderWay(kind, 1);
  moments_->wentUnderWay(kind, first_after, 1);
  unclaimed_.add(kind, reason, first_after, carriers);
}

void LedgerBook::credit(Kind kind, const LedgerTicketState& state, uint64_t by) {
  if (const auto reason = state.emptyAcceptance())
    accounts_.giveUp(kind, *reason, by);
  else
    accounts_.deliver(kind, by);
}

void LedgerBook::noteWhetherBroken(Kind kind, Reason reason) {
  if (reason == Reason::kUnexplained)
    kinds_gone_untold_ |= uint32_t{1} << indexOf(kind);
}

void LedgerBook::writeBook() {
  if (!accounts_.isChanged())
    return;
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  writeAtTheDoor({}, {});
}

/// Without memory it is written with the next change.
void LedgerBook::writeBookIfItCan() noexcept {
  try {
    takeNotes();
    writeBook();
  } catch (...) {
  }
}

/// In one transaction: the value, if any, and the changes in the book.
void LedgerBook::writeAtTheDoor(std::string_view key, kit::Value value) {
  std::array<StoreWrite, 2> writes;
  size_t count = 0;
  if (!key.empty())
    writes[count++] = {key, std::move(value)};
  kit::Value written = written_;
  if (accounts_.isChanged()) {
    takeRefusals();
    written = accounts_.write(stored_.recordedUnwritten());
    writes[count++] = {kLedgerKey, written};
  }
  store_.setTogether({writes.data(), count});
  written_ = std::move(written);
}

void LedgerBook::tellBroken() {
  if (const size_t dropped = trail_.takeDropped(); dropped > 0) {
    MORVIK_LOG(logger_, kit::lcl_vWarning, kLedgerOperation,
               "Morvik host: %lu entries about the latest exchanges are damaged in the store and were dropped: "
               "explain() knows less, and nothing else is affected",
               dropped);
  }
  tellBroken(kinds_gone_untold_, "records went that no rule gives up");
  tellBroken(kinds_come_untold_, "records came that nobody recorded");
}

void LedgerBook::tellBroken(std::atomic<uint32_t>& which, const char* what) {
  if (which.load(std::memory_order_relaxed) == 0)
    return;
  const uint32_t kinds = which.exchange(0);
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    if ((kinds & uint32_t{1} << kind) != 0)
      invariantBroken(logger_, kLedgerOperation, std::string(what) + " (" + kLedgerKindNames[kind] + ")");
  }
}

}  // namespace morvik::runtime
