#include "runtime/siblings/app_ad_client.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <variant>

namespace morvik::runtime {
namespace {

using OptionalTime = std::optional<AdClient::Time>;

std::optional<kit::Date> dateOf(OptionalTime time) {
  if (!time)
    return std::nullopt;
  return kit::Date{std::chrono::duration_cast<std::chrono::microseconds>(time->time_since_epoch()).count()};
}

struct Details {
  kit::Value details;
  std::optional<kit::Error> error;
};

Details readDetails(const kit::JsonCodec& json, const std::optional<std::string>& text,
                    const std::optional<std::string>& error) {
  Details result;
  if (error)
    result.error = kit::Error{*error};
  if (!text)
    return result;
  const auto read = json.read(*text);
  if (const auto* value = std::get_if<kit::Value>(&read); value != nullptr && value->isDictionary()) {
    result.details = *value;
  } else if (!result.error) {
    result.error = kit::Error{"The details that the app's ad client answered are no JSON object."};
  }
  return result;
}

}  // namespace

// Connects the app with the main queue; cut when the instance ends.
struct AppAdClient::Link {
  std::mutex mutex;
  kit::MainQueue* main_queue = nullptr;

  void post(kit::Block block) {
    const std::scoped_lock hold(mutex);
    if (main_queue != nullptr)
      main_queue->async(std::move(block));
  }
};

// The app's answer to one call. The first answer counts.
class AppAdClient::Answer {
 public:
  explicit Answer(std::shared_ptr<Link> link) : link_(std::move(link)) {}
  void post(kit::Block block) {
    if (!given_.exchange(true))
      link_->post(std::move(block));
  }

 private:
  const std::shared_ptr<Link> link_;
  std::atomic<bool> given_{false};
};

AppAdClient::AppAdClient(morvik::AdClient client, const kit::JsonCodec& json, kit::MainQueue& main_queue)
    : client_(std::move(client)), json_(json), link_(std::make_shared<Link>()) {
  link_->main_queue = &main_queue;
}

AppAdClient::~AppAdClient() {
  const std::scoped_lock hold(link_->mutex);
  link_->main_queue = nullptr;
}

void AppAdClient::requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) {
  const auto answer = std::make_shared<Answer>(link_);
  client_.requestAttributionDetails([answer, json = &json_, handler](const std::optional<std::string>& text,
                                                                     const std::optional<std::string>& error) {
    answer->post([json, handler, text, error] {
      const Details read = readDetails(*json, text, error);
      handler(read.details, read.error);
    });
  });
}

void AppAdClient::lookupAdConversionDetails(ConversionDetailsHandler handler) {
  const auto answer = std::make_shared<Answer>(link_);
  client_.lookupAdConversionDetails([answer, handler](OptionalTime purchase, OptionalTime impression) {
    answer->post([handler, purchase, impression] { handler(dateOf(purchase), dateOf(impression)); });
  });
}

void AppAdClient::determineAppInstallationAttributionWithCompletionHandler(InstallationAttributionHandler handler) {
  const auto answer = std::make_shared<Answer>(link_);
  client_.determineAppInstallationAttribution(
      [answer, handler](bool attributed) { answer->post([handler, attributed] { handler(attributed); }); });
}

}  // namespace morvik::runtime
