// HTTP exchanges by libcurl.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "kit/transport.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

/// The time-out of a request that sets none, or one that is no positive number.
inline constexpr double kDefaultTimeoutSeconds = 60;
/// Longer time-outs count as this one.
inline constexpr double kMaxTimeoutSeconds = 24.0 * 60 * 60;
/// The largest body of an answer when the request names no bound.
inline constexpr size_t kDefaultMaxAnswerBytes = size_t{4} << 20;

struct CurlTransportOptions {
  /// PEM file of the authorities to trust; "" is the system's bundle. It is read once and kept for a day.
  std::string ca_file;
};

class CurlLoop;

/// One thread, started by the first request; before that nothing of curl, TLS or certificates is touched.
///
/// HTTP/2 where the server offers it, else HTTP/1.1. Connections are kept and TLS sessions taken up again. Certificates
/// and names are verified, always; HTTP without TLS goes to this machine only; redirects are not followed; an answer in
/// gzip or deflate form is decoded.
///
/// What leaves is what the request says: no header is added but those that the protocol needs. A request leaves once:
/// where a kept connection proves dead after it was sent, curl would quietly send it again, and that is prevented, but
/// for GET and HEAD. Proxies named in the environment are not used: whoever can set a variable of the app's process
/// should not thereby come between it and its server.
class CurlTransport final : public runtime::MachineNetwork {
 public:
  explicit CurlTransport(CurlTransportOptions options);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  /// As the port says; `done` is called on the thread of this. After shutdown() it does nothing.
  void begin(kit::Request request, runtime::TransportHandler done) override;
  void shutdown() override;

 private:
  const std::unique_ptr<CurlLoop> loop_;
};

}  // namespace morvik::host
