// Serves a handler over TLS.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

#include "apps/service/http/client_places.h"
#include "apps/service/http/hang_up_watch.h"
#include "apps/service/http/head_watch.h"
#include "apps/service/http/http_message.h"
#include "apps/service/http/listener.h"

struct MHD_Daemon;

namespace morvik_service {

/// Limits of the server. A connection past the first is closed at once, and so is one past the second of the same
/// client, which is what clientAt says; past the third, requests are answered with 503; a body past the fourth ends its
/// connection.
inline constexpr unsigned kMaxConnections = 128;
inline constexpr unsigned kMaxConnectionsOfAClient = kMaxConnections / 2;
inline constexpr std::size_t kMaxBufferedBytes = std::size_t{128} * 1024 * 1024;
inline constexpr std::uint64_t kMaxDiscardedBytes = std::uint64_t{64} * 1024 * 1024;
/// A connection is closed after this idle time: the client neither sends nor receives anything. Time that the service
/// itself waits, for a late answer or for news, does not count.
inline constexpr unsigned kIdleSeconds = 30;
/// Request line and headers must be complete within this time after the connection opened or the previous request
/// ended; otherwise the connection is closed, however often the client sends a byte. The idle time, and as long again
/// to send.
inline constexpr unsigned kHeadSeconds = 2 * kIdleSeconds;
/// Request line and headers of one request must fit into this.
inline constexpr std::size_t kMaxHeaderBytes = std::size_t{64} * 1024;

struct TlsIdentity {
  std::string certificate_pem;
  std::string key_pem;
};

/// Limits that a test may lower.
struct ServerLimits {
  unsigned connections = kMaxConnections;
  unsigned connections_of_a_client = kMaxConnectionsOfAClient;
  unsigned idle_seconds = kIdleSeconds;
  unsigned head_seconds = kHeadSeconds;
};

class HttpServer {
 public:
  /// Called on the connection's own thread, from several at once. An exception becomes a 500.
  using Handler = std::function<HttpReply(const HttpRequest&)>;

  /// Starts to listen. Takes over the socket. Throws SetupError if TLS cannot be set up.
  HttpServer(Listener& listener, const TlsIdentity& identity, Handler handler, const ServerLimits& limits = {});
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  /// Ends delays and streams, closes all connections and waits for their threads.
  ~HttpServer();

  /// The handler's answer, or a 500 if it throws.
  HttpReply answer(const HttpRequest& request) const;

  /// Waits this long, on the calling thread; false if the server stops before that.
  bool waitUnlessStopping(std::chrono::milliseconds delay);

  unsigned idleSeconds() const { return limits_.idle_seconds; }
  HangUpWatch& hangUps() { return hang_ups_; }
  HeadWatch& heads() { return heads_; }
  ClientPlaces& places() { return places_; }

  /// Requested when the server stops.
  std::stop_token stopping() const { return stopping_.get_token(); }

  /// Reserves room for this many more body bytes; false if kMaxBufferedBytes would be exceeded.
  bool reserve(std::size_t bytes);
  void release(std::size_t bytes);

 private:
  struct Stop {
    void operator()(MHD_Daemon* daemon) const;
  };

  Handler handler_;
  const ServerLimits limits_;
  std::atomic<std::size_t> buffered_bytes_{0};
  std::mutex mutex_;
  std::condition_variable_any never_;  ///< never notified: only the stop ends a wait early
  std::stop_source stopping_;
  HangUpWatch hang_ups_;
  HeadWatch heads_;
  ClientPlaces places_;
  std::unique_ptr<MHD_Daemon, Stop> daemon_;
};

}  // namespace morvik_service
