// Fills a service's store with requests like those of devices, without sending them:
//   fill_store FOLDER COUNT
#include <charconv>
#include <cstring>
#include <iostream>
#include <string>

#include "apps/service/base/refusal.h"
#include "apps/service/base/times.h"
#include "apps/service/store/store.h"

namespace {

using morvik_service::Counting;
using morvik_service::Counts;
using morvik_service::Json;
using morvik_service::RequestRecord;
using morvik_service::Store;

constexpr std::int64_t kFirstTime = 1767225600000;
constexpr std::int64_t kSecond = 1000;
constexpr int kEventsPerRequest = 1;
constexpr int kInstalls = 1000;
constexpr int kOneInSoManyIsRefused = 50;
constexpr std::int64_t kKoreaOffset = std::int64_t{9} * 3600 * 1000;

std::string padded(int number, std::size_t digits) {
  const std::string text = std::to_string(number);
  return std::string(digits - std::min(digits, text.size()), '0') + text;
}

Json payloadOf(int number) {
  Json payload = {{"appkey", "fill-app"},
                  {"sdk_version", "1.0.0"},
                  {"os_type", "ios"},
                  {"os_version", "17.4"},
                  {"device_model", "Phone14,2"},
                  {"language", "en"},
                  {"country", "US"},
                  {"timezone", "UTC"},
                  {"app_version_name", "3.1"},
                  {"app_version_code", "31"},
                  {"package_name", "com.example.fill"},
                  {"idfa", ""},
                  {"puid", ""},
                  {"install_id", "install-" + padded(number % kInstalls, 4)},
                  {"network", "wifi"},
                  {"carrier", ""},
                  {"portrait", "portrait"},
                  {"activity_info", Json::array()},
                  {"impression_info", Json::array()}};
  for (int i = 0; i < kEventsPerRequest; ++i) {
    const std::int64_t time = kFirstTime + number * kSecond + kKoreaOffset;
    payload["activity_info"].push_back({{"group", i == 0 ? "shop" : "level"},
                                        {"activity", i == 0 ? "purchase" : "done"},
                                        {"param", "item-" + std::to_string(number)},
                                        {"prev_group", ""},
                                        {"prev_activity", ""},
                                        {"created_at", morvik_service::compactTime(time)},
                                        {"event_id", "019b0000-0000-7000-8000-" + padded(number * 10 + i, 12)}});
  }
  return payload;
}

RequestRecord recordOf(int number) {
  RequestRecord record;
  record.time_milliseconds = kFirstTime + number * kSecond;
  record.endpoint = "tracking";
  record.request.method = "POST";
  record.request.path = "/v1/tracking";
  record.request.headers = {{"Host", "127.0.0.1"},
                            {"Content-Type", "application/x-www-form-urlencoded; charset=utf-8"}};
  record.request.body = "k=fill-app&j=" + std::string(600, 'A');
  record.request.body_bytes = record.request.body.size();
  if (number % kOneInSoManyIsRefused == 0) {
    record.refusal = Json{{"error", "the key does not open the payload"}, {"where", "the sealed payload"}, {"fix", ""}};
    record.reply.status = 403;
    return record;
  }
  record.payload = payloadOf(number);
  record.counting = Counting::kEvents;
  record.counted = true;
  record.reply.body = "{\"Result\":true}";
  return record;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  if (argc != 3 || std::from_chars(argv[2], argv[2] + std::strlen(argv[2]), count).ec != std::errc() || count < 1) {
    std::cerr << "Usage: fill_store FOLDER COUNT\n";
    return 2;
  }
  try {
    Store store(argv[1]);
    Counts counts;
    for (int number = 1; number <= count; ++number)
      store.add(recordOf(number), counts);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "fill_store: " << error.what() << "\n";
    return 1;
  }
}
