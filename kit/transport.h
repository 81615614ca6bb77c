// HTTP exchanges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kit/error.h"
#include "kit/ledger.h"

namespace morvik::kit {

struct HttpHeader {
  std::string name;
  std::string value;
  friend bool operator==(const HttpHeader&, const HttpHeader&) = default;
};

/// What happens to a request that was started and has not left when the app switches sending off.
enum class WhenHeld : uint8_t {
  kWaits,   ///< keeps its place until sending is on again
  kEnds,    ///< ends at once, as not sent: it is made again when sending is on again
  kPasses,  ///< leaves anyway, ahead of the others, even under the user's wish: only the erasure
};

/// A request as it leaves; the platform's mutable URL request, once complete.
struct Request {
  std::string method;
  std::string url;
  std::vector<HttpHeader> headers;
  std::string body;
  /// Limit for the whole exchange, counted from when it leaves the transport's queue. Not set: the transport's default
  /// (60 s).
  std::optional<double> timeout_seconds;
  /// Of what it carries; 0: of nothing that the ledger counts.
  LedgerTicket ledger_ticket = 0;
  /// An answer with a larger body (after decoding) is a failure.
  size_t max_answer_bytes = 0;
  WhenHeld when_held = WhenHeld::kWaits;
  /// Called once, when it goes to the network, on any thread; must be short and must not throw. May be empty.
  std::function<void()> when_it_leaves;
  /// Asked again before its first byte is passed to a connection, which may have taken long to establish; false: it
  /// ends as not sent. On any thread; must be short and must not throw. May be empty.
  std::function<bool()> may_leave;
};

struct Response {
  int status_code = 0;
  std::string url;
  std::string body;
};

/// An answer (with any status), or an error that says why there is none. Exactly one is set, with two exceptions: if
/// the body had to be refused (too large, undecodable), both are set and the body is empty; if the request never left
/// because it no longer may, neither is set.
struct TransportOutcome {
  std::optional<Response> response;
  std::optional<Error> error;

  bool isNotSent() const { return !response && !error; }
};

class Transport {
 public:
  virtual ~Transport() = default;
  /// Begins the exchange and returns at once. The request leaves after the current turn's writes are committed, unless
  /// the user has asked to be forgotten by then: it ends as not sent. `handler` runs exactly once, on the main queue,
  /// in a later turn; never after the shutdown. Any thread. Unbounded in number; at most 6 connections per host, the
  /// rest wait in order.
  virtual void start(Request request, std::function<void(TransportOutcome)> handler) = 0;
};

}  // namespace morvik::kit
