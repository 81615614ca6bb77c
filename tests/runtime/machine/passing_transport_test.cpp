#include "runtime/machine/passing_transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <utility>

namespace morvik::runtime {
namespace {

using ::testing::_;
using ::testing::Return;

class MockTransport : public MachineTransport {
 public:
  MOCK_METHOD(void, start, (kit::Request, std::function<void(kit::TransportOutcome)>), (override));
  MOCK_METHOD(size_t, inFlight, (), (const, override));
  MOCK_METHOD(void, setHeld, (bool), (override));
  MOCK_METHOD(void, wishDidChange, (), (override));
  MOCK_METHOD(void, shutdown, (), (override));
};

class ChangesNoRequest final : public PassingTransport {
 public:
  explicit ChangesNoRequest(MachineTransport& transport) : PassingTransport(transport) {}
};

TEST(PassingTransportTest, PassesEverythingOn) {
  ::testing::StrictMock<MockTransport> transport;
  ChangesNoRequest passing(transport);
  int handled = 0;
  EXPECT_CALL(transport, start(_, _))
      .WillOnce([](const kit::Request& request, const std::function<void(kit::TransportOutcome)>& handler) {
        EXPECT_EQ(request.url, "https://service.example/");
        handler({});
      });
  EXPECT_CALL(transport, inFlight()).WillOnce(Return(7));
  EXPECT_CALL(transport, setHeld(true));
  EXPECT_CALL(transport, wishDidChange());
  EXPECT_CALL(transport, shutdown());
  kit::Request request;
  request.url = "https://service.example/";
  passing.start(std::move(request), [&](const kit::TransportOutcome&) { ++handled; });
  EXPECT_EQ(passing.inFlight(), 7U);
  passing.setHeld(true);
  passing.wishDidChange();
  passing.shutdown();
  EXPECT_EQ(handled, 1);
}

}  // namespace
}  // namespace morvik::runtime
