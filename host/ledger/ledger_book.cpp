#include "host/ledger/ledger_book.h"

#include <algorithm>
#include <iterator>

#include "host/invariant.h"
#include "services/converters.h"
#include "services/endpoints.h"

namespace morvik::host {
namespace {

using Kind = LedgerKind;
using Reason = LedgerReason;

constexpr const char* kOperation = "-[MorvikCoreLedger]";

/// So much of a sealed text tells it from every other: it begins with its nonce.
constexpr size_t kMarkBytes = 32;

struct CountedList {
  std::string_view key;
  Kind kind;
};
constexpr CountedList kLists[] = {{"fendoActivityInfos", Kind::kActivities},
                                  {"fendoImpressionInfos", Kind::kImpressions},
                                  {"reEngagementInfos", Kind::kReEngagementClicks},
                                  {"commerceConversionInfos", Kind::kCommerceClicks},
                                  {"MorvikCoreUserInfo_Crash", Kind::kCrashReports}};

constexpr std::array<std::string_view, kDemographicValues> kDemographicKeys = {
    "fendoUserDemoInfo_age", "fendoUserDemoInfo_gender", "fendoUserDemoInfo_userId"};
constexpr size_t kUserIdSlot = 2;

constexpr std::string_view kSentKeysKey = "fendoActivityInfosSentEventKeys";
constexpr std::string_view kSessionEndKey = "MorvikCoreUserInfo_endSessoinDate";

/// What an age or gender reads as when none is pending.
constexpr int64_t kNonePending = -1;

size_t indexOf(Kind kind) {
  return static_cast<size_t>(kind);
}

std::string_view listKey(Kind kind) {
  return std::find_if(std::begin(kLists), std::end(kLists), [kind](const CountedList& l) { return l.kind == kind; })
      ->key;
}

bool isPending(size_t slot, const kit::Value& value) {
  return slot == kUserIdSlot ? value.isString() : value.isNumber() && services::checkNilToZero(value) != kNonePending;
}

bool isInList(const kit::Value& clicks, int64_t key) {
  const kit::Array all = clicks.array();
  return std::any_of(all.begin(), all.end(), [key](const kit::Value& click) {
    return services::checkIntegerNilToZero(click["conversion_key"]) == key;
  });
}

std::string markOf(std::string_view sealed) {
  return std::string(sealed.substr(0, kMarkBytes));
}

/// The sealed text in a form; empty when there is none.
std::string_view sealedIn(std::string_view body) {
  constexpr std::string_view kParameter = "j=";
  size_t at = body.starts_with(kParameter) ? 0 : body.find("&j=");
  if (at == std::string_view::npos)
    return {};
  at = body.find('=', at) + 1;
  return body.substr(at, body.find('&', at) - at);
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------- beginning

LedgerBook::LedgerBook(LedgerParts parts)
    : store_(parts.store),
      urls_{parts.endpoints.kFendoTrackingBaseLiveUrl + services::kTrackingPath,
            parts.endpoints.kFendoConversionBaseLiveUrl + services::kReEngagementConversionPath,
            parts.endpoints.kCommerceBaseLiveUrl + services::kCommerceConversionPath,
            parts.endpoints.kCrashReportBaseLiveUrl + services::kCrashReportPath,
            parts.endpoints.kFendoTrackingBaseLiveUrl + services::kSetDemographicPath},
      logger_(parts.logger),
      has_hashed_identifier_(parts.has_hashed_identifier) {
  const std::scoped_lock hold(mutex_);
  open();
}

void LedgerBook::open() {
  for (const CountedList& list : kLists)
    known_[indexOf(list.kind)] = store_.get(list.key);
  for (size_t slot = 0; slot < kDemographicValues; ++slot) {
    if (isPending(slot, store_.get(kDemographicKeys[slot])))
      versions_[slot] = ++last_version_;
  }
  written_ = store_.get(kLedgerKey);
  accounts_ = LedgerAccounts(written_, storedCount(Kind::kActivities));
  accounts_.bringInLineWith({.stored = storedCounts(), .is_first = written_.isAbsent()});
  is_dark_ = store_.opening() == StoreOpening::kUnavailable;
  writeBook();
}

/// What could not be read at the start comes to light behind the book's back: lists stand before those of this process,
/// and of the book the one in the file stands. It is another part of the same account, of earlier processes.
void LedgerBook::takeInWhatCameToLight() {
  const kit::Value earlier = store_.get(kLedgerKey);
  if (!is_dark_ || earlier.identicalTo(written_))
    return;
  is_dark_ = false;
  LedgerAccounts::Found found;
  for (const CountedList& list : kLists) {
    kit::Value& known = known_[indexOf(list.kind)];
    kit::Value all = store_.get(list.key);
    found.stored[indexOf(list.kind)] = all.size() - std::min(all.size(), known.size());
    known.swap(all);
  }
  for (size_t slot = 0; slot < kDemographicValues; ++slot) {
    found.demographics_set_since += was_set_[slot] ? 1U : 0U;
    if (was_set_[slot] || !isPending(slot, store_.get(kDemographicKeys[slot])))
      continue;
    versions_[slot] = ++last_version_;
    ++found.stored[indexOf(Kind::kDemographics)];
  }
  LedgerAccounts accounts(earlier, found.stored[indexOf(Kind::kActivities)]);
  accounts.bringInLineWith(found);
  accounts_.add(accounts);
}

void LedgerBook::storeCameToLight() {
  const std::scoped_lock hold(mutex_);
  takeInWhatCameToLight();
  takeChangesFromElsewhere();
  is_dark_ = false;
  writeBook();
}

uint64_t LedgerBook::storedCount(Kind kind) const {
  if (kind != Kind::kDemographics)
    return known_[indexOf(kind)].size();
  return static_cast<uint64_t>(std::count_if(versions_.begin(), versions_.end(), [](uint64_t v) { return v != 0; }));
}

LedgerCounts LedgerBook::storedCounts() const {
  LedgerCounts stored{};
  for (size_t i = 0; i < kLedgerKinds; ++i)
    stored[i] = storedCount(static_cast<Kind>(i));
  return stored;
}

Ledger LedgerBook::read() {
  const std::scoped_lock hold(mutex_);
  takeChangesFromElsewhere();
  return accounts_.toLedger(storedCounts());
}

// -------------------------------------------------------------------------------------------------- changes of the
// store

void LedgerBook::set(std::string_view key, kit::Value value, Writer writer) {
  const auto* list =
      std::find_if(std::begin(kLists), std::end(kLists), [key](const CountedList& each) { return each.key == key; });
  const auto* slot = std::find(kDemographicKeys.begin(), kDemographicKeys.end(), key);
  const bool is_list = list != std::end(kLists);
  const bool is_demographic = slot != kDemographicKeys.end();
  if (!is_list && !is_demographic && key != kSentKeysKey && key != kSessionEndKey)
    return store_.set(key, std::move(value));
  kit::Value before;  // let go of when the mutex is free: it may be the last handle of a long list
  const std::scoped_lock hold(mutex_);
  if (is_list) {
    before = known_[indexOf(list->kind)];
    setList(list->kind, value, writer);
  } else if (is_demographic) {
    setDemographic(static_cast<size_t>(slot - kDemographicKeys.begin()), value, writer);
  } else if (key == kSentKeysKey) {
    noteSentKeys(value);
  } else if (isInBackground()) {
    is_newest_click_let_go_ = true;
  }
  write(key, std::move(value));
}

/// A dying process appends its report past the book.
void LedgerBook::takeChangesFromElsewhere() {
  takeInWhatCameToLight();
  for (const CountedList& list : kLists)
    takeListFromElsewhere(list.kind);
  for (size_t slot = 0; slot < kDemographicValues; ++slot) {
    if (versions_[slot] != 0 || !isPending(slot, store_.get(kDemographicKeys[slot])))
      continue;
    versions_[slot] = ++last_version_;
    accounts_.record(Kind::kDemographics, 1);
  }
}

void LedgerBook::takeListFromElsewhere(Kind kind) {
  kit::Value& known = known_[indexOf(kind)];
  kit::Value found = store_.get(listKey(kind));
  if (found.identicalTo(known))
    return;
  if (found.size() >= known.size())
    accounts_.record(kind, found.size() - known.size());
  else
    accounts_.giveUp(kind, Reason::kMissing, known.size() - found.size());
  known.swap(found);
}

void LedgerBook::setList(Kind kind, const kit::Value& value, Writer writer) {
  takeInWhatCameToLight();
  takeListFromElsewhere(kind);
  const kit::Array before = known_[indexOf(kind)].array();
  const kit::Array after = value.array();
  const ListChange change = changeBetween(before, after);
  if (wasTakenBack(kind, before, change, writer)) {
    accounts_.unrecord(kind, change.removedCount());
  } else if (!change.removed.empty()) {
    Removal removed = removal(kind, writer);
    removeAll(removed, before, change);
    shrinkLeading(kind, change);
  }
  add(kind, after, change.added, writer);
  known_[indexOf(kind)] = value;
}

/// Reports that the store took and could not keep go back to where they came from, and come again.
bool LedgerBook::wasTakenBack(Kind kind, const kit::Array& before, const ListChange& change, Writer writer) const {
  return kind == Kind::kCrashReports && writer == Writer::kKit && running_ == 0 && change.added == 0 &&
         change.removed.size() == 1 && change.removed.front().count == crash_reports_just_added_ &&
         change.removed.front().first + change.removed.front().count == before.size();
}

void LedgerBook::add(Kind kind, const kit::Array& after, size_t added, Writer writer) {
  if (kind == Kind::kCrashReports)
    crash_reports_just_added_ = added;
  if (added == 0)
    return;
  if (kind == Kind::kReEngagementClicks) {
    for (size_t index = after.size() - added; index < after.size(); ++index)
      addClick(after[index], writer);
  } else if (kind == Kind::kActivities && writer == Writer::kKit) {
    accounts_.recordUnwritten(kind, std::exchange(announced_activities_, 0));
  } else {
    accounts_.record(kind, added);
  }
}

/// The click that a failed request leaves behind is the newest one, whichever request failed: it may be under way
/// still, or be counted as delivered already. The latter was recorded once more.
void LedgerBook::addClick(const kit::Value& click, Writer writer) {
  const auto held = std::find_if(holding_click_.begin(), holding_click_.end(),
                                 [&](uint64_t id) { return exchanges_.at(id).click == click; });
  if (writer == Writer::kHand || held == holding_click_.end())
    return accounts_.record(Kind::kReEngagementClicks, 1);
  exchanges_.at(*held).holds_click = false;
  holding_click_.erase(held);
  accounts_.endUnderWay(Kind::kReEngagementClicks, 1);
}

void LedgerBook::setDemographic(size_t slot, const kit::Value& value, Writer writer) {
  takeInWhatCameToLight();
  was_set_[slot] = true;
  const bool is_pending = isPending(slot, value);
  const uint64_t version = std::exchange(versions_[slot], is_pending ? ++last_version_ : 0);
  if (is_pending)
    accounts_.record(Kind::kDemographics, 1);
  if (version == 0)
    return;
  const Removal removed = removal(Kind::kDemographics, writer);
  if (removed.is_accepted && !is_pending && removed.ended->values[slot] == version)
    return credit(Kind::kDemographics, *removed.ended, 1);
  Reason reason = Reason::kTakenBack;
  if (writer == Writer::kHand)
    reason = Reason::kByHand;
  else if (is_pending)
    reason = Reason::kReplaced;
  else if (removed.is_accepted)
    reason = Reason::kAddedDuringUpload;
  Orphans orphans{Kind::kDemographics, reason, {}, 1};
  for (const auto& [id, exchange] : exchanges_) {
    if (&exchange != removed.ended && exchange.values[slot] == version)
      orphans.carriers.push_back(id);
  }
  if (orphans.carriers.empty())
    return accounts_.giveUp(Kind::kDemographics, reason, 1);
  orphans_.push_back(std::move(orphans));
  accounts_.beginUnderWay(Kind::kDemographics, 1);
}

void LedgerBook::noteSentKeys(const kit::Value& keys) {
  sent_keys_ = keys.size();
  if (sent_keys_ > 0)
    last_sent_key_ = keys.array()[sent_keys_ - 1];
}

// ------------------------------------------------------------------------------------------------------ what went, and
// why

LedgerBook::Removal LedgerBook::removal(Kind kind, Writer writer) {
  Removal removal{.kind = kind, .writer = writer};
  if (writer == Writer::kHand || running_ == 0 || running_thread_ != std::this_thread::get_id())
    return removal;
  LedgerExchange& running = exchanges_.at(running_);
  if (running.endpoint != ledgerEndpointOf(kind))
    return removal;
  removal.ended = &running;
  removal.is_accepted = running.isAccepted();
  return removal;
}

void LedgerBook::removeAll(Removal& removal, const kit::Array& before, const ListChange& change) {
  kit::Array::Iterator record = before.begin();
  for (const ElementRange& range : change.removed) {
    record += range.first - record.index();
    for (size_t i = 0; i < range.count; ++i, ++record)
      removeOne(removal, *record, range.first + i);
  }
}

void LedgerBook::removeOne(Removal& removal, const kit::Value& record, size_t index) {
  if (removal.is_accepted && removal.ended->carries(removal.kind, record, index))
    return credit(removal.kind, *removal.ended, 1);
  findCarriers(removal, record, index);
  const Reason reason = whyGone(removal, record);
  if (reason == Reason::kUnexplained)
    broken_kinds_ |= uint32_t{1} << indexOf(removal.kind);
  if (removal.carriers.empty())
    return accounts_.giveUp(removal.kind, reason, 1);
  accounts_.beginUnderWay(removal.kind, 1);
  const bool is_like_the_last = !orphans_.empty() && orphans_.back().kind == removal.kind &&
                                orphans_.back().reason == reason && orphans_.back().carriers == removal.carriers;
  if (is_like_the_last)
    ++orphans_.back().count;
  else
    orphans_.push_back({removal.kind, reason, removal.carriers, 1});
}

void LedgerBook::findCarriers(Removal& removal, const kit::Value& record, size_t index) {
  if (!std::exchange(removal.others_known, true)) {
    for (auto& [id, exchange] : exchanges_) {
      if (&exchange != removal.ended && exchange.endpoint == ledgerEndpointOf(removal.kind))
        removal.others.emplace_back(id, &exchange);
    }
  }
  removal.carriers.clear();
  for (const auto& [id, exchange] : removal.others) {
    if (exchange->carries(removal.kind, record, index))
      removal.carriers.push_back(id);
  }
}

LedgerReason LedgerBook::whyGone(const Removal& removal, const kit::Value& record) {
  if (removal.writer == Writer::kHand)
    return Reason::kByHand;
  if (removal.kind == Kind::kActivities)
    return whyActivityGone(removal, record);
  if (removal.kind == Kind::kReEngagementClicks && removal.ended == nullptr)
    return isInBackground() ? Reason::kSixthSessionEnd : Reason::kUnexplained;
  if (!removal.is_accepted)
    return Reason::kUnexplained;
  if (removal.kind == Kind::kReEngagementClicks)
    return Reason::kOtherKeyAccepted;
  const bool was_batched = removal.kind == Kind::kImpressions && !removal.carriers.empty();
  return was_batched ? Reason::kPlaceTaken : Reason::kAddedDuringUpload;
}

LedgerReason LedgerBook::whyActivityGone(const Removal& removal, const kit::Value& record) {
  const kit::Value& id = record["activityEventID"];
  // A batch of nothing but a kept session's "end" is not sent, and trimmed as if it had been.
  if (removal.ended == nullptr && record["activityName"].string() == "end" && id == last_sent_key_)
    return Reason::kKeptSession;
  if (!removal.is_accepted)
    return Reason::kUnexplained;
  if (removal.ended->left_out_id == id || isLeftOut(id))
    return Reason::kKeptSession;
  return !removal.carriers.empty() || isInUnsentBatch(id) ? Reason::kPlaceTaken : Reason::kUnexplained;
}

bool LedgerBook::isLeftOut(const kit::Value& id) const {
  const auto leaves_out = [&id](const LedgerExchange& exchange) {
    return !exchange.left_out_id.isAbsent() && exchange.left_out_id == id;
  };
  return std::any_of(exchanges_.begin(), exchanges_.end(), [&](const auto& each) { return leaves_out(each.second); }) ||
         std::any_of(unsent_.begin(), unsent_.end(), [&](const Unsent& each) { return leaves_out(each.exchange); });
}

/// Of an install without a referral record no batch leaves, but its ids are noted.
bool LedgerBook::isInUnsentBatch(const kit::Value& id) {
  return std::any_of(unsent_.begin(), unsent_.end(),
                     [&id](Unsent& each) { return each.exchange.activities.contains(id.string()); });
}

void LedgerBook::shrinkLeading(Kind kind, const ListChange& change) {
  const auto shrink = [&](size_t& leading) {
    size_t gone = 0;
    for (const ElementRange& range : change.removed)
      gone += range.first < leading ? std::min(range.count, leading - range.first) : 0;
    leading -= gone;
  };
  for (auto& [id, exchange] : exchanges_)
    shrink(exchange.leading[indexOf(kind)]);
  for (Unsent& unsent : unsent_)
    shrink(unsent.exchange.leading[indexOf(kind)]);
}

// --------------------------------------------------------------------------------------------------- batches and
// requests

void LedgerBook::activityIsBeingStored() {
  const std::scoped_lock hold(mutex_);
  ++announced_activities_;
}

void LedgerBook::payloadWasSealed(const kit::Value& payload, const kit::Value& parameters) {
  const kit::Value& entries = payload["activity_info"];
  const kit::Value& click = payload["deeplink_info"];
  // The referral of a third party conversion has no session.
  const bool is_click = !click["session_no"].isAbsent();
  if (!entries.isArray() && !is_click)
    return;
  const std::scoped_lock hold(mutex_);
  LedgerExchange exchange;
  if (is_click) {
    exchange.endpoint = LedgerEndpoint::kReEngagement;
    exchange.click = click;
    if (!isInBackground()) {
      newest_click_ = click;
      is_newest_click_let_go_ = false;
    }
  } else {
    exchange.activities = BatchIds(entries.array());
    exchange.leading[indexOf(Kind::kImpressions)] = payload["impression_info"].size();
    if (sent_keys_ == exchange.activities.size() + 1)
      exchange.left_out_id = last_sent_key_;
    std::erase_if(unsent_, [](const Unsent& each) { return each.exchange.endpoint == LedgerEndpoint::kTracking; });
  }
  if (unsent_.size() == kMaxUnsentPayloads)
    unsent_.erase(unsent_.begin());
  unsent_.push_back({markOf(parameters["j"].string()), std::move(exchange)});
}

LedgerExchange LedgerBook::takeUnsent(LedgerEndpoint endpoint, std::string_view body) {
  const std::string mark = markOf(sealedIn(body));
  const auto found = std::find_if(unsent_.begin(), unsent_.end(), [&](const Unsent& each) {
    return each.exchange.endpoint == endpoint && each.mark == mark;
  });
  LedgerExchange exchange;
  if (found != unsent_.end()) {
    exchange = std::move(found->exchange);
    unsent_.erase(found);
  }
  exchange.endpoint = endpoint;
  return exchange;
}

uint64_t LedgerBook::requestStarts(const kit::Request& request) {
  const auto* url = std::find(urls_.begin(), urls_.end(), request.url);
  if (url == urls_.end())
    return 0;
  const std::scoped_lock hold(mutex_);
  LedgerExchange exchange = takeUnsent(static_cast<LedgerEndpoint>(url - urls_.begin()), request.body);
  const uint64_t id = ++last_exchange_;
  switch (exchange.endpoint) {
    case LedgerEndpoint::kTracking:
      break;
    case LedgerEndpoint::kReEngagement:
      exchange.holds_click = !exchange.click.isAbsent() && !isInBackground();
      break;
    case LedgerEndpoint::kCommerce:
      exchange.leading[indexOf(Kind::kCommerceClicks)] = storedCount(Kind::kCommerceClicks);
      break;
    case LedgerEndpoint::kCrash:
      takeListFromElsewhere(Kind::kCrashReports);
      exchange.leading[indexOf(Kind::kCrashReports)] = storedCount(Kind::kCrashReports);
      break;
    case LedgerEndpoint::kDemographics:
      exchange.values = versions_;
      exchange.says_nothing = !has_hashed_identifier_ || request.body.empty();
      break;
  }
  if (exchange.holds_click) {
    holding_click_.insert(id);
    accounts_.record(Kind::kReEngagementClicks, 1);
    accounts_.beginUnderWay(Kind::kReEngagementClicks, 1);
  }
  exchanges_.emplace(id, std::move(exchange));
  writeBook();
  return id;
}

void LedgerBook::handlerBegins(uint64_t exchange) {
  const std::scoped_lock hold(mutex_);
  running_ = exchange;
  running_thread_ = std::this_thread::get_id();
}

void LedgerBook::exchangeDidEnd(const kit::ExchangeResult& result) {
  const std::scoped_lock hold(mutex_);
  if (running_ != 0 && running_thread_ == std::this_thread::get_id() && result.succeeded)
    exchanges_.at(running_).answer = result.json;
}

void LedgerBook::handlerEnded(uint64_t id) {
  const std::scoped_lock hold(mutex_);
  const auto node = exchanges_.extract(id);
  const LedgerExchange& exchange = node.mapped();
  if (holding_click_.erase(id) > 0) {
    accounts_.endUnderWay(Kind::kReEngagementClicks, 1);
    if (exchange.isAccepted())
      credit(Kind::kReEngagementClicks, exchange, 1);
    else
      accounts_.giveUp(Kind::kReEngagementClicks, whyClickLost(exchange), 1);
  }
  settleOrphans(id, exchange);
  running_ = 0;
  writeBook();
}

LedgerReason LedgerBook::whyClickLost(const LedgerExchange& exchange) {
  if (exchange.answer)
    return Reason::kNotAccepted;
  if (is_newest_click_let_go_)
    return Reason::kSessionEnded;
  if (!(newest_click_ == exchange.click))
    return Reason::kNewerClick;
  const int64_t key = services::checkIntegerNilToZero(exchange.click["conversion_key"]);
  if (isInList(known_[indexOf(Kind::kReEngagementClicks)], key))
    return Reason::kSameKey;
  broken_kinds_ |= uint32_t{1} << indexOf(Kind::kReEngagementClicks);
  return Reason::kUnexplained;
}

/// Accepted by one of those that carry it, a record is delivered; it is given up when none is left.
void LedgerBook::settleOrphans(uint64_t ended, const LedgerExchange& exchange) {
  std::erase_if(orphans_, [&](Orphans& orphans) {
    if (std::erase(orphans.carriers, ended) == 0)
      return false;
    const bool is_accepted = exchange.isAccepted();
    if (!is_accepted && !orphans.carriers.empty())
      return false;
    accounts_.endUnderWay(orphans.kind, orphans.count);
    if (is_accepted)
      credit(orphans.kind, exchange, orphans.count);
    else
      accounts_.giveUp(orphans.kind, orphans.reason, orphans.count);
    return true;
  });
}

void LedgerBook::backgroundBlockBegins() {
  const std::scoped_lock hold(mutex_);
  background_thread_ = std::this_thread::get_id();
}

void LedgerBook::backgroundBlockEnded() {
  const std::scoped_lock hold(mutex_);
  background_thread_ = {};
}

// -------------------------------------------------------------------------------------------------------------
// counting

void LedgerBook::credit(Kind kind, const LedgerExchange& exchange, uint64_t by) {
  if (const auto reason = exchange.emptyAcceptance())
    accounts_.giveUp(kind, *reason, by);
  else
    accounts_.deliver(kind, by);
}

void LedgerBook::writeBook() {
  if (accounts_.isChanged())
    write({}, {});
}

/// In one transaction: the value, unless there is none, and what changed in the book.
void LedgerBook::write(std::string_view key, kit::Value value) {
  std::array<StoreWrite, 2> writes;
  size_t count = 0;
  if (!key.empty())
    writes[count++] = {key, std::move(value)};
  if (accounts_.isChanged()) {
    written_ = accounts_.write(storedCount(Kind::kActivities));
    writes[count++] = {kLedgerKey, written_};
  }
  store_.setTogether({writes.data(), count});
}

void LedgerBook::tellBroken() {
  if (broken_kinds_.load(std::memory_order_relaxed) == 0)
    return;
  const uint32_t kinds = broken_kinds_.exchange(0);
  for (size_t kind = 0; kind < kLedgerKinds; ++kind) {
    if ((kinds & uint32_t{1} << kind) != 0)
      invariantBroken(logger_, kOperation,
                      std::string("records went that no rule gives up (") + kLedgerKindNames[kind] + ")");
  }
}

}  // namespace morvik::host
