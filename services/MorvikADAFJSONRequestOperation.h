// One HTTP exchange with a JSON answer.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/json_codec.h"
#include "kit/transport.h"
#include "services/MorvikADAFHTTPClient.h"

namespace morvik::services {

/// An answer's body larger than this is a failure.
inline constexpr size_t kMaxAnswerBytes = 4 * 1024 * 1024;

/// The answer came with a status from 200 to 299 and a JSON object, which is `json`. `request` comes without its body.
using SuccessHandler =
    std::function<void(const kit::Request& request, const kit::Response& response, const kit::Value& json)>;
/// Everything else: another status, no answer (then without response), a body that is no JSON object, a body too large.
/// `json` is the body where it is JSON after all.
using FailureHandler = std::function<void(const kit::Request& request, const std::optional<kit::Response>& response,
                                          const kit::Error& error, const kit::Value& json)>;

/// What becomes of a request that the gate lets begin and that does not leave at once.
struct Waiting {
  kit::WhenHeld when_held = kit::WhenHeld::kWaits;
  /// Runs, in the place of both handlers, where it never left: the gate had closed for it meanwhile. May be empty.
  std::function<void()> not_sent{};
  /// Called when it leaves, on any thread; must be short and must not throw. May be empty.
  std::function<void()> leaves{};
};

/// What an operation needs from outside. References only.
struct RequestTools {
  kit::Transport& transport;
  const kit::JsonCodec& json;
  kit::MorvikCoreServicesLib& services;
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

  /// Begins the exchange and returns at once; the operation need not be kept. Exactly one of the two handlers runs,
  /// once, on the main queue, in a later turn. While the forget-me flag is set or sending is off nothing happens at
  /// all: no request, no handler, and the answer is false. The same, after true, where the gate closes before the
  /// request leaves, but for Waiting::not_sent. To be called once.
  bool start();

 private:
  struct Exchange;
  explicit MorvikADAFJSONRequestOperation(std::shared_ptr<Exchange> exchange) : exchange_(std::move(exchange)) {}
  static MorvikADAFJSONRequestOperation make(const RequestTools& tools, MutableURLRequest request,
                                             SuccessHandler success, FailureHandler failure, Waiting waiting);

  std::shared_ptr<Exchange> exchange_;
};

/// The status code to log for a response that may not be there: 0 then.
inline int64_t statusCode(const std::optional<kit::Response>& response) {
  return response ? response->status_code : 0;
}

}  // namespace morvik::services
