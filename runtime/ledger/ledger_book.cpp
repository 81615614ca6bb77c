#include "runtime/ledger/ledger_book.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "kit/continued_list.h"
#include "runtime/invariant.h"
#include "services/endpoints.h"

namespace morvik::runtime {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;

constexpr const char* kLedgerOperation = "-[MorvikCoreLedger]";

std::array<std::string, kLedgerEndpoints> urlsOf(const kit::Endpoints& base_urls) {
  std::array<std::string, kLedgerEndpoints> urls;
  for (size_t i = 0; i < urls.size(); ++i)
    urls[i] = services::urlOf(base_urls, kitEndpointOf(static_cast<LedgerEndpoint>(i)));
  return urls;
}

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
      urls_(urlsOf(parts.endpoints)),
      logger_(parts.logger),
      has_hashed_identifier_(parts.has_hashed_identifier),
      door_(parts.list_lock.door),
      stored_(parts.store),
      written_(parts.store.get(kLedgerKey)),
      accounts_(written_, stored_.recordedUnwritten()),
      is_unavailable_(parts.store.opening() == StoreOpening::kUnavailable) {
  const Hold hold(*this);
  accounts_.bringInLineWith({.stored = stored_.counts(), .is_first = written_.isAbsent()});
  writeBook();
}

Ledger LedgerBook::read() {
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

/// Within its handler an exchange has ended, but the book does not show that yet.
LedgerMoments::Left LedgerBook::left(LedgerMoments::Moment moment) {
  const Hold hold(*this);
  takeChangesFromElsewhere();
  LedgerMoments::Left left = moments_->left(moment);
  const LedgerExchange* running = exchanges_.running();
  if (running == nullptr)
    return left;
  const bool is_accepted = running->isAccepted();
  for (const LedgerUnclaimed::Settled& settled : unclaimed_.settledBy(exchanges_.runningId(), is_accepted)) {
    if (!LedgerMoments::follows(settled.kind) || settled.first_after > moment)
      continue;
    left.waiting -= settled.count;
    if (!is_accepted && LedgerMoments::isLoss(settled.reason))
      left.given_up += settled.count;
  }
  return left;
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

/// A recorded activity is counted where it was recorded, and expected in the list. Activities and impressions are
/// recorded without the book.
void LedgerBook::takeListFromElsewhere(Kind kind) {
  LedgerStored::Growth growth;
  uint64_t announced = 0;
  {
    const std::scoped_lock door(door_);
    if (kind == Kind::kActivities)
      announced = std::exchange(announced_activities_, 0);
    growth = stored_.lookAgainAtList(kind);
  }
  accounts_.recordUnwritten(kind, announced);
  if (kind == Kind::kImpressions)
    accounts_.recordUnwritten(kind, growth.more);
  else
    accounts_.record(kind, growth.more - std::min(growth.more, announced));
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
  const uint64_t announced = std::exchange(announced_activities_, 0);
  accounts_.recordUnwritten(Kind::kActivities, announced);
  const DemographicSets sets = DemographicSets::from(store_.get(kDemographicSetsKey));
  LedgerAccounts::Found found = stored_.lookAgainInTheLight();
  for (size_t kind = 0; kind < kLedgerKinds; ++kind)
    moments_->listRecovered(static_cast<Kind>(kind), found.stored[kind]);
  uint64_t& activities = found.stored[indexOf(Kind::kActivities)];
  activities -= std::min(activities, announced);
  LedgerAccounts accounts(earlier, {.activities = activities,
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
  writeBook();
}

// ------------------------------------------------------------------------------------------------- what comes and goes

void LedgerBook::set(std::string_view key, kit::Value value, LedgerWriter writer) {
  const LedgerKey of = ledgerKeyOf(key);
  switch (of.part) {
    case LedgerKey::Part::kNone:
      return store_.set(key, std::move(value));
    case LedgerKey::Part::kList:
      return setListKey(of, key, nullptr, std::move(value), writer);
    case LedgerKey::Part::kDemographic:
      return setDemographic(key, of.slot, value, writer);
    case LedgerKey::Part::kSentKeys:
    case LedgerKey::Part::kSessionEnd:
      break;
  }
  const Hold hold(*this);
  takeInWhatRecovered();
  if (of.part == LedgerKey::Part::kSentKeys)
    noteSentKeys(value);
  else
    noteSessionEnd();
  write(key, std::move(value));
}

void LedgerBook::replace(std::string_view key, const kit::Value& before, kit::Value after, LedgerWriter writer) {
  const LedgerKey of = ledgerKeyOf(key);
  if (of.part == LedgerKey::Part::kList)
    return setListKey(of, key, &before, std::move(after), writer);
  store_.replace(key, before, std::move(after));
}

kit::Value LedgerBook::get(std::string_view key) {
  const LedgerKey of = ledgerKeyOf(key);
  if (of.part != LedgerKey::Part::kDemographic)
    return store_.get(key);
  const std::scoped_lock door(door_);
  noteSeen(of.slot);
  return store_.get(key);
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
  setList(of.kind, value, writer);
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  writeAtTheDoor(key, kit::continuedList(known, store_.get(key), std::move(value)));
}

/// A retry of the newest click is dropped somewhere between here and the end of the block; also for a click built
/// meanwhile.
void LedgerBook::noteSessionEnd() {
  if (!isInBackground())
    return;
  is_session_ending_ = true;
  has_session_ended_since_payload_ = true;
  traces_.is_newest_click_let_go = true;
}

void LedgerBook::noteSentKeys(const kit::Value& keys) {
  traces_.sent_keys = keys.size();
  if (traces_.sent_keys > 0)
    traces_.last_sent_key = keys.array()[traces_.sent_keys - 1];
}

void LedgerBook::setList(Kind kind, const kit::Value& value, LedgerWriter writer) {
  const kit::Array before = stored_.list(kind).array();
  const kit::Array after = value.array();
  const ListChange change = changeBetween(before, after);
  if (wasRewritten(kind, before, after, writer)) {
    stored_.setList(kind, value);
    return;
  }
  if (wasTakenBack(kind, before, change, writer)) {
    accounts_.unrecord(kind, change.removedCount());
  } else if (!change.removed.empty()) {
    remove(departure(kind, writer), before, change);
    exchanges_.listShrank(kind, change);
    moments_->listShrank(kind, change);
  }
  add(kind, after, change.added, writer);
  stored_.setList(kind, value);
}

/// Stored reports whose stacks get names stay the same reports, in order.
bool LedgerBook::wasRewritten(Kind kind, const kit::Array& before, const kit::Array& after, LedgerWriter writer) const {
  if (kind != Kind::kCrashReports || writer != LedgerWriter::kKit || exchanges_.isAnyRunning() || before.empty() ||
      before.size() != after.size())
    return false;
  const auto without_trace = [](const kit::Value& report) {
    kit::MutableDictionary rest(report);
    rest.set("exception_log_trace", "");
    return kit::Value(std::move(rest));
  };
  return std::equal(before.begin(), before.end(), after.begin(), [&](const kit::Value& one, const kit::Value& other) {
    return one.isDictionary() && other.isDictionary() && without_trace(one) == without_trace(other);
  });
}

/// Reports that the store took but could not keep return to where they came from, and come again.
bool LedgerBook::wasTakenBack(Kind kind, const kit::Array& before, const ListChange& change,
                              LedgerWriter writer) const {
  return kind == Kind::kCrashReports && writer == LedgerWriter::kKit && !exchanges_.isAnyRunning() &&
         change.added == 0 && change.removed.size() == 1 && change.removed.front().count == crash_reports_just_added_ &&
         change.removed.front().first + change.removed.front().count == before.size();
}

LedgerDeparture LedgerBook::departure(Kind kind, LedgerWriter writer) {
  LedgerDeparture departure{.kind = kind, .writer = writer, .is_in_background = isInBackground()};
  LedgerExchange* running = writer == LedgerWriter::kKit ? exchanges_.running() : nullptr;
  if (running == nullptr || running->endpoint != ledgerEndpointOf(kind))
    return departure;
  departure.ended = running;
  departure.is_accepted = running->isAccepted();
  return departure;
}

void LedgerBook::remove(LedgerDeparture departure, const kit::Array& before, const ListChange& change) {
  LedgerCarriers carriers(exchanges_, departure.kind, departure.ended);
  departure.leaves_some = change.removedCount() < before.size();
  kit::Array::Iterator record = before.begin();
  for (const ElementRange& range : change.removed) {
    record += range.first - record.index();
    for (size_t i = 0; i < range.count; ++i, ++record)
      removeOne(departure, *record, range.first + i, carriers);
  }
}

void LedgerBook::removeOne(const LedgerDeparture& departure, const kit::Value& record, size_t index,
                           LedgerCarriers& carriers) {
  if (departure.isDelivered(record, index))
    return credit(departure.kind, *departure.ended, 1);
  const std::vector<uint64_t>& carried_by = carriers.of(record, index);
  const Reason reason = removalReason(departure, record, !carried_by.empty(), traces_, exchanges_);
  noteWhetherBroken(departure.kind, reason);
  giveUp(departure.kind, reason, moments_->firstAfter(departure.kind, index), carried_by);
}

void LedgerBook::add(Kind kind, const kit::Array& after, size_t added, LedgerWriter writer) {
  if (kind == Kind::kCrashReports)
    crash_reports_just_added_ = added;
  if (added == 0)
    return;
  if (kind == Kind::kReEngagementClicks) {
    for (size_t index = after.size() - added; index < after.size(); ++index)
      addClick(after[index], writer);
  } else if (kind != Kind::kActivities || writer != LedgerWriter::kKit) {
    accounts_.record(kind, added);
  }
}

/// The click that a failed request leaves behind is the newest one, whichever request failed. It may still be under
/// way, or be counted as delivered already; then it was recorded once more.
void LedgerBook::addClick(const kit::Value& click, LedgerWriter writer) {
  if (writer == LedgerWriter::kKit && exchanges_.noteStoredClick(click))
    accounts_.endUnderWay(Kind::kReEngagementClicks, 1);
  else
    accounts_.record(Kind::kReEngagementClicks, 1);
}

/// A handler's change must be recognized as such, so it waits for the book. An app's setter does not: if the book is in
/// use, it leaves a note and stores with the value how many were set, so that a crash loses no count.
void LedgerBook::setDemographic(std::string_view key, size_t slot, const kit::Value& value, LedgerWriter writer) {
  const bool must_wait = writer == LedgerWriter::kHand || handler_thread_ == std::this_thread::get_id();
  std::unique_lock hold(mutex_, std::defer_lock);
  if (must_wait)
    hold.lock();
  else if (!hold.try_lock() && leaveNote(key, slot, value))
    return;
  if (!hold.owns_lock())
    hold.lock();
  takeInWhatRecovered();
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  // An app's thread is not part of a handler that may run on another.
  const LedgerDeparture of_app{.kind = Kind::kDemographics, .writer = writer};
  const LedgerDeparture departure_of = must_wait ? departure(Kind::kDemographics, writer) : of_app;
  const LedgerStored::Demographics before = stored_.demographics();
  const LedgerAccounts accounts_before = accounts_;
  const uint64_t unclaimed_before = unclaimed_.count();
  try {
    takeNote({slot, stored_.setDemographic(slot, value)}, departure_of);
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

/// False: no room for another note.
bool LedgerBook::leaveNote(std::string_view key, size_t slot, const kit::Value& value) {
  const std::scoped_lock door(door_);
  if (notes_.size() >= kMaxLedgerNotes)
    return false;
  const LedgerStored::Demographics before = stored_.demographics();
  const size_t notes_before = notes_.size();
  try {
    notes_.push_back({slot, stored_.setDemographic(slot, value)});
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
    takeNote(note, {.kind = Kind::kDemographics, .writer = LedgerWriter::kKit});
  notes_.clear();
  has_notes_ = false;
}

void LedgerBook::takeNote(const Note& note, const LedgerDeparture& gone) {
  if (note.replaced.is_pending)
    accounts_.record(Kind::kDemographics, 1);
  if (note.replaced.version == 0)
    return;
  if (gone.is_accepted && !note.replaced.is_pending && gone.ended->values[note.slot] == note.replaced.version)
    return credit(Kind::kDemographics, *gone.ended, 1);
  giveUp(Kind::kDemographics, valueRemovalReason(gone, note.replaced.is_pending), 0,
         exchanges_.carriersOfValue(note.slot, note.replaced.version, gone.ended));
}

void LedgerBook::noteSeen(size_t slot) {
  const std::thread::id thread = std::this_thread::get_id();
  auto seen = std::find_if(seen_.begin(), seen_.end(), [thread](const SeenValues& s) { return s.thread == thread; });
  SeenValues values = seen == seen_.end() ? SeenValues{thread, stored_.versions()} : *seen;
  if (seen != seen_.end())
    seen_.erase(seen);
  else if (seen_.size() == kMaxReadersSeen)
    seen_.erase(seen_.begin());
  values.versions[slot] = stored_.versions()[slot];
  seen_.push_back(values);
}

std::array<uint64_t, kDemographicValues> LedgerBook::versionsSeen() {
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  const std::thread::id thread = std::this_thread::get_id();
  const auto seen =
      std::find_if(seen_.begin(), seen_.end(), [thread](const SeenValues& s) { return s.thread == thread; });
  return seen == seen_.end() ? stored_.versions() : seen->versions;
}

// ------------------------------------------------------------------------------------------------ batches and requests

void LedgerBook::activityWasStored() {
  ++announced_activities_;
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
  takeChangesFromElsewhere();
  takeRefusals();
  if (accounts_.hasUnwrittenRefusals())
    accounts_.touch();
  writeBook();
}

void LedgerBook::payloadIsBeingBuilt() {
  const Hold hold(*this);
  if (!isInBackground())
    has_session_ended_since_payload_ = is_session_ending_;
}

void LedgerBook::payloadWasSealed(const kit::Value& payload, const kit::Value& parameters) {
  const kit::Value& entries = payload["activity_info"];
  const kit::Value& click = payload["deeplink_info"];
  // The referral of a third-party conversion has no session.
  const bool is_click = !click["session_no"].isAbsent();
  if (!entries.isArray() && !is_click)
    return;
  const Hold hold(*this);
  LedgerExchange exchange;
  if (is_click) {
    exchange.endpoint = LedgerEndpoint::kReEngagement;
    exchange.click = click;
    if (!isInBackground()) {
      traces_.newest_click = click;
      traces_.is_newest_click_let_go = has_session_ended_since_payload_;
    }
  } else {
    exchange.activities = BatchIds(entries.array());
    exchange.leading[indexOf(Kind::kImpressions)] = payload["impression_info"].size();
    if (traces_.sent_keys == exchange.activities.size() + 1)
      exchange.left_out_id = traces_.last_sent_key;
  }
  exchanges_.wasSealed(parameters["j"].string(), std::move(exchange));
}

uint64_t LedgerBook::requestStarts(const kit::Request& request) {
  const auto* url = std::find(urls_.begin(), urls_.end(), request.url);
  if (url == urls_.end())
    return 0;
  const Hold hold(*this);
  LedgerExchange exchange = exchanges_.takeSealed(static_cast<LedgerEndpoint>(url - urls_.begin()), request.body);
  switch (exchange.endpoint) {
    case LedgerEndpoint::kTracking:
      break;
    case LedgerEndpoint::kReEngagement:
      exchange.holds_click = !exchange.click.isAbsent() && !isInBackground();
      break;
    case LedgerEndpoint::kCommerce:
      exchange.leading[indexOf(Kind::kCommerceClicks)] = stored_.count(Kind::kCommerceClicks);
      break;
    case LedgerEndpoint::kCrash:
      takeListFromElsewhere(Kind::kCrashReports);
      exchange.leading[indexOf(Kind::kCrashReports)] = stored_.count(Kind::kCrashReports);
      break;
    case LedgerEndpoint::kDemographics:
      exchange.values = versionsSeen();
      exchange.says_nothing = !has_hashed_identifier_ || request.body.empty();
      break;
  }
  if (exchange.holds_click) {
    accounts_.record(Kind::kReEngagementClicks, 1);
    accounts_.beginUnderWay(Kind::kReEngagementClicks, 1);
  }
  const uint64_t id = exchanges_.begin(std::move(exchange));
  writeBook();
  return id;
}

std::optional<size_t> LedgerBook::activitiesOfBatch(uint64_t exchange) {
  const std::scoped_lock hold(mutex_);
  const LedgerExchange* found = exchanges_.find(exchange);
  if (found == nullptr || found->endpoint != LedgerEndpoint::kTracking)
    return std::nullopt;
  return found->activities.size();
}

void LedgerBook::handlerBegins(uint64_t exchange) {
  handler_thread_ = std::this_thread::get_id();
  const Hold hold(*this);
  exchanges_.handlerBegins(exchange);
  clicks_at_handler_ = stored_.list(Kind::kReEngagementClicks);
}

LedgerLoad LedgerBook::exchangeDidEnd(const kit::ExchangeResult& result) {
  const Hold hold(*this);
  LedgerExchange* running = exchanges_.running();
  if (running == nullptr)
    return {};
  running->status_code = result.status_code;
  if (result.succeeded)
    running->answer = result.json;
  return {.activities = running->activities.size(),
          .click = running->click,
          .too_large_id = running->isOneTooLarge() ? running->activities.first() : kit::Value()};
}

void LedgerBook::handlerEnded(uint64_t id, LedgerDeparted departed) {
  handler_thread_ = std::thread::id();
  kit::Value clicks;  // destroyed once the mutex is free, as in set()
  const Hold hold(*this);
  clicks = std::exchange(clicks_at_handler_, {});
  const LedgerExchange exchange = exchanges_.end(id);
  const bool is_accepted = exchange.isAccepted();
  if (exchange.holds_click) {
    accounts_.endUnderWay(Kind::kReEngagementClicks, 1);
    if (is_accepted) {
      credit(Kind::kReEngagementClicks, exchange, 1);
    } else {
      const Reason reason =
          departed == LedgerDeparted::kNo ? Reason::kForgotten : clickLossReason(exchange, traces_, clicks);
      noteWhetherBroken(Kind::kReEngagementClicks, reason);
      accounts_.giveUp(Kind::kReEngagementClicks, reason, 1);
    }
  }
  for (const LedgerUnclaimed::Settled& settled : unclaimed_.settle(id, is_accepted)) {
    accounts_.endUnderWay(settled.kind, settled.count);
    moments_->wasSettled(settled.kind, settled.first_after, settled.count,
                         !is_accepted && LedgerMoments::isLoss(settled.reason));
    if (is_accepted)
      credit(settled.kind, exchange, settled.count);
    else
      accounts_.giveUp(settled.kind, settled.reason, settled.count);
  }
  writeBook();
}

void LedgerBook::backgroundBlockBegins() {
  const Hold hold(*this);
  background_thread_ = std::this_thread::get_id();
}

void LedgerBook::backgroundBlockEnded() {
  const Hold hold(*this);
  background_thread_ = {};
  is_session_ending_ = false;
}

// ------------------------------------------------------------------------------------------------ counting and writing

/// Counts it now, or only once no request that carries it is accepted.
void LedgerBook::giveUp(Kind kind, Reason reason, LedgerMoments::Moment first_after,
                        const std::vector<uint64_t>& carriers) {
  if (carriers.empty()) {
    if (LedgerMoments::isLoss(reason))
      moments_->wasLost(kind, first_after, 1);
    return accounts_.giveUp(kind, reason, 1);
  }
  accounts_.beginUnderWay(kind, 1);
  moments_->wentUnderWay(kind, first_after, 1);
  unclaimed_.add(kind, reason, first_after, carriers);
}

void LedgerBook::credit(Kind kind, const LedgerExchange& exchange, uint64_t by) {
  if (const auto reason = exchange.emptyAcceptance())
    accounts_.giveUp(kind, *reason, by);
  else
    accounts_.deliver(kind, by);
}

void LedgerBook::noteWhetherBroken(Kind kind, Reason reason) {
  if (reason == Reason::kUnexplained)
    broken_kinds_ |= uint32_t{1} << indexOf(kind);
}

void LedgerBook::writeBook() {
  if (!accounts_.isChanged())
    return;
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  writeAtTheDoor({}, {});
}

void LedgerBook::write(std::string_view key, kit::Value value) {
  const std::scoped_lock door(door_);
  takeNotesAtTheDoor();
  writeAtTheDoor(key, std::move(value));
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
  if (broken_kinds_.load(std::memory_order_relaxed) == 0)
    return;
  const uint32_t kinds = broken_kinds_.exchange(0);
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    if ((kinds & uint32_t{1} << kind) != 0)
      invariantBroken(logger_, kLedgerOperation,
                      std::string("records went that no rule gives up (") + kLedgerKindNames[kind] + ")");
  }
}

}  // namespace morvik::runtime
