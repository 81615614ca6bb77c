#include "apps/device/scenario/request_text.h"

#include <gtest/gtest.h>

#include "testing/json_reader.h"

namespace morvik_device::scenario {
namespace {

using morvik::testing::json;
using morvik::testing::ServedRequest;
using morvik::testing::ServiceEndpoint;

ServedRequest served(ServiceEndpoint endpoint, const char* payload) {
  ServedRequest request;
  request.endpoint = endpoint;
  request.payload = json(payload);
  return request;
}

TEST(RequestText, NamesTheEventsOfABatch) {
  EXPECT_EQ(
      requestText(served(ServiceEndpoint::kTracking,
                         R"({"appkey":"a","activity_info":[{"group":"g","activity":"x"}],"impression_info":[]})")),
      "1 event: g/x");
  EXPECT_EQ(
      requestText(served(ServiceEndpoint::kTracking,
                         R"({"activity_info":[{"group":"g","activity":"1"},{"group":"g","activity":"2"},)"
                         R"({"group":"g","activity":"3"},{"group":"g","activity":"4"},)"
                         R"({"group":"g","activity":"5"},{"group":"g","activity":"6"}],"impression_info":[{}]})")),
      "6 events: g/1, g/2, g/3, g/4, g/5, … and 1 impression");
}

TEST(RequestText, LeavesOutWhatEveryPayloadSays) {
  EXPECT_EQ(requestText(served(ServiceEndpoint::kReEngagement,
                               R"({"appkey":"a","install_id":"i","deeplink_info":{"conversion_key":5}})")),
            R"({"deeplink_info":{"conversion_key":5}})");
}

TEST(RequestText, CountsAList) {
  EXPECT_EQ(requestText(served(ServiceEndpoint::kCommerce, R"([{"clickId":"c"}])")),
            R"(1 in the list [{"clickId":"c"}])");
}

TEST(RequestText, SaysNothingOfARequestWithoutAPayload) {
  ServedRequest request;
  request.endpoint = ServiceEndpoint::kConfiguration;
  EXPECT_EQ(requestText(request), "");
  EXPECT_EQ(endpointText(request), "configuration");
}

TEST(RequestText, SaysWhyARequestCannotBeRead) {
  ServedRequest request;
  request.refusal = "no endpoint has this path";
  EXPECT_EQ(requestText(request), "not to be read: no endpoint has this path");
  EXPECT_EQ(endpointText(request), "?");
}

}  // namespace
}  // namespace morvik_device::scenario
