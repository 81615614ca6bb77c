// HTTP exchanges.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kit/error.h"

namespace morvik::kit {

struct HttpHeader {
  std::string name;
  std::string value;
  friend bool operator==(const HttpHeader&, const HttpHeader&) = default;
};

/// What becomes of a request that was started and has not left when the app switches sending off.
enum class WhenHeld : uint8_t {
  kWaits,   ///< in its place, until sending is on again
  kEnds,    ///< at once, as not sent: it is made anew when sending is on again
  kPasses,  ///< it leaves all the same, ahead of the others, and also under the user's wish: the erasure alone
};

/// A request as it leaves: what the platform's mutable URL request becomes once it is complete.
struct Request {
  std::string method;
  std::string url;
  std::vector<HttpHeader> headers;
  std::string body;
  /// Bounds the whole exchange, counted from the moment it leaves the transport's queue. Not set: the transport's
  /// default (60 s).
  std::optional<double> timeout_seconds;
  /// An answer with a larger body (after decoding) is a failure.
  size_t max_answer_bytes = 0;
  WhenHeld when_held = WhenHeld::kWaits;
  /// Called once, when it goes to the network, on any thread; must be short and must not throw. May be empty.
  std::function<void()> when_it_leaves;
  /// Asked once more before its first byte is handed to a connection, which may have taken long to come about; false:
  /// it ends as not sent. On any thread; must be short and must not throw. May be empty.
  std::function<bool()> may_leave;
};

struct Response {
  int status_code = 0;
  std::string url;
  std::string body;
};

/// An answer came (whatever its status), or an error says why none did. Exactly one of the two is set, but for an
/// answer whose body had to be refused (too large, undecodable): then both are, the body empty; and but for a request
/// that never left since it may not any more: then neither is.
struct TransportOutcome {
  std::optional<Response> response;
  std::optional<Error> error;

  bool isNotSent() const { return !response && !error; }
};

class Transport {
 public:
  virtual ~Transport() = default;
  /// Begins the exchange and returns at once. The request leaves after the current turn's writes are committed, unless
  /// the user has asked to be forgotten by then: it ends as not sent.
  /// `handler` runs exactly once, on the main queue, in a later turn; never after the host was shut down. Any thread.
  /// Not bounded in number; at most 6 connections a host, the rest wait in order.
  virtual void start(Request request, std::function<void(TransportOutcome)> handler) = 0;
};

}  // namespace morvik::kit
