#include "apps/service/endpoints.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

TEST(Endpoints, EachPathHasItsKeyAndItsRules) {
  struct Row {
    const char* name;
    const char* path;
    KeyChoice key;
    bool has_events;
  };
  const std::vector<Row> expected = {
      {"conversion", "/v1/conversion", KeyChoice::kHashKeyTwice, false},
      {"thirdparty-conversion", "/v1/thirdparty-conversion", KeyChoice::kHashKeyTwice, false},
      {"iad-attribution", "/v1/iad-attribution", KeyChoice::kHashKeyTwice, false},
      {"tracking", "/v1/tracking", KeyChoice::kTrackingKey, true},
  };
  ASSERT_EQ(expected.size(), endpoints().size());
  for (const Row& row : expected) {
    const Endpoint* endpoint = findEndpoint(row.path);
    ASSERT_NE(nullptr, endpoint) << row.path;
    EXPECT_EQ(row.name, endpoint->name);
    EXPECT_EQ(row.key, endpoint->key);
    EXPECT_EQ(row.has_events, endpoint->has_events);
    EXPECT_EQ(row.has_events, endpoint->payload_required);
  }
}

TEST(Endpoints, PathsAreExact) {
  for (const char* path : {"", "/", "/v1", "v1/tracking", "/v1/tracking/", "/base/v1/tracking", "/V1/tracking"}) {
    EXPECT_EQ(nullptr, findEndpoint(path)) << path;
  }
}

TEST(Endpoints, NamesAreThoseOfTheTable) {
  EXPECT_EQ((std::vector<std::string>{"conversion", "thirdparty-conversion", "iad-attribution", "tracking"}),
            endpointNames());
}

}  // namespace
}  // namespace morvik_service
