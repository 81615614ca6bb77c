// HTTP exchanges by libcurl.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/machine/machine.h"
#include "host/machine/turn_gate.h"
#include "host/net/handler_delivery.h"
#include "kit/queues.h"
#include "kit/transport.h"

namespace morvik::host {

/// The time-out of a request that sets none, or one that is no positive number.
inline constexpr double kDefaultTimeoutSeconds = 60;
/// Longer time-outs count as this one.
inline constexpr double kMaxTimeoutSeconds = 24.0 * 60 * 60;
/// The largest body of an answer when the request names no bound.
inline constexpr size_t kDefaultMaxAnswerBytes = size_t{4} << 20;
/// shutdown() takes at most this long.
inline constexpr double kShutdownSeconds = 2;

struct CurlTransportOptions {
  /// PEM file of the authorities to trust; "" is the system's bundle. It is read once and kept for a day.
  std::string ca_file;
};

class CurlLoop;

/// One thread, started by the first request; before that nothing of curl, TLS or certificates is touched.
///
/// HTTP/2 where the server offers it, else HTTP/1.1. Connections are kept and TLS sessions taken up again. At most
/// kMaxConnectionsPerHost exchanges with a host run at a time. Certificates and names are verified, always; HTTP
/// without TLS goes to this machine only; redirects are not followed; an answer in gzip or deflate form is decoded.
///
/// What leaves is what the request says: no header is added but those that the protocol needs. A request leaves once:
/// where a kept connection proves dead after it was sent, curl would quietly send it again, and that is prevented, but
/// for GET and HEAD. Proxies named in the environment are not used: whoever can set a variable of the app's process
/// should not thereby come between it and its server.
class CurlTransport final : public MachineTransport {
 public:
  /// `main_queue` must live until shutdown() has returned, `gate` as long as any turn runs.
  CurlTransport(CurlTransportOptions options, kit::MainQueue& main_queue, TurnGate& gate);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  /// As the port says. After shutdown() it does nothing.
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override;

  /// Requests that were started and whose handler has not begun: held until their turn ends, waiting for a connection,
  /// under way, or answered with the handler still in the main queue. Any thread.
  size_t inFlight() const override { return delivery_->unanswered(); }

  void setHeld(bool held) override;
  void refuseWaiting(const kit::Error& error) override;

  /// Cancels what is in flight and ends the thread, within kShutdownSeconds. No handler begins from here on; one that
  /// runs on another thread is waited for. May be called again, and from inside a handler. The destructor calls it.
  void shutdown() override;

 private:
  TurnGate& gate_;
  std::shared_ptr<HandlerDelivery> delivery_;
  std::shared_ptr<CurlLoop> loop_;  ///< shared with requests that a turn holds back
  std::mutex shutdown_mutex_;
};

}  // namespace morvik::host
