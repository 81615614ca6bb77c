#include "services/MorvikADAFJSONRequestOperation.h"

#include <string>

namespace morvik::services {

struct MorvikADAFJSONRequestOperation::Exchange {
  RequestTools tools;
  kit::Request request;
  SuccessHandler success;
  FailureHandler failure;
  Waiting waiting;

  void finish(const kit::TransportOutcome& outcome);
  bool isFollowed() const { return waiting.ticket != 0; }

 private:
  void run(const kit::TransportOutcome& outcome, kit::LedgerEnd& end);
  void succeed(const kit::Response& response, const kit::Value& json);
  void fail(const std::optional<kit::Response>& response, const kit::Error& error, const kit::Value& json,
            kit::LedgerEnd& end);
};

namespace {

bool isSuccessStatus(int status_code) {
  return status_code >= 200 && status_code <= 299;
}

}  // namespace

/// The ledger is told of the end whatever a handler throws.
void MorvikADAFJSONRequestOperation::Exchange::finish(const kit::TransportOutcome& outcome) {
  struct Ending {
    const Exchange& exchange;
    kit::LedgerEnd end{};
    ~Ending() {
      if (exchange.isFollowed())
        exchange.tools.ledger.ended(exchange.waiting.ticket, end);
    }
  } ending{*this};
  run(outcome, ending.end);
}

void MorvikADAFJSONRequestOperation::Exchange::run(const kit::TransportOutcome& outcome, kit::LedgerEnd& end) {
  if (outcome.isNotSent()) {
    end.was_sent = false;
    if (isFollowed())
      tools.ledger.answered(waiting.ticket, kit::LedgerAnswer::kNotAccepted);
    if (waiting.not_sent)
      waiting.not_sent();
    return;
  }
  if (outcome.error)
    return fail(outcome.response, *outcome.error, {}, end);
  const kit::Response& response = *outcome.response;
  const auto read = tools.json.read(response.body);
  const auto* json = std::get_if<kit::Value>(&read);
  if (!isSuccessStatus(response.status_code)) {
    return fail(response, {"The server answered with status " + std::to_string(response.status_code) + "."},
                json != nullptr ? *json : kit::Value(), end);
  }
  if (json == nullptr)
    return fail(response, std::get<kit::Error>(read), {}, end);
  if (!json->isDictionary())
    return fail(response, {"The answer is JSON, but not an object."}, *json, end);
  end.status_code = response.status_code;
  succeed(response, *json);
}

void MorvikADAFJSONRequestOperation::Exchange::succeed(const kit::Response& response, const kit::Value& json) {
  tools.services.exchangeDidEnd(request,
                                {.succeeded = true, .json = json, .status_code = response.status_code, .error = {}});
  if (success)
    success(request, response, json);
}

void MorvikADAFJSONRequestOperation::Exchange::fail(const std::optional<kit::Response>& response,
                                                    const kit::Error& error, const kit::Value& json,
                                                    kit::LedgerEnd& end) {
  const int status_code = response ? response->status_code : 0;
  end = {.status_code = status_code, .error = error.message};
  if (isFollowed())
    tools.ledger.answered(waiting.ticket, kit::LedgerAnswer::kNotAccepted);
  tools.services.exchangeDidEnd(request,
                                {.succeeded = false, .json = json, .status_code = status_code, .error = error});
  if (failure)
    failure(request, response, error, json);
}

MorvikADAFJSONRequestOperation MorvikADAFJSONRequestOperation::make(const RequestTools& tools,
                                                                    MutableURLRequest request, SuccessHandler success,
                                                                    FailureHandler failure, Waiting waiting) {
  return MorvikADAFJSONRequestOperation(std::make_shared<Exchange>(
      Exchange{tools, std::move(request).request(), std::move(success), std::move(failure), std::move(waiting)}));
}

MorvikADAFJSONRequestOperation MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequest(
    const RequestTools& tools, MutableURLRequest request, SuccessHandler success, FailureHandler failure,
    Waiting waiting) {
  return make(tools, std::move(request), std::move(success), std::move(failure), std::move(waiting));
}

MorvikADAFJSONRequestOperation MorvikADAFJSONRequestOperation::JSONRequestOperationWithRequestIgnoreGDPR(
    const RequestTools& tools, MutableURLRequest request, SuccessHandler success, FailureHandler failure) {
  return make(tools, std::move(request), std::move(success), std::move(failure), {.when_held = kit::WhenHeld::kPasses});
}

bool MorvikADAFJSONRequestOperation::start() {
  const kit::MorvikCoreServicesLib& services = exchange_->tools.services;
  const kit::WhenHeld when_held = exchange_->waiting.when_held;
  if (when_held != kit::WhenHeld::kPasses && (services.isGDPRForgetMe() || services.isSendingOff())) {
    if (exchange_->isFollowed())
      exchange_->tools.ledger.ended(exchange_->waiting.ticket, {.was_sent = false});
    return false;
  }
  // The body may be large and is given away; the handlers get the rest of the request.
  std::string body = std::move(exchange_->request.body);
  exchange_->request.body.clear();
  exchange_->request.ledger_ticket = exchange_->waiting.ticket;
  kit::Request leaving = exchange_->request;
  leaving.body = std::move(body);
  leaving.max_answer_bytes = kMaxAnswerBytes;
  leaving.when_held = when_held;
  leaving.when_it_leaves = exchange_->isFollowed() ? [exchange = exchange_] {
    exchange->tools.ledger.departed(exchange->waiting.ticket);
    if (exchange->waiting.leaves)
      exchange->waiting.leaves();
  } : exchange_->waiting.leaves;
  exchange_->tools.transport.start(
      std::move(leaving), [exchange = exchange_](const kit::TransportOutcome& outcome) { exchange->finish(outcome); });
  return true;
}

}  // namespace morvik::services
