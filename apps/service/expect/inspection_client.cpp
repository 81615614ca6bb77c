#include "apps/service/expect/inspection_client.h"

#include <curl/curl.h>

#include <algorithm>

#include "apps/service/base/printable.h"
#include "apps/service/base/refusal.h"
#include "apps/service/inspect/inspect_query.h"
#include "apps/service/store/store.h"

namespace morvik_service {
namespace {

constexpr int kRequestsAtOnce = 200;
// In addition to the time that the service is asked to wait.
constexpr std::chrono::milliseconds kAnswerPatience{10000};
// A page ends early by its bytes, so an answer is little larger than that; one entry may pass it by what one request
// and its answer can hold.
constexpr std::size_t kMaxAnswerBytes = 4 * kMaxListingBytes;

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
  auto& body = *static_cast<std::string*>(target);
  if (body.size() + size * count > kMaxAnswerBytes)
    return 0;
  body.append(data, size * count);
  return size * count;
}

}  // namespace

struct InspectionClient::Handle {
  Handle() : curl(curl_easy_init()) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { curl_easy_cleanup(curl); }

  CURL* curl;
};

InspectionClient::InspectionClient(std::string url, std::string authority_file)
    : url_(std::move(url)), authority_file_(std::move(authority_file)), handle_(std::make_unique<Handle>()) {}

InspectionClient::~InspectionClient() = default;

Json InspectionClient::get(const std::string& path, std::chrono::milliseconds patience) {
  std::string body;
  CURL* curl = handle_->curl;
  const std::string url = url_ + path;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, authority_file_.c_str());
  curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>((patience + kAnswerPatience).count()));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  const CURLcode result = curl_easy_perform(curl);
  if (result != CURLE_OK)
    throw SetupError("cannot ask the service at " + url_ + ": " + curl_easy_strerror(result) +
                     "; is it running, and is this its certificate authority?");
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  Json answer = Json::parse(body, nullptr, false);
  if (status != 200 || !answer.is_object())
    throw SetupError("the service at " + url_ + " answered " + std::to_string(status) + " " + printable(body));
  return answer;
}

Json InspectionClient::requestsAfter(std::int64_t after, std::chrono::milliseconds patience) {
  const std::int64_t wait = std::min<std::int64_t>(patience.count(), kMaxWaitMilliseconds);
  return get("inspect/requests?after=" + std::to_string(after) + "&limit=" + std::to_string(kRequestsAtOnce) +
                 "&wait_milliseconds=" + std::to_string(wait),
             std::chrono::milliseconds(wait));
}

std::int64_t InspectionClient::newestRequest() {
  const Json page = get("inspect/summaries?limit=1", std::chrono::milliseconds(0));
  const Json& requests = page.at("requests");
  return requests.empty() ? 0 : requests.front().at("id").get<std::int64_t>();
}

}  // namespace morvik_service
