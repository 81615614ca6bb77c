// Whose an address is.
#pragma once

#include <string>

struct sockaddr;

namespace morvik_service {

/// True for 127.0.0.0/8, ::1 and 127.0.0.0/8 written as IPv6.
bool isLoopbackPeer(const sockaddr* address);

/// Names the client that is at an address, for counting; equal for two addresses of one client. All of this machine is
/// one, an IPv6 network of 64 bits is one, and so is an IPv4 address, also one written as IPv6. "" when it is neither.
std::string clientAt(const sockaddr* address);

}  // namespace morvik_service
