// The app's advertising client, as the core object sees it.
#pragma once

#include <memory>

#include "kit/ad_client.h"
#include "kit/json_codec.h"
#include "kit/queues.h"
#include "morvik/start_options.h"

namespace morvik::runtime {

/// Brings the answers to the main queue, in a later turn; only the first of each call. Details that are no JSON object
/// count as absent, with an error that says so. Answers after the instance's end are dropped.
class AppAdClient final : public kit::AdClient {
 public:
  AppAdClient(morvik::AdClient client, const kit::JsonCodec& json, kit::MainQueue& main_queue);
  ~AppAdClient() override;
  AppAdClient(const AppAdClient&) = delete;
  AppAdClient& operator=(const AppAdClient&) = delete;

  bool offersAttributionDetails() const override { return client_.requestAttributionDetails != nullptr; }
  bool offersConversionDetails() const override { return client_.lookupAdConversionDetails != nullptr; }
  bool offersInstallationAttribution() const override { return client_.determineAppInstallationAttribution != nullptr; }

  void requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) override;
  void lookupAdConversionDetails(ConversionDetailsHandler handler) override;
  void determineAppInstallationAttributionWithCompletionHandler(InstallationAttributionHandler handler) override;

 private:
  struct Link;
  class Answer;
  const morvik::AdClient client_;
  const kit::JsonCodec& json_;
  const std::shared_ptr<Link> link_;  ///< shared with what the app was handed, which may outlive this
};

}  // namespace morvik::runtime
