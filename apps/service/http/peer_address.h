// Classifies addresses of peers.
#pragma once

#include <string>

struct sockaddr;

namespace morvik_service {

/// True for 127.0.0.0/8, ::1 and 127.0.0.0/8 written as IPv6.
bool isLoopbackPeer(const sockaddr* address);

/// Identifies the client at an address, for counting; equal for two addresses of one client. This machine is one
/// client, and so are an IPv6 network of 64 bits and an IPv4 address, also written as IPv6. "" if it is neither.
std::string clientAt(const sockaddr* address);

}  // namespace morvik_service
