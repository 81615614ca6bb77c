#include "host/net/curl_transport.h"

#include <utility>

#include "host/net/curl_loop.h"

namespace morvik::host {

CurlTransport::CurlTransport(CurlTransportOptions options) : loop_(std::make_unique<CurlLoop>(std::move(options))) {}

CurlTransport::~CurlTransport() {
  shutdown();
}

void CurlTransport::begin(kit::Request request, runtime::TransportHandler done) {
  loop_->add(std::move(request), std::move(done));
}

void CurlTransport::shutdown() {
  loop_->stop();
}

}  // namespace morvik::host
