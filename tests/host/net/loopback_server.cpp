#include "tests/host/net/loopback_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>
#include <utility>

#include "tests/host/net/http2_peer.h"

namespace morvik::test {

namespace {

constexpr std::string_view kEndOfHead = "\r\n\r\n";

/// Writing to a closed connection must end this thread's loop, not the process. Only here: the tested code must not
/// need it.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int chooseProtocol(SSL*, const unsigned char** chosen, unsigned char* chosen_size, const unsigned char* offered,
                   unsigned int offered_size, void* http2) {
  static constexpr unsigned char both[] = "\x02h2\x08http/1.1";
  static constexpr unsigned char old[] = "\x08http/1.1";
  const bool wants_http2 = http2 != nullptr;
  unsigned char* found = nullptr;
  const int result = SSL_select_next_proto(&found, chosen_size, wants_http2 ? both : old,
                                           static_cast<unsigned int>(wants_http2 ? sizeof(both) - 1 : sizeof(old) - 1),
                                           offered, offered_size);
  *chosen = found;
  return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

size_t contentLength(const ServedRequest& request) {
  const auto length = request.header("Content-Length");
  return length ? static_cast<size_t>(std::stoull(*length)) : 0;
}

}  // namespace

std::optional<std::string> ServedRequest::header(std::string_view name) const {
  std::optional<std::string> values;
  for (size_t line = head.find("\r\n"); line != std::string::npos; line = head.find("\r\n", line + 2)) {
    const std::string_view text = std::string_view(head).substr(line + 2, head.find("\r\n", line + 2) - line - 2);
    const size_t colon = text.find(':');
    if (colon != name.size() || strncasecmp(text.data(), name.data(), colon) != 0)
      continue;
    std::string value(text.substr(colon + 1));
    value.erase(0, value.find_first_not_of(' '));
    values = values ? *values + "|" + value : value;
  }
  return values;
}

Peer::Peer(int socket, SSL_CTX* tls) : socket_(socket), ssl_(tls == nullptr ? nullptr : SSL_new(tls), &SSL_free) {
  const int at_once = 1;  // otherwise an answer after a session ticket would wait 40 ms for the other side
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
  if (ssl_)
    SSL_set_fd(ssl_.get(), socket_);
}

Peer::~Peer() {
  close();
}

void Peer::close() {
  if (socket_ >= 0)
    ::close(std::exchange(socket_, -1));
}

bool Peer::open() {
  const bool is_open = !ssl_ || SSL_accept(ssl_.get()) == 1;
  ERR_clear_error();
  return is_open;
}

bool Peer::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto size = static_cast<int>(std::min(bytes.size(), size_t{1} << 20));
    const ssize_t written = ssl_ ? SSL_write(ssl_.get(), bytes.data(), size)
                                 : ::send(socket_, bytes.data(), static_cast<size_t>(size), MSG_NOSIGNAL);
    ERR_clear_error();
    if (written <= 0)
      return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

bool Peer::read(std::string& into) {
  std::array<char, 65536> buffer;
  const ssize_t size = ssl_ ? SSL_read(ssl_.get(), buffer.data(), static_cast<int>(buffer.size()))
                            : ::recv(socket_, buffer.data(), buffer.size(), 0);
  ERR_clear_error();
  if (size <= 0)
    return false;
  into.append(buffer.data(), static_cast<size_t>(size));
  return true;
}

void Peer::answer(int status, std::string_view body, std::string_view more_headers) {
  std::string bytes = "HTTP/1.1 " + std::to_string(status) + " -\r\nContent-Length: " + std::to_string(body.size()) +
                      "\r\n" + std::string(more_headers) + "\r\n";
  bytes += body;
  write(bytes);
}

void Peer::shut() {
  shut_ = true;
  if (socket_ >= 0)
    ::shutdown(socket_, SHUT_RDWR);
}

void Peer::reset() {
  const linger at_once{.l_onoff = 1, .l_linger = 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  shut_ = true;  // the reset is sent when the socket is closed
}

bool Peer::speaksHttp2() const {
  const unsigned char* name = nullptr;
  unsigned int size = 0;
  if (ssl_)
    SSL_get0_alpn_selected(ssl_.get(), &name, &size);
  return std::string_view(reinterpret_cast<const char*>(name), size) == "h2";
}

bool Peer::tookUpSession() const {
  return ssl_ && SSL_session_reused(ssl_.get()) == 1;
}

LoopbackServer::LoopbackServer(ServerOptions options, Responder responder)
    : options_(std::move(options)), responder_(std::move(responder)), tls_(nullptr, &SSL_CTX_free) {
  if (options_.identity != nullptr) {
    tls_.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX_use_certificate(tls_.get(), options_.identity->certificate.get());
    SSL_CTX_use_PrivateKey(tls_.get(), options_.identity->key.get());
    SSL_CTX_set_alpn_select_cb(tls_.get(), &chooseProtocol, options_.http2 ? this : nullptr);
    static constexpr unsigned char context[] = "morvik tests";
    SSL_CTX_set_session_id_context(tls_.get(), context, sizeof context);
  }
  listen();
  acceptor_ = std::thread([this] { accept(); });
}

LoopbackServer::~LoopbackServer() {
  {
    const std::lock_guard lock(mutex_);
    closing_ = true;
    for (Connection& connection : connections_)
      connection.peer->shut();
  }
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (Connection& connection : connections_)
    connection.thread.join();
  ::close(listener_);
}

void LoopbackServer::listen() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (listener_ < 0 || ::bind(listener_, generic, size) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, generic, &size) != 0)
    throw std::runtime_error("no port to listen on");
  port_ = ntohs(address.sin_port);
}

std::string LoopbackServer::urlAt(const std::string& host, const std::string& path) const {
  return (tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + path;
}

size_t LoopbackServer::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_.size();
}

size_t LoopbackServer::mostConnectionsAtOnce() const {
  const std::lock_guard lock(mutex_);
  return most_open_;
}

std::vector<ServedRequest> LoopbackServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void LoopbackServer::accept() {
  for (;;) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const std::lock_guard lock(mutex_);
    if (closing_ || socket < 0) {
      if (socket >= 0)
        ::close(socket);
      return;
    }
    most_open_ = std::max(most_open_, ++open_);
    const size_t number = connections_.size();
    Connection& connection = connections_.emplace_back();
    connection.peer = std::make_unique<Peer>(socket, tls_.get());
    connection.thread = std::thread([this, &peer = *connection.peer, number] { serve(peer, number); });
  }
}

void LoopbackServer::serve(Peer& peer, size_t number) {
  blockBrokenPipeSignal();
  if (peer.open() && peer.write(options_.greeting)) {
    if (peer.speaksHttp2())
      serveHttp2(peer, number, [this](const ServedRequest& request) { note(request); });
    else
      serveHttp1(peer, number);
  }
  const std::lock_guard lock(mutex_);
  --open_;
  peer.close();
}

void LoopbackServer::serveHttp1(Peer& peer, size_t number) {
  std::string received;
  while (!peer.isShut()) {
    size_t head_size = 0;
    while ((head_size = received.find(kEndOfHead)) == std::string::npos) {
      if (!peer.read(received))
        return;
    }
    ServedRequest request;
    request.head = received.substr(0, head_size + 2);
    request.method = request.head.substr(0, request.head.find(' '));
    request.target = request.head.substr(request.method.size() + 1);
    request.target.erase(request.target.find(' '));
    request.connection = number;
    request.took_up_session = peer.tookUpSession();
    received.erase(0, head_size + kEndOfHead.size());
    const size_t body_size = contentLength(request);
    while (received.size() < body_size) {
      if (!peer.read(received))
        return;
    }
    request.body = received.substr(0, body_size);
    received.erase(0, body_size);
    note(request);
    responder_(request, peer);
  }
}

void LoopbackServer::note(const ServedRequest& request) {
  const std::lock_guard lock(mutex_);
  requests_.push_back(request);
}

}  // namespace morvik::test
