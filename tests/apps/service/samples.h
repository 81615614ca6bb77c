// Payloads, requests and folders for many tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apps/service/base/json.h"
#include "apps/service/base/keys.h"
#include "apps/service/base/refusal.h"
#include "apps/service/http/http_message.h"
#include "tests/support/scratch_folder.h"

namespace morvik_service::test {

inline const Keys kKeys{"app-1", "hash-secret", "tracking-secret"};

// A temporary folder, removed with the object.
class TemporaryFolder {
 public:
  std::string path(const std::string& name = "") const { return name.empty() ? folder_.path() : folder_ / name; }

 private:
  morvik::test::ScratchFolder folder_;
};

Json commonParameters();
Json conversionPayload();
Json iadPayload();
Json reEngagementPayload(std::int64_t conversion_key);
// The "deeplink_info" of a conversion.
Json facebookClick();
Json commerceClicks(const std::vector<std::string>& click_ids);
Json impression();
Json crashReport(const std::string& reason);
Json demographicsPayload();
Json erasureRequest();
Json trackingPayload(const std::vector<std::string>& event_ids);

// A ledger as a device reports it; it balances.
Json ledger(const std::string& install);

// The form body of a payload sealed with a key text.
std::string envelopeBody(const Json& payload, const std::string& key_text, const std::string& app_key = kKeys.app_key);

// A POST with the headers that a device sends.
HttpRequest post(const std::string& path, const std::string& body);
// The same with a payload sealed with the right key of kKeys.
HttpRequest postTracking(const Json& payload);
HttpRequest postConversion(const Json& payload, const std::string& path = "/v1/conversion");
// The form body of demographics.
std::string hexadecimalBody(const Json& payload, const std::string& key_text = kKeys.tracking_key);
// A POST of a JSON body, and a GET, with the headers that a device sends.
HttpRequest postJson(const std::string& path, const std::string& body);
HttpRequest get(const std::string& path);
// A request to the inspection from this machine.
HttpRequest inspection(const std::string& method, const std::string& path, const std::string& body = "");

// The refusal that `act` throws; fails the test if it throws none.
Refusal refusalOf(const std::function<void()>& act);

}  // namespace morvik_service::test
