// One request and its answer, on one curl handle.
#pragma once

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/net/answer_body.h"
#include "host/net/curl_transport.h"
#include "host/net/header_list.h"
#include "host/net/request_target.h"
#include "kit/transport.h"
#include "runtime/sending/handler_delivery.h"

namespace morvik::host {

/// Size limit of an answer's head (all heads together if there are several).
inline constexpr size_t kMaxAnswerHeadBytes = size_t{256} << 10;

/// Must not move: curl holds pointers into it. One thread.
class CurlExchange {
 public:
  /// `request` has passed unfitHead(). Nothing of curl is used before open().
  CurlExchange(kit::Request request, RequestTarget target, runtime::TransportHandler handler);
  CurlExchange(const CurlExchange&) = delete;
  CurlExchange& operator=(const CurlExchange&) = delete;
  ~CurlExchange() = default;

  const std::string& host() const { return target_.host(); }
  /// Makes the curl handle; its time-out counts from when curl gets it. Null if there is no memory for it.
  CURL* open(const CurlTransportOptions& options, CURLSH* shared_sessions);
  CURL* easy() const { return easy_.get(); }
  /// The outcome, once curl is done. Takes the answer out.
  kit::TransportOutcome outcome(CURLcode code);
  runtime::TransportHandler takeHandler() { return std::move(handler_); }

 private:
  struct Release {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };

  void setTarget();
  void setMethodAndBody();
  void setTrust(const CurlTransportOptions& options, CURLSH* shared_sessions);
  void setBounds();
  void setCallbacks();
  kit::Error failure(CURLcode code) const;
  kit::Response response();
  std::string contentEncoding() const;

  static size_t onHead(char* data, size_t size, size_t count, void* self);
  static size_t onBody(char* data, size_t size, size_t count, void* self);
  static int onReadyToSend(void* self, char*, char*, int, int);
  static CURLcode onTlsContext(CURL*, void* context, void*);

  kit::Request request_;
  RequestTarget target_;
  runtime::TransportHandler handler_;
  double timeout_seconds_ = 0;
  HeaderList headers_;
  AnswerBody body_;
  size_t head_bytes_ = 0;
  bool was_sent_ = false;
  bool was_held_back_ = false;  ///< from being sent twice
  bool was_stopped_ = false;    ///< before anything was sent
  std::array<char, CURL_ERROR_SIZE> error_text_{};
  std::unique_ptr<CURL, Release> easy_;
};

}  // namespace morvik::host
