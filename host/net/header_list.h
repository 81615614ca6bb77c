// The head of a request, as curl takes it.
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

/// What would let a method or a header say more than itself: a name that is no token, a line break or zero byte in a
/// value, a header that frames the body or asks the server to wait and is therefore the transport's own.
std::optional<kit::Error> unfitHead(const kit::Request& request);

/// The request's headers, text for text and in order, and nothing of curl's own accord but "Host", "Content-Length"
/// and what the protocol's version needs: no "Accept", no "Content-Type", no "Expect" (for which bodies over 1 MB would
/// wait a second).
HeaderList headerList(const kit::Request& request);

}  // namespace morvik::host
