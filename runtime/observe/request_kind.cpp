#include "runtime/observe/request_kind.h"

#include <algorithm>

#include "runtime/ledger/ledger_exchange.h"
#include "services/converters.h"
#include "services/endpoints.h"

namespace morvik::runtime {
namespace {

constexpr std::array<std::string_view, kDeliveringRequestKinds + 1> kNames = {"conversion",
                                                                              "third party conversion",
                                                                              "iAd attribution",
                                                                              "batch of activities",
                                                                              "re-engagement click",
                                                                              "commerce clicks",
                                                                              "crash reports",
                                                                              "demographics",
                                                                              "erasure",
                                                                              "question"};

}  // namespace

RequestKinds::RequestKinds(const kit::Endpoints& endpoints)
    : urls_{endpoints.kFendoConversionBaseLiveUrl + services::kConversionPath,
            endpoints.kFendoConversionBaseLiveUrl + services::kThirdPartyConversionPath,
            endpoints.kFendoConversionBaseLiveUrl + services::kIADAttributionPath,
            endpoints.kFendoTrackingBaseLiveUrl + services::kTrackingPath,
            endpoints.kFendoConversionBaseLiveUrl + services::kReEngagementConversionPath,
            endpoints.kCommerceBaseLiveUrl + services::kCommerceConversionPath,
            endpoints.kCrashReportBaseLiveUrl + services::kCrashReportPath,
            endpoints.kFendoTrackingBaseLiveUrl + services::kSetDemographicPath,
            endpoints.kGdprReqUrl + services::kGdprReqUrlPath} {}

RequestKind RequestKinds::of(std::string_view url) const {
  const auto* found = std::find(urls_.begin(), urls_.end(), url);
  return static_cast<RequestKind>(found - urls_.begin());
}

std::string_view nameOf(RequestKind kind) {
  return kNames[static_cast<size_t>(kind)];
}

bool isAccepted(RequestKind kind, const kit::ExchangeResult& result) {
  if (!result.succeeded)
    return false;
  switch (kind) {
    case RequestKind::kCommerceClicks:
      return isAcceptance(LedgerEndpoint::kCommerce, result.json);
    case RequestKind::kCrashReports:
      return isAcceptance(LedgerEndpoint::kCrash, result.json);
    case RequestKind::kErasure:
    case RequestKind::kQuestion:
      return true;
    default:
      return services::checkNilToNo(result.json["Result"]);
  }
}

}  // namespace morvik::runtime
