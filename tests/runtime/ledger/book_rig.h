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
#include "host/store/sqlite_store.h"
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
  static constexpr const char* kSentKeys = "fendoActivityInfosSentEventKeys";

  explicit BookRig(bool has_hashed_identifier = true) : has_hashed_identifier_(has_hashed_identifier) {
    levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vError;
    startAgain();
  }

  /// Another process on the same store.
  void startAgain() {
    book.emplace(LedgerParts{.store = store,
                             .list_lock = list_lock,
                             .endpoints = {},
                             .logger = services::Logger(levels_, log_),
                             .has_hashed_identifier = has_hashed_identifier_});
  }

  void set(const char* key, kit::Value value) { book->set(key, std::move(value), LedgerWriter::kKit); }
  void append(const char* key, kit::Value record) {
    kit::MutableArray list(store.get(key));
    list.append(std::move(record));
    set(key, kit::Value(std::move(list)));
  }
  /// Keeps only those for which `is_gone` is false.
  void removeIf(const char* key, const std::function<bool(const kit::Value&)>& is_gone) {
    kit::MutableArray kept{kit::Value(kit::Array())};
    for (const kit::Value& record : store.get(key).array()) {
      if (!is_gone(record))
        kept.append(record);
    }
    set(key, kit::Value(std::move(kept)));
  }

  void record(const char* id, const char* name = "look") {
    const std::scoped_lock door(list_lock.door);
    book->activityWasStored();
    store.append(kActivities, kit::Dictionary{{"activityEventID", id}, {"activityName", name}});
  }
  /// Seals and sends a batch of these events and all stored impressions.
  uint64_t sendBatch(std::initializer_list<const char*> ids) {
    kit::MutableArray entries{kit::Value(kit::Array())};
    kit::MutableArray keys{kit::Value(kit::Array())};
    for (const char* id : ids) {
      entries.append(kit::Dictionary{{"event_id", id}});
      keys.append(id);
    }
    set(kSentKeys, kit::Value(std::move(keys)));
    return send("https://tracking.morvik.example/v1/tracking",
                kit::Dictionary{{"activity_info", kit::Value(std::move(entries))},
                                {"impression_info", store.get(kImpressions)}});
  }
  uint64_t sendClick(int64_t key) {
    return send("https://conversion.morvik.example/v1/reengagement-conversion",
                kit::Dictionary{{"deeplink_info", clickOf(key)}});
  }
  static kit::Value clickOf(int64_t key) { return kit::Dictionary{{"conversion_key", key}, {"session_no", "1"}}; }
  uint64_t send(const char* url, const kit::Value& payload) { return sendSealed(url, seal(payload)); }
  /// The sealed text.
  std::string seal(const kit::Value& payload) {
    book->payloadIsBeingBuilt();
    const std::string sealed = std::to_string(1000 + ++sealed_) + std::string(100, 'x');
    book->payloadWasSealed(payload, kit::Dictionary{{"k", "app"}, {"j", sealed}});
    return sealed;
  }
  uint64_t sendSealed(const char* url, const std::string& sealed) {
    kit::Request request;
    request.url = url;
    request.body = "k=app&j=" + sealed;
    return book->requestStarts(request);
  }
  /// Its handler runs; without an answer the request failed.
  void end(
      uint64_t exchange, const std::optional<kit::Value>& answer, const std::function<void()>& handler = [] {}) {
    book->handlerBegins(exchange);
    book->exchangeDidEnd({.succeeded = answer.has_value(), .json = answer.value_or(kit::Value())});
    handler();
    book->handlerEnded(exchange);
  }
  static kit::Value yes() { return kit::Dictionary{{"Result", true}}; }
  /// As the core does: removes the batch's events, and all impressions.
  void trim(std::initializer_list<const char*> ids) {
    const std::vector<std::string> gone(ids.begin(), ids.end());
    removeIf(kActivities, [&gone](const kit::Value& activity) {
      return std::find(gone.begin(), gone.end(), activity["activityEventID"].string()) != gone.end();
    });
    set(kImpressions, kit::Array());
  }
  void inBackground(const std::function<void()>& block) {
    const LedgerBackgroundBlock background(*book);
    block();
  }

  Ledger::Account of(const char* kind) { return book->read().of(kind); }
  std::map<std::string, uint64_t> givenUp(const char* kind) {
    std::map<std::string, uint64_t> reasons;
    for (const Ledger::GivenUp& each : of(kind).given_up)
      reasons[each.reason] = each.count;
    return reasons;
  }

 private:
  const bool has_hashed_identifier_;
  const test::ScratchFolder folder_;
  kit::LogLevels levels_;
  host::StderrLogSink log_;
  int sealed_ = 0;

 public:
  kit::ListLock list_lock;
  NotingStore store{folder_.path(), log_};
  std::optional<LedgerBook> book;
};

}  // namespace morvik::runtime
