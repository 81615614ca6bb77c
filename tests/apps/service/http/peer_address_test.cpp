#include "apps/service/http/peer_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace morvik_service {
namespace {

sockaddr_in ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(1, inet_pton(AF_INET, text, &address.sin_addr));
  return address;
}

sockaddr_in6 ipv6(const char* text) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  EXPECT_EQ(1, inet_pton(AF_INET6, text, &address.sin6_addr));
  return address;
}

bool four(const char* text) {
  const sockaddr_in address = ipv4(text);
  return isLoopbackPeer(reinterpret_cast<const sockaddr*>(&address));
}

bool six(const char* text) {
  const sockaddr_in6 address = ipv6(text);
  return isLoopbackPeer(reinterpret_cast<const sockaddr*>(&address));
}

std::string clientAtFour(const char* text) {
  const sockaddr_in address = ipv4(text);
  return clientAt(reinterpret_cast<const sockaddr*>(&address));
}

std::string clientAtSix(const char* text) {
  const sockaddr_in6 address = ipv6(text);
  return clientAt(reinterpret_cast<const sockaddr*>(&address));
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

TEST(PeerAddress, AllOfThisMachineIsOneClient) {
  const std::string here = clientAtFour("127.0.0.1");
  EXPECT_EQ(here, clientAtFour("127.0.0.2"));
  EXPECT_EQ(here, clientAtFour("127.255.255.254"));
  EXPECT_EQ(here, clientAtSix("::1"));
  EXPECT_EQ(here, clientAtSix("::ffff:127.3.2.1"));
}

TEST(PeerAddress, EachIpv4AddressOfAnotherMachineIsAClient) {
  EXPECT_NE(clientAtFour("127.0.0.1"), clientAtFour("10.0.0.1"));
  EXPECT_NE(clientAtFour("10.0.0.1"), clientAtFour("10.0.0.2"));
  EXPECT_EQ(clientAtFour("10.0.0.1"), clientAtSix("::ffff:10.0.0.1"));
  EXPECT_NE(clientAtFour("10.0.0.1"), clientAtSix("::ffff:10.0.0.2"));
}

TEST(PeerAddress, AnIpv6NetworkOf64BitsIsOneClient) {
  EXPECT_EQ(clientAtSix("2001:db8:0:1::1"), clientAtSix("2001:db8:0:1:ffff:ffff:ffff:ffff"));
  EXPECT_NE(clientAtSix("2001:db8:0:1::1"), clientAtSix("2001:db8:0:2::1"));
  EXPECT_NE(clientAtSix("::1"), clientAtSix("2001:db8:0:1::1"));
  EXPECT_NE(clientAtSix("::1"), clientAtSix("::2")) << "loopback is an address of its network, not all of it";
}

TEST(PeerAddress, WhatIsNoInternetAddressHasNoName) {
  sockaddr unknown{};
  unknown.sa_family = AF_UNIX;
  EXPECT_EQ("", clientAt(&unknown));
}

}  // namespace
}  // namespace morvik_service
