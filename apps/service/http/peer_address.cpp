#include "apps/service/http/peer_address.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace morvik_service {
namespace {

constexpr unsigned char kLoopbackNet = 127;
constexpr std::size_t kMappedIpv4Begin = 12;
constexpr std::size_t kNetworkBytes = 8;

// The four bytes of an address, or the eight of a network: the lengths distinguish them.
std::string bytesOf(const void* data, std::size_t count) {
  return {static_cast<const char*>(data), count};
}

}  // namespace

bool isLoopbackPeer(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    sockaddr_in four{};
    std::memcpy(&four, address, sizeof four);
    return (ntohl(four.sin_addr.s_addr) >> 24) == kLoopbackNet;
  }
  if (address->sa_family != AF_INET6)
    return false;
  sockaddr_in6 six{};
  std::memcpy(&six, address, sizeof six);
  if (std::memcmp(&six.sin6_addr, &in6addr_loopback, sizeof six.sin6_addr) == 0)
    return true;
  return IN6_IS_ADDR_V4MAPPED(&six.sin6_addr) && six.sin6_addr.s6_addr[kMappedIpv4Begin] == kLoopbackNet;
}

std::string clientAt(const sockaddr* address) {
  if (isLoopbackPeer(address))
    return "this machine";
  if (address->sa_family == AF_INET) {
    sockaddr_in four{};
    std::memcpy(&four, address, sizeof four);
    return bytesOf(&four.sin_addr, sizeof four.sin_addr);
  }
  if (address->sa_family != AF_INET6)
    return {};
  sockaddr_in6 six{};
  std::memcpy(&six, address, sizeof six);
  if (IN6_IS_ADDR_V4MAPPED(&six.sin6_addr))
    return bytesOf(&six.sin6_addr.s6_addr[kMappedIpv4Begin], sizeof(in_addr));
  return bytesOf(&six.sin6_addr, kNetworkBytes);
}

}  // namespace morvik_service
