// What is under way: sealed payloads, the requests that carry them, and which request carries a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "kit/value.h"
#include "runtime/ledger/ledger_exchange.h"
#include "runtime/ledger/ledger_reasons.h"
#include "runtime/ledger/list_change.h"

namespace morvik::runtime {

/// Sealed payloads whose request has not left. Each leaves at once or never; beyond this the oldest is forgotten.
inline constexpr size_t kMaxUnsentPayloads = 4;

/// Plain; not thread-safe, although it knows the thread on which a handler runs.
class LedgerExchanges {
 public:
  // Sealed, but not yet a request.
  /// `sealed`: the text that carries it. A batch replaces one that has not left.
  void wasSealed(std::string_view sealed, LedgerExchange payload);
  /// For the request with this form as its body. A request with an unknown payload carries nothing.
  LedgerExchange takeSealed(LedgerEndpoint endpoint, std::string_view body);

  // Under way, each with a number of its own.
  uint64_t begin(LedgerExchange exchange);
  /// Null if it is not under way. Valid until it ends.
  const LedgerExchange* find(uint64_t id) const;
  /// The handler begins on this thread. One at a time.
  void handlerBegins(uint64_t id);
  /// The exchange whose handler runs on this thread, or null.
  LedgerExchange* running();
  /// Its number, or that of one running on another thread; 0: none.
  uint64_t runningId() const { return running_; }
  /// Whether any handler runs, on any thread.
  bool isAnyRunning() const { return running_ != 0; }
  /// The handler has returned.
  LedgerExchange end(uint64_t id);

  // What they carry.
  /// Whether one leaves out the "end" of a kept session with this id. Includes batches that isNotedAlone() covers.
  bool isLeftOut(const kit::Value& event_id) const;
  /// Whether this event's id is noted although its batch is not under way: the batch was sealed but has not left
  /// (without a referral record none leaves), or was answered but not accepted.
  bool isNotedAlone(const kit::Value& event_id);
  /// The store holds a click now that only a request held until then. False: no request held it.
  bool noteStoredClick(const kit::Value& click);
  /// The numbers of those that carry this version of a demographic value, except `except`.
  std::vector<uint64_t> carriersOfValue(size_t slot, uint64_t version, const LedgerExchange* except) const;
  /// The stored list has lost these.
  void listShrank(LedgerKind kind, const ListChange& change);

 private:
  friend class LedgerCarriers;
  struct Unsent {
    std::string mark;  ///< of the sealed text
    LedgerExchange exchange;
  };
  std::map<uint64_t, LedgerExchange> exchanges_;
  uint64_t last_exchange_ = 0;
  std::vector<Unsent> unsent_;
  std::optional<LedgerExchange> refused_;  ///< the latest batch answered but not accepted, until the next
  uint64_t running_ = 0;
  std::thread::id running_thread_;
};

/// Which requests carry a record that leaves its list; asked in list order. Looks them up on first use; none may begin
/// or end meanwhile.
class LedgerCarriers {
 public:
  /// Leaves out `except`, which may be null. `exchanges` outlives it.
  LedgerCarriers(LedgerExchanges& exchanges, LedgerKind kind, const LedgerExchange* except)
      : exchanges_(exchanges), kind_(kind), except_(except) {}
  /// Their numbers; valid until the next call.
  const std::vector<uint64_t>& of(const kit::Value& record, size_t index);

 private:
  LedgerExchanges& exchanges_;
  const LedgerKind kind_;
  const LedgerExchange* const except_;
  bool are_others_known_ = false;
  std::vector<std::pair<uint64_t, LedgerExchange*>> others_;  ///< to the same endpoint
  std::vector<uint64_t> carriers_;
};

}  // namespace morvik::runtime
