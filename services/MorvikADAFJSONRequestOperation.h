// One HTTP exchange with a JSON answer.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/json_codec.h"
#include "kit/ledger.h"
#include "kit/transport.h"
#include "services/MorvikADAFHTTPClient.h"

namespace morvik::services {

/// An answer with a larger body is a failure.
inline constexpr size_t kMaxAnswerBytes = 4 * 1024 * 1024;

/// The answer had a status from 200 to 299 and a JSON object, `json`. `request` comes without its body.
using SuccessHandler =
    std::function<void(const kit::Request& request, const kit::Response& response, const kit::Value& json)>;
/// Everything else: another status, no answer (no response then), a body that is not a JSON object or is too large.
/// `json` is the body if it is JSON.
using FailureHandler = std::function<void(const kit::Request& request, const std::optional<kit::Response>& response,
                                          const kit::Error& error, const kit::Value& json)>;

/// What happens to a request that has started but does not leave at once, and what it carries.
struct Waiting {
  kit::WhenHeld when_held = kit::WhenHeld::kWaits;
  /// Runs instead of both handlers if it never left because the gate closed meanwhile. May be empty.
  std::function<void()> not_sent{};
  /// Called when it leaves, on any thread; must be short and must not throw. May be empty.
  std::function<void()> leaves{};
  /// The operation tells the ledger when it leaves and how it ends; so it does where the gate is closed at the start.
  kit::LedgerTicket ticket = 0;
};

/// What an operation needs from outside. References only.
struct RequestTools {
  kit::Transport& transport;
  const kit::JsonCodec& json;
  kit::MorvikCoreServicesLib& services;
  kit::Ledger& ledger = kit::noLedger();
};

class MorvikADAFJSONRequestOperation {
 public:
  /// An operation that is not running yet.
  static MorvikADAFJSONRequestOperation JSONRequestOperationWithRequest(const RequestTools& tools,
                                                                        MutableURLRequest request,
                                                                        SuccessHandler success, FailureHandler failure,
                                                                        Waiting waiting = {});
  /// The same, but it runs even while the forget-me flag is set or sending is off. For the erasure request alone.
  static MorvikADAFJSONRequestOperation JSONRequestOperationWithRequestIgnoreGDPR(const RequestTools& tools,
                                                                                  MutableURLRequest request,
                                                                                  SuccessHandler success,
                                                                                  FailureHandler failure);

  /// Starts the exchange and returns at once; the operation need not be kept. Exactly one of the two handlers runs,
  /// once, on the main queue, in a later turn. While the forget-me flag is set or sending is off nothing happens at
  /// all: no request, no handler, and the answer is false. The same applies after true if the gate closes
  /// before the request leaves, except for Waiting::not_sent. To be called once.
  bool start();

 private:
  struct Exchange;
  explicit MorvikADAFJSONRequestOperation(std::shared_ptr<Exchange> exchange) : exchange_(std::move(exchange)) {}
  static MorvikADAFJSONRequestOperation make(const RequestTools& tools, MutableURLRequest request,
                                             SuccessHandler success, FailureHandler failure, Waiting waiting);

  std::shared_ptr<Exchange> exchange_;
};

/// The status code to log; 0 without a response.
inline int64_t statusCode(const std::optional<kit::Response>& response) {
  return response ? response->status_code : 0;
}

}  // namespace morvik::services
