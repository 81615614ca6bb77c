// HTTP exchanges by libcurl.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "kit/transport.h"
#include "runtime/machine/machine.h"

namespace morvik::host {

/// The time-out of a request that sets none, or one that is not a positive number.
inline constexpr double kDefaultTimeoutSeconds = 60;
/// Longer time-outs are reduced to this.
inline constexpr double kMaxTimeoutSeconds = 24.0 * 60 * 60;
/// The largest answer body if the request sets no bound.
inline constexpr size_t kDefaultMaxAnswerBytes = size_t{4} << 20;

struct CurlTransportOptions {
  /// PEM file of the authorities to trust; "": the system's bundle. Read once and kept for a day.
  std::string ca_file;
};

class CurlLoop;

/// One thread, started by the first request; before that nothing of curl, TLS or certificates is used.
///
/// HTTP/2 if the server offers it, else HTTP/1.1. Connections are kept and TLS sessions resumed. Certificates and names
/// are always verified; HTTP without TLS goes to this machine only; redirects are not followed; gzip and deflate
/// answers are decoded.
///
/// Requests are sent as they are: no header is added except those that the protocol needs. A request is sent once: if a
/// kept connection turns out dead after sending, curl would quietly send it again, which is prevented except for GET
/// and HEAD. Proxies from the environment are not used: whoever can set a variable of the app's process should not
/// thereby get between the app and its server.
class CurlTransport final : public runtime::MachineNetwork {
 public:
  explicit CurlTransport(CurlTransportOptions options);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  /// As in the port; `done` is called on this object's thread. No effect after shutdown().
  void begin(kit::Request request, runtime::TransportHandler done) override;
  void shutdown() override;

 private:
  const std::unique_ptr<CurlLoop> loop_;
};

}  // namespace morvik::host
