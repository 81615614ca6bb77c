#include "tests/apps/service/samples.h"

#include <gtest/gtest.h>

#include "apps/service/base/base64url.h"
#include "tests/apps/service/sealing.h"

namespace morvik_service::test {

Json commonParameters() {
  Json payload = Json::object();
  for (const char* name : {"appkey", "sdk_version", "os_type", "os_version", "device_model", "language", "country",
                           "timezone", "app_version_name", "app_version_code", "package_name", "idfa", "puid",
                           "install_id", "network", "carrier", "portrait"}) {
    payload[name] = std::string("a ") + name;
  }
  return payload;
}

Json conversionPayload() {
  Json payload = commonParameters();
  payload["activity_info"] = Json::array({{{"group", "session"},
                                           {"activity", "start"},
                                           {"param", ""},
                                           {"created_at", "20260304050607"},
                                           {"prev_group", ""},
                                           {"prev_activity", ""}}});
  payload["searchads_response"] = "";
  return payload;
}

Json iadPayload() {
  Json payload = commonParameters();
  payload["iAd"] = {{"appPurchaseDate", "20260304050607"}, {"iAdImpressionDate", "20260304050608"}};
  return payload;
}

Json reEngagementPayload(std::int64_t conversion_key) {
  Json payload = commonParameters();
  payload["deeplink_info"] = {{"session_no", 5},
                              {"conversion_key", conversion_key},
                              {"deeplink_uri", "myapp://offer/7?ck=" + std::to_string(conversion_key)},
                              {"sub_conversion_key", "sub"},
                              {"is_first_launch", false}};
  return payload;
}

Json facebookClick() {
  return {{"conversion_key", 99}, {"deeplink_uri", "myapp://offer/9?ck=99"}, {"sub_conversion_key", ""}};
}

Json commerceClicks(const std::vector<std::string>& click_ids) {
  Json clicks = Json::array();
  for (const std::string& id : click_ids)
    clicks.push_back({{"clickId", id}, {"idfa", "an idfa"}, {"mtime", 1709251199999.25}});
  return clicks;
}

Json impression() {
  return {{"campaign_key", 7},   {"space_key", "banner"}, {"resource_key", 8},
          {"conversion_key", 9}, {"isFirstTime", true},   {"created_at", "20260304050607"}};
}

Json crashReport(const std::string& reason) {
  Json report = Json::object();
  for (const char* name :
       {"idfa", "os_type", "os_version", "app_version_name", "app_version_code", "install_datetime", "package_name",
        "common_sdk_version", "kesmo_sdk_version", "fendo_sdk_version", "kesmo_display_ads", "commerce_sdk_version",
        "coupon_sdk_version", "brisel_sdk_version", "quint_sdk_version", "local_kst_time", "exception_log_trace"}) {
    report[name] = std::string("a ") + name;
  }
  report["appkey"] = kKeys.app_key;
  report["exception_reason"] = reason;
  report["device_information"] = {{"app_in_focus", true},
                                  {"root_device", false},
                                  {"device_model", "a device_model"},
                                  {"free_device_storage", 12345678901},
                                  {"free_memory", "812.4 MB"}};
  return report;
}

Json demographicsPayload() {
  return {{"puid", "a puid"},
          {"user_demo_info",
           {{{"demo_key", "age"}, {"demo_value", 27}},
            {{"demo_key", "gender"}, {"demo_value", 2}},
            {{"demo_key", "userId"}, {"demo_value", "someone"}}}}};
}

Json erasureRequest() {
  Json request = {{"subject_request_id", "3F2504E0-4F89-41D3-9A0C-0305E82C3301"},
                  {"subject_request_type", "erasure"},
                  {"submitted_time", "2024-02-29T23:59:59Z"},
                  {"api_version", "1.0"},
                  {"status_callback_urls", ""}};
  request["subject_identities"] = Json::array(
      {{{"identity_type", "ios_advertising_id"}, {"identity_value", "an idfa"}, {"identity_format", "raw"}}});
  request["extensions"]["erasure.morvik.example"] = {{"appkey", kKeys.app_key}, {"type", "classic"}};
  return request;
}

Json trackingPayload(const std::vector<std::string>& event_ids) {
  Json payload = commonParameters();
  payload["activity_info"] = Json::array();
  for (const std::string& id : event_ids) {
    payload["activity_info"].push_back({{"group", "shop"},
                                        {"activity", "view"},
                                        {"param", ""},
                                        {"prev_group", ""},
                                        {"prev_activity", ""},
                                        {"created_at", "20260304050607"},
                                        {"event_id", id}});
  }
  payload["impression_info"] = Json::array();
  return payload;
}

Json ledger(const std::string& install) {
  const auto account = [](const char* kind, int recorded, int delivered, int others) {
    return Json{{"kind", kind},        {"recorded", recorded}, {"delivered", delivered}, {"stored", others},
                {"under_way", others}, {"given_up", others},   {"found_uncounted", 0}};
  };
  return {
      {"install", install},
      {"accounts", Json::array({account("activities", 6, 3, 1), account("impressions", 0, 0, 0)})},
      {"given_up", Json::array({Json{{"kind", "activities"}, {"count", 1}, {"reason", "a rule"}, {"by_rule", true}}})}};
}

std::string envelopeBody(const Json& payload, const std::string& key_text, const std::string& app_key) {
  const std::string body = deflated(jsonText(payload));
  return "k=" + app_key + "&j=" + encodeBase64Url(seal(body, key_text, {.flags = 1}));
}

std::string hexadecimalBody(const Json& payload, const std::string& key_text) {
  return "j=" + toHex(seal(jsonText(payload), key_text));
}

HttpRequest post(const std::string& path, const std::string& body) {
  HttpRequest request;
  request.method = "POST";
  request.path = path;
  request.headers = {{"Host", "127.0.0.1:8443"}, {"content-type", "application/x-www-form-urlencoded; charset=utf-8"}};
  request.body = body;
  request.body_bytes = body.size();
  return request;
}

HttpRequest postTracking(const Json& payload) {
  return post("/v1/tracking", envelopeBody(payload, kKeys.tracking_key));
}

HttpRequest postConversion(const Json& payload, const std::string& path) {
  return post(path, envelopeBody(payload, kKeys.hash_key + kKeys.hash_key));
}

HttpRequest postJson(const std::string& path, const std::string& body) {
  HttpRequest request = post(path, body);
  request.headers[1].second = "application/json; charset=utf-8";
  return request;
}

HttpRequest get(const std::string& path) {
  HttpRequest request = postJson(path, "");
  request.method = "GET";
  return request;
}

HttpRequest inspection(const std::string& method, const std::string& path, const std::string& body) {
  HttpRequest request = postJson(path, body);
  request.method = method;
  return request;
}

Refusal refusalOf(const std::function<void()>& act) {
  try {
    act();
  } catch (const Refusal& refusal) {
    return refusal;
  }
  ADD_FAILURE() << "nothing was refused";
  return Refusal(0, "", "", "");
}

}  // namespace morvik_service::test
