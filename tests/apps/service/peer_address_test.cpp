#include "apps/service/peer_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace morvik_service {
namespace {

bool four(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(1, inet_pton(AF_INET, text, &address.sin_addr));
  return isLoopbackPeer(reinterpret_cast<const sockaddr*>(&address));
}

bool six(const char* text) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  EXPECT_EQ(1, inet_pton(AF_INET6, text, &address.sin6_addr));
  return isLoopbackPeer(reinterpret_cast<const sockaddr*>(&address));
}

TEST(PeerAddress, ThisMachineIsKnown) {
  EXPECT_TRUE(four("127.0.0.1"));
  EXPECT_TRUE(four("127.255.255.254"));
  EXPECT_TRUE(six("::1"));
  EXPECT_TRUE(six("::ffff:127.0.0.1"));
}

TEST(PeerAddress, OtherMachinesAreNot) {
  EXPECT_FALSE(four("0.0.0.0"));
  EXPECT_FALSE(four("128.0.0.1"));
  EXPECT_FALSE(six("::"));
  EXPECT_FALSE(six("::2"));
  EXPECT_FALSE(six("::ffff:10.0.0.1"));
  sockaddr unknown{};
  unknown.sa_family = AF_UNIX;
  EXPECT_FALSE(isLoopbackPeer(&unknown));
}

}  // namespace
}  // namespace morvik_service
