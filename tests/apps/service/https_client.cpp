#include "tests/apps/service/https_client.h"

#include <poll.h>

#include <memory>
#include <utility>

namespace morvik_service::test {
namespace {

// Longer than any answer of a healthy service; a broken one fails the test instead of hanging it.
constexpr long kPatienceSeconds = 60;
constexpr std::size_t kReceivedBytes = 4096;

std::size_t leave(char*, std::size_t, std::size_t, void*) {
  return 0;
}

std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

}  // namespace

HttpsClient::HttpsClient(std::string base_url, std::string authority_file, std::string own_address)
    : base_url_(std::move(base_url)),
      authority_file_(std::move(authority_file)),
      own_address_(std::move(own_address)),
      handle_(curl_easy_init()) {}

HttpsClient::~HttpsClient() {
  curl_easy_cleanup(handle_);
}

void HttpsClient::prepare() {
  curl_easy_reset(handle_);
  curl_easy_setopt(handle_, CURLOPT_CAINFO, authority_file_.c_str());
  curl_easy_setopt(handle_, CURLOPT_TIMEOUT, kPatienceSeconds);
  curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle_, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, collect);
  if (!own_address_.empty())
    curl_easy_setopt(handle_, CURLOPT_INTERFACE, ("host!" + own_address_).c_str());
}

Answer HttpsClient::get(const std::string& path) {
  prepare();
  return perform(path, {});
}

CURLcode HttpsClient::connect() {
  prepare();
  curl_easy_setopt(handle_, CURLOPT_URL, base_url_.c_str());
  curl_easy_setopt(handle_, CURLOPT_CONNECT_ONLY, 1L);
  return curl_easy_perform(handle_);
}

Answer HttpsClient::getAndLeave(const std::string& path) {
  prepare();
  curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, leave);
  return perform(path, {});
}

CURLcode HttpsClient::send(std::string_view bytes) {
  std::size_t sent = 0;
  const CURLcode result = curl_easy_send(handle_, bytes.data(), bytes.size(), &sent);
  return result == CURLE_OK && sent < bytes.size() ? CURLE_AGAIN : result;
}

std::string HttpsClient::receive() {
  std::string bytes(kReceivedBytes, '\0');
  std::size_t received = 0;
  // The first bytes may belong to the TLS layer.
  while (curl_easy_recv(handle_, bytes.data(), bytes.size(), &received) == CURLE_AGAIN && waitFor(POLLIN)) {
  }
  bytes.resize(received);
  return bytes;
}

bool HttpsClient::waitUntilClosed() {
  return waitFor(POLLRDHUP);
}

bool HttpsClient::waitFor(short events) {
  curl_socket_t socket = CURL_SOCKET_BAD;
  curl_easy_getinfo(handle_, CURLINFO_ACTIVESOCKET, &socket);
  pollfd watched{socket, events, 0};
  constexpr int kPatienceMilliseconds = kPatienceSeconds * 1000;
  return ::poll(&watched, 1, kPatienceMilliseconds) == 1 && (watched.revents & events) != 0;
}

Answer HttpsClient::post(const std::string& path, const std::string& body, const std::vector<std::string>& headers) {
  prepare();
  curl_easy_setopt(handle_, CURLOPT_POST, 1L);
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.data());
  return perform(path, headers);
}

Answer HttpsClient::remove(const std::string& path) {
  prepare();
  curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, "DELETE");
  return perform(path, {});
}

Answer HttpsClient::perform(const std::string& path, const std::vector<std::string>& headers) {
  const auto free_list = [](curl_slist* list) { curl_slist_free_all(list); };
  std::unique_ptr<curl_slist, decltype(free_list)> list(curl_slist_append(nullptr, "Expect:"), free_list);
  for (const std::string& header : headers)
    curl_slist_append(list.get(), header.c_str());
  Answer answer;
  const std::string url = base_url_ + path;
  curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, list.get());
  curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &answer.body);
  answer.result = curl_easy_perform(handle_);
  curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &answer.status);
  const char* type = nullptr;
  curl_easy_getinfo(handle_, CURLINFO_CONTENT_TYPE, &type);
  if (type != nullptr)
    answer.content_type = type;
  curl_header* own = nullptr;
  if (curl_easy_header(handle_, "X-Own", 0, CURLH_HEADER, -1, &own) == CURLHE_OK)
    answer.own_header = own->value;
  return answer;
}

}  // namespace morvik_service::test
