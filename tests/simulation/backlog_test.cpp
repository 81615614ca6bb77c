// What a whole device does with more than one batch carries, and with batches that a service finds too large.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "host/sending/batch_limit.h"
#include "services/endpoints.h"
#include "simulation/test_device.h"

namespace morvik::simulation {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::SizeIs;

namespace fakes = ::morvik::testing;

class BacklogOfADevice : public ::testing::Test {
 protected:
  BacklogOfADevice() { device.open(); }
  /// In one turn, so that no trigger comes in between.
  void record(size_t count) {
    device.perform([&] {
      for (size_t event = 0; event < count; ++event)
        device.kit().addActivity("shop", "look");
    });
  }
  void flush() {
    device.kit().flush([this](const FlushResult& result) { results.push_back(result); }, seconds(30));
    device.settle();
  }
  /// Of the batches that arrived, but for those before the first event.
  std::vector<size_t> sizes() {
    std::vector<size_t> sizes;
    for (const fakes::ServedRequest& request : device.service().requests(fakes::ServiceEndpoint::kTracking)) {
      size_t events = 0;
      for (const kit::Value& entry : request.payload["activity_info"].array())
        events += entry["activity"].string() == "look" ? 1U : 0U;
      if (events > 0)
        sizes.push_back(events);
    }
    return sizes;
  }
  fakes::ScriptedTransport::Script& tracking() { return device.network().on(services::kTrackingPath); }

  TestDevice device;
  std::vector<FlushResult> results;
};

TEST_F(BacklogOfADevice, GoesInBatchesOfTheHostsLimit) {
  record(host::kBatchLimit.records + 1);
  device.settle();
  EXPECT_THAT(sizes(), ElementsAre(host::kBatchLimit.records));
  EXPECT_EQ(device.waiting("shop", "look"), 1u);
  flush();
  EXPECT_THAT(sizes(), ElementsAre(host::kBatchLimit.records, 1));
  EXPECT_TRUE(device.kit().ledger().isSound());
}

TEST_F(BacklogOfADevice, IsFlushedInAsManyBatchesAsItTakes) {
  record(9);
  tracking().then(fakes::Answer::body(413, "")).then(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_THAT(sizes(), ElementsAre(2, 4, 3));
  EXPECT_EQ(device.delivered("shop", "look"), 9u);
}

TEST_F(BacklogOfADevice, IsFlushedAfterTheSessionToo) {
  tracking().then(fakes::Answer::error("down"));
  device.leave();
  record(9);
  tracking().then(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_TRUE(results[0].is_delivered);
  EXPECT_EQ(device.delivered("shop", "look"), 9u);
}

TEST_F(BacklogOfADevice, WaitsWithoutLossForAServiceThatFindsEverythingTooLarge) {
  record(9);
  tracking().always(fakes::Answer::body(413, ""));
  flush();
  ASSERT_THAT(results, SizeIs(1));
  EXPECT_EQ(results[0].reason, FlushReason::kRefused);
  EXPECT_EQ(device.waiting("shop", "look"), 9u);
  EXPECT_TRUE(device.kit().ledger().isSound());
}

}  // namespace
}  // namespace morvik::simulation
