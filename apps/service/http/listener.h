// The socket that the service listens on.
#pragma once

#include <cstdint>
#include <string>

namespace morvik_service {

/// Owns a listening TCP socket.
class Listener {
 public:
  /// `address` is numeric (127.0.0.1, ::1, ...) or "localhost"; port 0 asks the system for a free one. Throws
  /// SetupError that says which address and port were refused and why.
  Listener(const std::string& address, std::uint16_t port);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  std::uint16_t port() const { return port_; }
  /// "https://127.0.0.1:8443/": its address on this machine.
  std::string url() const;

  /// Hands the descriptor over; the caller closes it.
  int release();

 private:
  std::string address_;
  std::uint16_t port_ = 0;
  int socket_ = -1;
};

/// True if only this machine can reach the address. Throws SetupError if it is not a numeric address.
bool isLoopbackAddress(const std::string& address);

}  // namespace morvik_service
