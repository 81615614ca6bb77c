// The service endpoints' base URLs, set by the app (own service, data residency). Paths are in services/endpoints.h.
#pragma once

#include <string>

namespace morvik::kit {

/// Base URLs end with a slash, paths begin without one. The defaults are under a reserved domain and reach nobody.
struct Endpoints {
  std::string kFendoTrackingBaseLiveUrl = "https://tracking.morvik.example/";
  std::string kFendoConversionBaseLiveUrl = "https://conversion.morvik.example/";
  std::string kFendoCampaignBaseLiveUrl = "https://campaign.morvik.example/";
  std::string kCommerceBaseLiveUrl = "https://commerce.morvik.example/";
  std::string kCrashReportBaseLiveUrl = "https://crash.morvik.example/";
  std::string kGdprReqUrl = "https://erasure.morvik.example/";
  std::string KAppConfigBaseLiveUrl = "https://config.morvik.example/";
};

}  // namespace morvik::kit
