#include "apps/service/http/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "apps/service/base/refusal.h"
#include "apps/service/http/peer_address.h"

namespace morvik_service {
namespace {

constexpr int kBacklog = 64;

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

template <typename Address>
SocketAddress wrap(const Address& address) {
  SocketAddress wrapped;
  std::memcpy(&wrapped.storage, &address, sizeof address);
  wrapped.size = sizeof address;
  return wrapped;
}

SocketAddress parseAddress(const std::string& text, std::uint16_t port) {
  const std::string numeric = text == "localhost" ? "127.0.0.1" : text;
  sockaddr_in four{};
  if (inet_pton(AF_INET, numeric.c_str(), &four.sin_addr) == 1) {
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    return wrap(four);
  }
  sockaddr_in6 six{};
  if (inet_pton(AF_INET6, numeric.c_str(), &six.sin6_addr) == 1) {
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(port);
    return wrap(six);
  }
  throw SetupError("--bind " + text +
                   " is not a numeric address; give 127.0.0.1, ::1 or another address of this machine");
}

std::uint16_t portOf(const SocketAddress& address) {
  if (address.storage.ss_family == AF_INET6) {
    sockaddr_in6 six{};
    std::memcpy(&six, &address.storage, sizeof six);
    return ntohs(six.sin6_port);
  }
  sockaddr_in four{};
  std::memcpy(&four, &address.storage, sizeof four);
  return ntohs(four.sin_port);
}

}  // namespace

bool isLoopbackAddress(const std::string& address) {
  return isLoopbackPeer(parseAddress(address, 0).get());
}

Listener::Listener(const std::string& address, std::uint16_t port) : address_(address) {
  SocketAddress wanted = parseAddress(address, port);
  const auto refuse = [&] {
    const std::string reason = std::system_category().message(errno);
    if (socket_ >= 0)
      ::close(socket_);
    return SetupError("cannot listen on " + address + " port " + std::to_string(port) + ": " + reason +
                      "; choose another with --port (0 takes a free one) or --bind");
  };
  socket_ = ::socket(wanted.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0)
    throw refuse();
  const int yes = 1;
  ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (::bind(socket_, wanted.get(), wanted.size) != 0 || ::listen(socket_, kBacklog) != 0 ||
      ::getsockname(socket_, wanted.get(), &wanted.size) != 0) {
    throw refuse();
  }
  port_ = portOf(wanted);
}

Listener::~Listener() {
  if (socket_ >= 0)
    ::close(socket_);
}

std::string Listener::url() const {
  // The wildcard address is not one to connect to, or to name in a certificate.
  const std::string called = address_ == "0.0.0.0" ? "127.0.0.1" : address_ == "::" ? "::1" : address_;
  const bool six = called.find(':') != std::string::npos;
  return "https://" + (six ? "[" + called + "]" : called) + ":" + std::to_string(port_) + "/";
}

int Listener::release() {
  const int released = socket_;
  socket_ = -1;
  return released;
}

}  // namespace morvik_service
