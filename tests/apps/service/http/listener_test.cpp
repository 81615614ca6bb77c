#include "apps/service/http/listener.h"

#include <gtest/gtest.h>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

TEST(Listener, PortZeroTakesAFreeOneAndSaysWhich) {
  const Listener listener("127.0.0.1", 0);
  EXPECT_NE(0, listener.port());
  EXPECT_EQ("https://127.0.0.1:" + std::to_string(listener.port()) + "/", listener.url());
}

TEST(Listener, LocalhostIsAName) {
  const Listener listener("localhost", 0);
  EXPECT_EQ("https://localhost:" + std::to_string(listener.port()) + "/", listener.url());
}

TEST(Listener, OfEveryAddressOfTheMachineLoopbackIsNamed) {
  const Listener listener("0.0.0.0", 0);
  EXPECT_EQ("https://127.0.0.1:" + std::to_string(listener.port()) + "/", listener.url());
}

TEST(Listener, APortInUseIsSaid) {
  const Listener first("127.0.0.1", 0);
  try {
    const Listener second("127.0.0.1", first.port());
    ADD_FAILURE() << "the port was taken twice";
  } catch (const SetupError& error) {
    EXPECT_EQ("cannot listen on 127.0.0.1 port " + std::to_string(first.port()) +
                  ": Address already in use; choose another with --port (0 takes a free one) or --bind",
              error.what());
  }
}

TEST(Listener, ANameThatIsNoAddressIsRefused) {
  EXPECT_THROW(Listener("example", 0), SetupError);
  EXPECT_THROW(isLoopbackAddress("127.0.0"), SetupError);
}

TEST(Listener, KnowsWhichAddressesOthersCanReach) {
  for (const char* address : {"127.0.0.1", "127.9.9.9", "::1", "localhost"})
    EXPECT_TRUE(isLoopbackAddress(address));
  for (const char* address : {"0.0.0.0", "10.0.0.1", "::", "2001:db8::1"})
    EXPECT_FALSE(isLoopbackAddress(address));
}

}  // namespace
}  // namespace morvik_service
