// An advertising client with scripted operations and answers.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <tuple>
#include <utility>

#include "kit/ad_client.h"
#include "kit/queues.h"

namespace morvik::testing {

/// One operation, with answers of these types. Main queue only, like the port.
template <class... Answer>
class AdOperation {
 public:
  using Handler = std::function<void(Answer...)>;

  explicit AdOperation(kit::MainQueue& main_queue) : main_queue_(main_queue) {}

  /// Whether the system offers the operation; initially it does not.
  void setOffered(bool offered) { offered_ = offered; }
  bool isOffered() const { return offered_; }
  /// From now on every call gets this answer, in a later turn. Offers the operation.
  void answerEveryCall(Answer... answer) {
    offered_ = true;
    standing_answer_.emplace(std::move(answer)...);
  }
  /// From now on calls wait for answer(). Offers the operation.
  void letCallsWait() {
    offered_ = true;
    standing_answer_.reset();
  }
  /// Answers the call that has waited longest, in a later turn; false when none waits.
  bool answer(Answer... answer) {
    if (waiting_.empty())
      return false;
    post(std::move(waiting_.front()), {std::move(answer)...});
    waiting_.pop_front();
    return true;
  }
  size_t waiting() const { return waiting_.size(); }
  size_t calls() const { return calls_; }
  /// The process dies: waiting calls are never answered.
  void forgetWaiting() { waiting_.clear(); }

  /// The call itself.
  void call(Handler handler) {
    ++calls_;
    if (standing_answer_) {
      post(std::move(handler), *standing_answer_);
    } else {
      waiting_.push_back(std::move(handler));
    }
  }

 private:
  void post(Handler handler, std::tuple<Answer...> answer) {
    main_queue_.async([handler = std::move(handler), answer = std::move(answer)] { std::apply(handler, answer); });
  }

  kit::MainQueue& main_queue_;
  bool offered_ = false;
  std::optional<std::tuple<Answer...>> standing_answer_;
  std::deque<Handler> waiting_;
  size_t calls_ = 0;
};

class FakeAdClient : public kit::AdClient {
 public:
  explicit FakeAdClient(kit::MainQueue& main_queue)
      : attribution_details(main_queue), conversion_details(main_queue), installation_attribution(main_queue) {}

  AdOperation<kit::Value, std::optional<kit::Error>> attribution_details;
  AdOperation<std::optional<kit::Date>, std::optional<kit::Date>> conversion_details;
  AdOperation<bool> installation_attribution;

  bool offersAttributionDetails() const override { return attribution_details.isOffered(); }
  bool offersConversionDetails() const override { return conversion_details.isOffered(); }
  bool offersInstallationAttribution() const override { return installation_attribution.isOffered(); }
  void requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) override {
    attribution_details.call(std::move(handler));
  }
  void lookupAdConversionDetails(ConversionDetailsHandler handler) override {
    conversion_details.call(std::move(handler));
  }
  void determineAppInstallationAttributionWithCompletionHandler(InstallationAttributionHandler handler) override {
    installation_attribution.call(std::move(handler));
  }
  /// The process dies.
  void kill() {
    attribution_details.forgetWaiting();
    conversion_details.forgetWaiting();
    installation_attribution.forgetWaiting();
  }
};

}  // namespace morvik::testing
