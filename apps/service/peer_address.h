// Whether an address belongs to this machine.
#pragma once

struct sockaddr;

namespace morvik_service {

/// True for 127.0.0.0/8, ::1 and 127.0.0.0/8 written as IPv6.
bool isLoopbackPeer(const sockaddr* address);

}  // namespace morvik_service
