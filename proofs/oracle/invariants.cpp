#include "proofs/oracle/invariants.h"

#include <algorithm>
#include <set>
#include <utility>

#include "proofs/oracle/known_log_texts.h"
#include "proofs/oracle/payload_values.h"
#include "proofs/oracle/removal_rules.h"
#include "services/json_writer.h"

namespace morvik::proofs {
namespace {

using testing::ServiceEndpoint;

/// What a request may take beyond its time-out.
constexpr double kReturnSlackSeconds = 1;
/// Requests at one host wait for each other: six leave at a time, and no time-out is longer than a minute.
constexpr double kLongestQueueSeconds = 1'800;
constexpr double kConversionDelaySeconds = 10;

std::string numberText(uint64_t number) {
  return std::to_string(number);
}

constexpr RecordKind kindAt(size_t index) {
  return static_cast<RecordKind>(index);
}

/// What was given up of a kind for a reason, by the ledger.
uint64_t givenUp(const Ledger::Account& account, const RemovalRule& rule) {
  for (const Ledger::GivenUp& each : account.given_up) {
    if (each.reason == rule.words)
      return each.count;
  }
  return 0;
}

/// It balances, and what it gave up stands in the table of rules.
class LedgerIsSound final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kLedgerIsSound; }

  void stepEnds() override {
    if (!facts().ledger)
      return;
    for (const Ledger::Account& account : facts().ledger->accounts) {
      if (!account.balances())
        complain(account.kind + ": " + numberText(account.recorded) + " recorded, " + numberText(account.delivered) +
                 " delivered, " + numberText(account.stored) + " stored, " + numberText(account.under_way) +
                 " under way, " + numberText(account.givenUp()) + " given up");
      if (account.found_uncounted != 0)
        complain(account.kind + ": " + numberText(account.found_uncounted) + " found uncounted");
      for (const Ledger::GivenUp& each : account.given_up) {
        if (!isRule(account.kind, each))
          complain(account.kind + ": " + numberText(each.count) + " " + each.reason);
      }
    }
  }

 private:
  static bool isRule(const std::string& kind, const Ledger::GivenUp& given_up) {
    const auto rules = removalRules();
    return std::any_of(rules.begin(), rules.end(), [&](const RemovalRule& rule) {
      return given_up.reason == rule.words && kind == kRecordKindNames[indexOf(rule.kind)];
    });
  }
};

/// It says no more and no less than what was seen from outside.
class LedgerAgrees final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kLedgerAgrees; }

  void stepEnds() override {
    if (!facts().ledger || !facts().knows_its_store)
      return;
    for (size_t i = 0; i < kRecordKinds; ++i)
      checkKind(kindAt(i), facts().ledger->of(kRecordKindNames[i]));
    for (const RemovalRule& rule : removalRules())
      checkRule(rule);
  }

 private:
  void checkKind(RecordKind kind, const Ledger::Account& account) {
    const ExpectedCounts counts = facts().records.counts(kind);
    needBetween(account.kind + " recorded", account.recorded, counts.recorded_least, counts.recorded_most);
    needBetween(account.kind + " stored", account.stored, counts.stored, counts.stored);
    // A click that is kept once more although it was accepted may be delivered once more.
    needBetween(account.kind + " delivered", account.delivered, 0, counts.arrived + counts.recorded_again);
    if (facts().exchanges.empty())
      needBetween(account.kind + " under way, without a request", account.under_way, 0, 0);
    const uint64_t known = account.delivered + account.stored + account.under_way + account.givenUp();
    if (counts.arrived_for_good > known)
      complain(account.kind + ": " + numberText(counts.arrived_for_good) + " arrived, and the ledger knows of " +
               numberText(known));
    if (counts.gone > account.givenUp())
      complain(account.kind + ": " + numberText(counts.gone) + " are gone, and the ledger gave up " +
               numberText(account.givenUp()));
  }

  void needBetween(const std::string& what, uint64_t is, uint64_t least, uint64_t most) {
    if (is < least || is > most)
      complain(what + ": " + numberText(is) + " by the ledger, seen " + numberText(least) +
               (most == least ? "" : " to " + numberText(most)));
  }

  /// It names no reason that nothing gave occasion for.
  void checkRule(const RemovalRule& rule) {
    const char* const kind = kRecordKindNames[indexOf(rule.kind)];
    const uint64_t by_ledger = givenUp(facts().ledger->of(kind), rule);
    if (by_ledger == 0)
      return;
    const uint64_t possible = facts().records.permitted(rule.kind, rule.reason);
    if (by_ledger > possible)
      complain(std::string(kind) + ": " + numberText(by_ledger) + " " + rule.words + ", and only " +
               numberText(possible) + " can have been");
  }
};

class NothingIsLost final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kNothingIsLost; }

  void stepEnds() override {
    if (!facts().is_alive || !facts().knows_its_store)
      return;
    for (const RecordNumber number : facts().records.lost()) {
      if (told_.insert(number).second)
        complain(std::string(kRecordKindNames[indexOf(facts().records[number].kind)]) + ": " +
                 facts().records[number].name);
    }
  }

 private:
  std::set<RecordNumber> told_;
};

/// The slot is freed when a session starts and when a batch is answered; each process begins with a free one.
class OneBatchPerSlot final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kOneBatchPerSlot; }

  void processBegins() override {
    is_free_ = true;
    starts_ = 0;
  }
  void sessionRequested() override { ++starts_; }
  void loopIdle() override {
    if (std::exchange(starts_, 0) > 0)
      is_free_ = true;
  }
  void exchangeEnds(const RunExchange& exchange, const std::optional<kit::Value>&) override {
    if (exchange.endpoint == ServiceEndpoint::kTracking)
      is_free_ = true;
  }
  void requestStarts(const RunExchange& exchange) override {
    if (exchange.endpoint != ServiceEndpoint::kTracking)
      return;
    const bool was_free = std::exchange(is_free_, false);
    if (was_free)
      return;
    if (starts_ > 0)
      --starts_;
    else
      complain("a batch of " + numberText(exchange.records.size()) + " left, and the slot was taken");
  }

 private:
  bool is_free_ = true;
  uint64_t starts_ = 0;  ///< asked for, and maybe done
};

class SentOnce final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kSentOnce; }

  void requestStarts(const RunExchange& exchange) override {
    if (exchange.endpoint != ServiceEndpoint::kTracking)
      return;
    for (const RecordNumber number : exchange.records) {
      const ExpectedRecord& record = facts().records[number];
      if (record.kind == RecordKind::kActivities && record.trimmed_from != kNever)
        complain(record.name);
    }
  }
};

class ForgottenIsSilent final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kForgottenIsSilent; }

  void requestStarts(const RunExchange& exchange) override { check(exchange); }
  void requestLeaves(const RunExchange& exchange) override { check(exchange); }

 private:
  void check(const RunExchange& exchange) {
    const bool knows = facts().knows_its_store || facts().wish_is_in_its_file;
    const bool is_forgotten = facts().is_forgotten || (facts().wants_to_be_forgotten && knows);
    if (is_forgotten && exchange.endpoint != ServiceEndpoint::kErasure)
      complain(exchange.url);
  }
};

class OneClickPerKey final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kOneClickPerKey; }

  void valueSet(std::string_view key, const kit::Value& value) override {
    if (key != "reEngagementInfos")
      return;
    std::set<int64_t> keys;
    for (const kit::Value& click : value.array()) {
      if (!keys.insert(conversionKeyOf(click)).second)
        complain(services::jsonDescription(value));
    }
  }
};

class CountsInBounds final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kCountsInBounds; }

  void valueSet(std::string_view key, const kit::Value& value) override {
    if (key != "reEngagementConversionFailedCnt")
      return;
    for (const kit::Value& count : value.array()) {
      const int64_t failures = failuresOf(count);
      if (failures < kFirstClickFailure || failures > kLastClickFailureToResend + 1)
        complain(services::jsonDescription(value));
    }
  }
};

class RetriesInBounds final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kRetriesInBounds; }

  void processBegins() override { retries_ = refetches_ = 0; }
  void exchangeEnds(const RunExchange& exchange, const std::optional<kit::Value>& answer) override {
    if (exchange.endpoint == ServiceEndpoint::kConversion && answer)
      retries_ = refetches_ = 0;
  }
  void blockPostponed(double delay_seconds) override {
    if (delay_seconds != kConversionDelaySeconds)
      return;
    const RunExchange* const handled = facts().handled();
    if (handled != nullptr && handled->endpoint == ServiceEndpoint::kConversion) {
      if (++retries_ > kMaxRetries)
        complain(numberText(retries_) + " retries");
    } else if (++refetches_ > kMaxRefetches) {
      complain(numberText(refetches_) + " re-fetches");
    }
  }

 private:
  uint64_t retries_ = 0;
  uint64_t refetches_ = 0;
};

class RequestsReturn final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kRequestsReturn; }

  void stepEnds() override {
    for (const auto& [number, exchange] : facts().exchanges) {
      const double due = exchange.left_at ? *exchange.left_at + exchange.timeout_seconds + kReturnSlackSeconds
                                          : exchange.started_at + kLongestQueueSeconds;
      if (facts().now > due && told_.insert(number).second)
        complain(exchange.url + (exchange.left_at ? " was never answered" : " never left"));
    }
  }

 private:
  std::set<uint64_t> told_;
};

class AllGoesOut final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kAllGoesOut; }

  void stepEnds() override {
    if (!facts().is_all_well)
      return;
    for (size_t kind = 0; kind < kRecordKinds; ++kind) {
      // The "end" of a session waits for the next one.
      const uint64_t may_wait = kindAt(kind) == RecordKind::kActivities ? 1 : 0;
      const uint64_t waiting = facts().records.stored(kindAt(kind)).size();
      if (waiting > may_wait)
        complain(std::string(kRecordKindNames[kind]) + ": " + numberText(waiting) + " wait");
    }
  }
};

class WishesAreKept final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kWishesAreKept; }

  void stepEnds() override {
    const bool knows = facts().knows_its_store || facts().wish_is_in_its_file;
    if (facts().is_alive && knows && facts().wants_to_be_forgotten && !facts().is_forgotten)
      complain("the user asked to be forgotten, and the process does not know");
    if (facts().is_alive && facts().knows_its_store && facts().has_withdrawn && facts().is_forgotten)
      complain("the user took the wish to be forgotten back, and the process does not know");
  }
};

class OneDevice final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kOneDevice; }

  void stepEnds() override {
    if (facts().installs > 1 && std::exchange(told_, facts().installs) != facts().installs)
      complain(numberText(facts().installs) + " installs");
  }

 private:
  uint64_t told_ = 0;
};

class LinesAreKnown final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kLinesAreKnown; }

  void lineLogged(std::string_view line) override {
    const LogLineKind kind = kindOfLogLine(line);
    if (kind != LogLineKind::kKnown)
      complain((kind == LogLineKind::kAlarm ? "an alarm: " : "") + std::string(line));
  }
};

class AnswersAreTrue final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kAnswersAreTrue; }

  void answered(Recorded told, Recorded rightly) override {
    if (told != rightly)
      complain(std::string(toText(told)) + " in the place of: " + std::string(toText(rightly)));
  }
};

class NewerStoreStays final : public Invariant {
 public:
  using Invariant::Invariant;
  const char* name() const override { return kNewerStoreStays; }

  void storeFileChanges(std::string_view path) override {
    if (facts().is_next_to_newer)
      complain(std::string(path));
  }
};

template <class... Checkers>
std::vector<std::unique_ptr<Invariant>> oneOfEach(const RunFacts& facts, const Invariant::Complain& complain) {
  std::vector<std::unique_ptr<Invariant>> invariants;
  (invariants.push_back(std::make_unique<Checkers>(facts, complain)), ...);
  return invariants;
}

}  // namespace

size_t RunFacts::underWay(ServiceEndpoint endpoint) const {
  return static_cast<size_t>(std::count_if(exchanges.begin(), exchanges.end(),
                                           [endpoint](const auto& each) { return each.second.endpoint == endpoint; }));
}

const RunExchange* RunFacts::handled() const {
  const auto found = exchanges.find(handling);
  return found == exchanges.end() ? nullptr : &found->second;
}

std::vector<std::unique_ptr<Invariant>> makeInvariants(const RunFacts& facts, const Invariant::Complain& complain) {
  return oneOfEach<LedgerIsSound, LedgerAgrees, NothingIsLost, OneBatchPerSlot, SentOnce, ForgottenIsSilent,
                   OneClickPerKey, CountsInBounds, RetriesInBounds, RequestsReturn, AllGoesOut, WishesAreKept,
                   LinesAreKnown, AnswersAreTrue, NewerStoreStays, OneDevice>(facts, complain);
}

std::vector<std::string> complaintNames() {
  std::vector<std::string> names;
  const RunFacts facts;
  for (const auto& invariant : makeInvariants(facts, {}))
    names.emplace_back(invariant->name());
  names.emplace_back(kRequestsAreGood);
  names.emplace_back(kBroken);
  return names;
}

}  // namespace morvik::proofs
