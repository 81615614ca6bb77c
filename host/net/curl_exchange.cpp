#include "host/net/curl_exchange.h"

#include <openssl/ssl.h>

#include <cmath>

namespace morvik::host {

using kit::Error;

namespace {

/// A stage of curl's work and how the message about it begins.
struct Stage {
  CURLcode code;
  const char* beginning;
};
constexpr Stage kStages[] = {
    {CURLE_COULDNT_RESOLVE_HOST, "could not find the host of "},
    {CURLE_COULDNT_CONNECT, "could not connect to "},
    {CURLE_SSL_CONNECT_ERROR, "could not agree on TLS with "},
    {CURLE_PEER_FAILED_VERIFICATION, "could not trust the certificate of "},
    {CURLE_SSL_CACERT_BADFILE, "could not read the authorities to trust for "},
    {CURLE_OPERATION_TIMEDOUT, "no complete answer in time from "},
    {CURLE_GOT_NOTHING, "no answer from "},
    {CURLE_UNSUPPORTED_PROTOCOL, "no HTTP answer from "},
    {CURLE_WEIRD_SERVER_REPLY, "no HTTP answer from "},
};
constexpr const char* kOtherStage = "no complete answer from ";

constexpr long kCaCacheSeconds = 24L * 60 * 60;

double fitTimeout(const std::optional<double>& wanted_seconds) {
  if (!wanted_seconds || !(*wanted_seconds > 0))
    return kDefaultTimeoutSeconds;
  return std::fmin(*wanted_seconds, kMaxTimeoutSeconds);
}

/// At least one: to curl, 0 means no time-out.
long milliseconds(double seconds) {
  return static_cast<long>(std::ceil(seconds * 1000));
}

/// Sending it twice changes nothing on a server.
bool isSafe(const std::string& method) {
  return method == "GET" || method == "HEAD";
}

/// If curl uses another library, onTlsContext() gets something else.
bool isOpenSsl() {
  const char* library = curl_version_info(CURLVERSION_NOW)->ssl_version;
  return library != nullptr && std::string_view(library).starts_with("OpenSSL/");
}

}  // namespace

CurlExchange::CurlExchange(kit::Request request, RequestTarget target, runtime::TransportHandler handler)
    : request_(std::move(request)),
      target_(std::move(target)),
      handler_(std::move(handler)),
      body_(request_.max_answer_bytes == 0 ? kDefaultMaxAnswerBytes : request_.max_answer_bytes) {}

CURL* CurlExchange::open(const CurlTransportOptions& options, CURLSH* shared_sessions) {
  easy_.reset(curl_easy_init());
  if (easy_) {
    setTarget();
    setMethodAndBody();
    setTrust(options, shared_sessions);
    setBounds();
    setCallbacks();
  }
  return easy_.get();
}

void CurlExchange::setTarget() {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_CURLU, target_.handle());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https,http");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_PROXY, "");
  curl_easy_setopt(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
}

void CurlExchange::setMethodAndBody() {
  CURL* easy = easy_.get();
  if (request_.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (request_.method == "POST" || !request_.body.empty()) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request_.body.data());
  }
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  headers_ = headerList(request_);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_.get());
}

void CurlExchange::setTrust(const CurlTransportOptions& options, CURLSH* shared_sessions) {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!options.ca_file.empty())
    curl_easy_setopt(easy, CURLOPT_CAINFO, options.ca_file.c_str());
  // Reading the system's bundle takes 24 ms. Curl keeps the result for the next connection, but only if no folder of
  // authorities is set, and one is by default.
  curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(easy, CURLOPT_CA_CACHE_TIMEOUT, kCaCacheSeconds);
  curl_easy_setopt(easy, CURLOPT_SHARE, shared_sessions);
  if (isOpenSsl())
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &CurlExchange::onTlsContext);
}

void CurlExchange::setBounds() {
  CURL* easy = easy_.get();
  timeout_seconds_ = fitTimeout(request_.timeout_seconds);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, milliseconds(timeout_seconds_));
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(timeout_seconds_));
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  // Otherwise, giving up a request whose host is still being looked up waits for the lookup, and so does every other
  // request and the end of the thread.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
}

void CurlExchange::setCallbacks() {
  CURL* easy = easy_.get();
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlExchange::onHead);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlExchange::onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &CurlExchange::onReadyToSend);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error_text_.data());
}

size_t CurlExchange::onHead(char*, size_t size, size_t count, void* self) {
  auto* exchange = static_cast<CurlExchange*>(self);
  exchange->head_bytes_ += size * count;
  return exchange->head_bytes_ > kMaxAnswerHeadBytes ? 0 : size * count;
}

size_t CurlExchange::onBody(char* data, size_t size, size_t count, void* self) {
  auto* exchange = static_cast<CurlExchange*>(self);
  const std::string_view piece(data, size * count);
  return exchange->body_.take(exchange->contentEncoding(), piece) ? piece.size() : 0;
}

/// With SSLKEYLOGFILE in the environment, curl installs a function that writes each connection's secrets to that file.
/// The environment is the app's; what the kit sends stays sealed.
CURLcode CurlExchange::onTlsContext(CURL*, void* context, void*) {
  SSL_CTX_set_keylog_callback(static_cast<SSL_CTX*>(context), nullptr);
  return CURLE_OK;
}

int CurlExchange::onReadyToSend(void* self, char*, char*, int, int) {
  auto* exchange = static_cast<CurlExchange*>(self);
  const auto& request = exchange->request_;
  const bool may_leave = !request.may_leave || request.may_leave();
  exchange->was_held_back_ = exchange->was_sent_ && (!may_leave || !isSafe(request.method));
  exchange->was_stopped_ = !exchange->was_sent_ && !may_leave;
  if (exchange->was_held_back_ || exchange->was_stopped_)
    return CURL_PREREQFUNC_ABORT;
  exchange->was_sent_ = true;
  return CURL_PREREQFUNC_OK;
}

std::string CurlExchange::contentEncoding() const {
  curl_header* header = nullptr;
  if (curl_easy_header(easy_.get(), "Content-Encoding", 0, CURLH_HEADER, -1, &header) != CURLHE_OK)
    return {};
  return header->value;
}

kit::TransportOutcome CurlExchange::outcome(CURLcode code) {
  if (was_stopped_)
    return {};
  if (code == CURLE_OK)
    body_.finish();
  if (body_.error())
    return {response(), Error{"the answer of " + target_.shown() + " was refused: " + body_.error()->message}};
  if (code == CURLE_OK)
    return {response(), std::nullopt};
  return {std::nullopt, failure(code)};
}

kit::Response CurlExchange::response() {
  long status = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
  return {.status_code = static_cast<int>(status), .url = request_.url, .body = body_.takeText()};
}

Error CurlExchange::failure(CURLcode code) const {
  if (was_held_back_)
    return Error{kOtherStage + target_.shown() + ": the connection was lost after the request had been sent"};
  if (head_bytes_ > kMaxAnswerHeadBytes)
    return Error{kOtherStage + target_.shown() + ": its head has more than " + std::to_string(kMaxAnswerHeadBytes) +
                 " bytes"};
  const char* beginning = kOtherStage;
  for (const Stage& stage : kStages) {
    if (stage.code == code)
      beginning = stage.beginning;
  }
  const char* reason = error_text_.front() == '\0' ? curl_easy_strerror(code) : error_text_.data();
  return Error{.message = beginning + target_.shown() + ": " + reason, .is_timeout = code == CURLE_OPERATION_TIMEDOUT};
}

}  // namespace morvik::host
