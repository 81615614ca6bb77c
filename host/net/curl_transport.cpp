#include "host/net/curl_transport.h"

#include <utility>

#include "host/net/curl_loop.h"

namespace morvik::host {

CurlTransport::CurlTransport(CurlTransportOptions options, kit::MainQueue& main_queue, TurnGate& gate)
    : gate_(gate),
      delivery_(std::make_shared<HandlerDelivery>(main_queue)),
      loop_(std::make_shared<CurlLoop>(std::move(options), delivery_)) {}

CurlTransport::~CurlTransport() {
  shutdown();
}

void CurlTransport::start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) {
  if (!delivery_->admit())
    return;
  gate_.leave([loop = loop_, request = std::move(request), handler = std::move(handler)]() mutable {
    loop->add(std::move(request), std::move(handler));
  });
}

void CurlTransport::setHeld(bool held) {
  loop_->setHeld(held);
}

void CurlTransport::refuseWaiting(const kit::Error& error) {
  loop_->refuseWaiting(error);
}

void CurlTransport::shutdown() {
  const std::lock_guard lock(shutdown_mutex_);
  // The network first, then the wait: a handler that does not come back keeps nothing going.
  delivery_->close(0);
  loop_->stop();
  delivery_->close(kShutdownSeconds);
}

}  // namespace morvik::host
