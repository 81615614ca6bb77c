// The head of a request, in curl's form.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>

#include "kit/error.h"
#include "kit/transport.h"

namespace morvik::host {

struct HeaderListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListRelease>;

/// Why a method or header could say more than intended: a name that is no token, a line break or zero byte in a value,
/// or a header that frames the body or asks the server to wait, which only the transport may set.
std::optional<kit::Error> unfitHead(const kit::Request& request);

/// The request's headers, unchanged and in order. Curl adds only "Host", "Content-Length" and what the protocol version
/// needs: no "Accept", no "Content-Type", no "Expect" (for which bodies over 1 MB would wait a second).
HeaderList headerList(const kit::Request& request);

}  // namespace morvik::host
