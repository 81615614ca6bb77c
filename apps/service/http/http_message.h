// Requests and answers as plain values, free of any HTTP library.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "apps/service/http/body_stream.h"

namespace morvik_service {

using NamedValues = std::vector<std::pair<std::string, std::string>>;

/// A larger body is not kept and is answered with 413.
inline constexpr std::size_t kMaxBodyBytes = std::size_t{16} * 1024 * 1024;

struct HttpRequest {
  std::string method;
  std::string path;              ///< unescaped, begins with a slash, without the query
  NamedValues query;             ///< unescaped, in order
  NamedValues headers;           ///< as sent, in order
  std::string body;              ///< empty when body_too_large
  std::uint64_t body_bytes = 0;  ///< as received, also when not kept
  bool body_too_large = false;
  bool from_loopback = true;  ///< the peer's address, not what its headers say
};

/// The first value of a header (names compare without case), or nullptr.
const std::string* findHeader(const HttpRequest& request, std::string_view name);

struct HttpReply {
  int status = 200;
  std::string body;                    ///< JSON, unless a behaviour changes it
  std::chrono::milliseconds delay{0};  ///< time to wait before the answer
  bool close_without_answer = false;   ///< close the connection instead
  std::string content_type = "application/json; charset=utf-8";
  NamedValues headers;                 ///< additional headers
  std::shared_ptr<BodyStream> stream;  ///< if set, `body` is empty and its pieces are the body
};

}  // namespace morvik_service
