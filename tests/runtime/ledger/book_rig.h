// A ledger's book over the real store; a test tells it what the kit would.
#pragma once

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/posix/log_sinks.h"
#include "host/posix/system_clock.h"
#include "host/store/sqlite_store.h"
#include "kit/ledger.h"
#include "kit/list_lock.h"
#include "runtime/ledger/ledger_book.h"
#include "tests/support/scratch_folder.h"

namespace morvik::runtime {

/// The book waits for no disk.
class NoFlusher final : public host::StoreFlusher {
 public:
  void flushSoon() override {}
  void flushNow(Urgency) override {}
  void flushAndWait(Urgency) override {}
  void stop() override {}
};

/// Notes which values were set together.
class NotingStore : public host::SqliteStore {
 public:
  NotingStore(const std::string& folder, kit::LogSink& log)
      : host::SqliteStore(
            {.place = {.folder = folder}, .make_flusher = [](auto, auto) { return std::make_unique<NoFlusher>(); }},
            log) {}
  void setTogether(std::span<StoreWrite> writes) override {
    together.emplace_back();
    for (const StoreWrite& write : writes)
      together.back().emplace_back(write.key);
    host::SqliteStore::setTogether(writes);
  }
  std::vector<std::vector<std::string>> together;
};

class BookRig {
 public:
  static constexpr const char* kActivities = "fendoActivityInfos";
  static constexpr const char* kImpressions = "fendoImpressionInfos";
  static constexpr const char* kCommerceClicks = "commerceConversionInfos";
  static constexpr const char* kClicks = "reEngagementInfos";
  static constexpr const char* kCrashes = "MorvikCoreUserInfo_Crash";

  BookRig() {
    levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vError;
    startAgain();
  }

  /// Another process on the same store.
  void startAgain() {
    book.emplace(
        LedgerParts{.store = store, .list_lock = list_lock, .logger = services::Logger(levels_, log_), .clock = clock});
  }

  /// Told by nobody, but for a demographic value, of which its setter tells.
  void set(const char* key, kit::Value value) {
    const LedgerKey of = ledgerKeyOf(key);
    if (of.part == LedgerKey::Part::kDemographic)
      tellOfValue(of.slot,
                  LedgerStored::isPending(of.slot, value) ? LedgerReason::kReplaced : LedgerReason::kTakenBack);
    book->set(key, std::move(value), LedgerWriter::kKit);
  }
  /// No value waits here any more, since an answer came.
  void deleteValue(const char* key) {
    tellOfValue(ledgerKeyOf(key).slot, LedgerReason::kAddedDuringUpload);
    book->set(key, -1, LedgerWriter::kKit);
  }
  void append(const char* key, kit::Value record) {
    const LedgerKind kind = ledgerKeyOf(key).kind;
    if (LedgerMoments::follows(kind)) {
      const std::scoped_lock door(list_lock.door);
      store.append(key, std::move(record));
      book->recorded(kind, 1);
      return;
    }
    kit::MutableArray list(store.get(key));
    list.append(std::move(record));
    book->recorded(kind, 1);
    set(key, kit::Value(std::move(list)));
  }
  /// Removes all of which `is_gone` answers true, for this reason.
  void removeIf(const char* key, LedgerReason reason, const std::function<bool(const kit::Value&)>& is_gone) {
    kit::MutableArray kept{kit::Value(kit::Array())};
    kit::MutableArray gone;
    for (const kit::Value& record : store.get(key).array())
      (is_gone(record) ? gone : kept).append(record);
    book->removed(ledgerKeyOf(key).kind, kit::Value(std::move(gone)).array(), reason);
    set(key, kit::Value(std::move(kept)));
  }
  void removeAll(const char* key, LedgerReason reason) {
    removeIf(key, reason, [](const kit::Value&) { return true; });
  }

  void record(const char* id, const char* name = "look") {
    const std::scoped_lock door(list_lock.door);
    store.append(kActivities, kit::Dictionary{{"activityEventID", id}, {"activityName", name}});
    book->recorded(LedgerKind::kActivities, 1);
  }
  /// A batch of these events and of all impressions that are stored.
  kit::LedgerTicket sendBatch(std::initializer_list<const char*> ids) {
    kit::MutableArray keys;
    for (const char* id : ids)
      keys.append(id);
    return book->carries({.kind = LedgerKind::kActivities,
                          .records = kit::Value(std::move(keys)).array(),
                          .impressions = store.get(kImpressions).array()});
  }
  /// That nothing but the request has.
  kit::LedgerTicket sendClick(int64_t key) {
    return book->carries({.kind = LedgerKind::kReEngagementClicks, .records = {clickOf(key)}, .is_only_copy = true});
  }
  static kit::Value clickOf(int64_t key) { return kit::Dictionary{{"conversion_key", key}, {"session_no", "1"}}; }
  /// All that is stored of a kind.
  kit::LedgerTicket sendAll(const char* key) {
    return book->carries({.kind = ledgerKeyOf(key).kind, .records = store.get(key).array()});
  }
  kit::LedgerTicket sendAge(int age) {
    return book->carries(
        {.kind = LedgerKind::kDemographics, .records = {kit::Dictionary{{"demo_key", "age"}, {"demo_value", age}}}});
  }
  /// Its handler runs; without an answer the request failed.
  void end(
      kit::LedgerTicket ticket, std::optional<kit::LedgerAnswer> answer, const std::function<void()>& handler = [] {}) {
    book->answered(ticket, answer.value_or(kit::LedgerAnswer::kNotAccepted));
    handler();
    book->ended(ticket, {.status_code = answer ? 200 : 0});
  }
  static constexpr kit::LedgerAnswer kYes = kit::LedgerAnswer::kAccepted;
  /// As the core does: what the batch noted goes, and all impressions.
  void trim(std::initializer_list<const char*> ids, LedgerReason reason = LedgerReason::kAnswered) {
    const std::vector<std::string> gone(ids.begin(), ids.end());
    removeIf(kActivities, reason, [&gone](const kit::Value& activity) {
      return std::find(gone.begin(), gone.end(), activity["activityEventID"].string()) != gone.end();
    });
    removeAll(kImpressions, LedgerReason::kAddedDuringUpload);
  }

  Ledger::Account of(const char* kind) { return book->read().of(kind); }
  void tellOfValue(size_t slot, LedgerReason reason) {
    const auto value = static_cast<kit::DemographicValue>(slot);
    if (reason == LedgerReason::kReplaced)
      book->recorded(value);
    else
      book->removed(value, reason);
  }
  std::map<std::string, uint64_t> givenUp(const char* kind) {
    std::map<std::string, uint64_t> reasons;
    for (const Ledger::GivenUp& each : of(kind).given_up)
      reasons[each.reason] = each.count;
    return reasons;
  }

 private:
  const test::ScratchFolder folder_;
  kit::LogLevels levels_;
  host::StderrLogSink log_;

 public:
  kit::ListLock list_lock;
  host::SystemClock clock;
  NotingStore store{folder_.path(), log_};
  std::optional<LedgerBook> book;
};

}  // namespace morvik::runtime
