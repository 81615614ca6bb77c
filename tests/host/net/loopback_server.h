// A real server on this machine that does what a test tells it to.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/host/net/test_authority.h"

namespace morvik::test {

struct ServedRequest {
  std::string head;  ///< all of it, up to the empty line
  std::string method;
  std::string target;
  std::string body;
  size_t connection = 0;  ///< counted from 0
  bool is_http2 = false;
  bool took_up_session = false;  ///< TLS: an earlier session was resumed

  /// The header's value, all lines of that name joined by "|"; nothing if there is none.
  std::optional<std::string> header(std::string_view name) const;
};

/// One end of a connection.
class Peer {
 public:
  Peer(int socket, SSL_CTX* tls);
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();

  /// Establishes TLS, if this server uses it.
  bool open();
  /// False if the other side has gone.
  bool write(std::string_view bytes);
  /// Appends what arrives; false if nothing more will.
  bool read(std::string& into);
  /// A whole HTTP/1.1 answer.
  void answer(int status, std::string_view body, std::string_view more_headers = "");
  /// Ends the connection now; any thread, but not after close().
  void shut();
  /// Ends it with a reset.
  void reset();
  /// Closes the socket.
  void close();
  bool isShut() const { return shut_; }
  bool speaksHttp2() const;
  bool tookUpSession() const;

 private:
  int socket_;
  std::unique_ptr<SSL, void (*)(SSL*)> ssl_;
  std::atomic<bool> shut_{false};
};

/// Called for each request, on the thread of its connection; not for those over HTTP/2, which serveHttp2() answers.
using Responder = std::function<void(const ServedRequest&, Peer&)>;

struct ServerOptions {
  const Identity* identity = nullptr;  ///< null: plain HTTP
  bool http2 = false;                  ///< offered when the client wants it
  std::string greeting = {};           ///< sent to every client, unasked
};

/// Listens on a free port of 127.0.0.1 until it is destroyed; then every connection ends. A responder must not wait for
/// anything after that.
class LoopbackServer {
 public:
  LoopbackServer(ServerOptions options, Responder responder);
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;
  ~LoopbackServer();

  std::string url(const std::string& path) const { return urlAt("127.0.0.1", path); }
  std::string urlAt(const std::string& host, const std::string& path) const;
  size_t connections() const;
  size_t mostConnectionsAtOnce() const;
  std::vector<ServedRequest> requests() const;

 private:
  struct Connection {
    std::unique_ptr<Peer> peer;
    std::thread thread;
  };
  void listen();
  void accept();
  void serve(Peer& peer, size_t number);
  void serveHttp1(Peer& peer, size_t number);
  void note(const ServedRequest& request);

  ServerOptions options_;
  Responder responder_;
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> tls_;
  int listener_ = -1;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::list<Connection> connections_;
  std::vector<ServedRequest> requests_;
  size_t open_ = 0;
  size_t most_open_ = 0;
  bool closing_ = false;
  std::thread acceptor_;
};

}  // namespace morvik::test
