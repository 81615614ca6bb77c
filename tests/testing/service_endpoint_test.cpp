#include "testing/service_endpoint.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "services/endpoints.h"

namespace morvik::test {
namespace {

using testing::endpointNamed;
using testing::endpointOf;
using testing::ServiceEndpoint;

TEST(ServiceEndpoint, HasANameOfItsOwnThatLeadsBackToIt) {
  std::set<std::string_view> names;
  for (const ServiceEndpoint endpoint : testing::kServiceEndpoints) {
    names.insert(testing::nameOf(endpoint));
    EXPECT_EQ(endpointNamed(testing::nameOf(endpoint)), endpoint);
  }
  EXPECT_EQ(names.size(), testing::kServiceEndpoints.size());
  EXPECT_EQ(endpointNamed("conversions"), std::nullopt);
  EXPECT_EQ(endpointNamed(""), std::nullopt);
}

TEST(ServiceEndpoint, IsKnownByThePathOfAUrl) {
  EXPECT_EQ(endpointOf("https://a.example/v1/conversion"), ServiceEndpoint::kConversion);
  EXPECT_EQ(endpointOf("https://a.example/v1/thirdparty-conversion"), ServiceEndpoint::kThirdPartyConversion);
  EXPECT_EQ(endpointOf("https://a.example/v1/iad-attribution"), ServiceEndpoint::kIadAttribution);
  EXPECT_EQ(endpointOf("https://a.example/v1/tracking"), ServiceEndpoint::kTracking);
  EXPECT_EQ(endpointOf("https://a.example/v1/reengagement-conversion"), ServiceEndpoint::kReEngagement);
  EXPECT_EQ(endpointOf("https://a.example/v1/commerce-conversion"), ServiceEndpoint::kCommerce);
  EXPECT_EQ(endpointOf("https://a.example/the-app/config.json"), ServiceEndpoint::kConfiguration);
  EXPECT_EQ(endpointOf("https://a.example/v1/crash"), ServiceEndpoint::kCrash);
  EXPECT_EQ(endpointOf("https://a.example/v1/demographics"), ServiceEndpoint::kDemographics);
  EXPECT_EQ(endpointOf("https://a.example/v2/schedule"), ServiceEndpoint::kSchedule);
  EXPECT_EQ(endpointOf("https://a.example/v1/erasure"), ServiceEndpoint::kErasure);
}

TEST(ServiceEndpoint, IsWhereTheKitAsks) {
  std::set<ServiceEndpoint> asked{ServiceEndpoint::kConfiguration};
  for (const services::EndpointRow& row : services::kEndpoints) {
    const auto endpoint = endpointOf(services::urlOf({}, row.endpoint));
    ASSERT_TRUE(endpoint.has_value()) << row.path;
    EXPECT_EQ(testing::rowOf(*endpoint).path, "/" + std::string(row.path));
    EXPECT_TRUE(asked.insert(*endpoint).second) << row.path;
  }
  EXPECT_EQ(asked.size(), testing::kServiceEndpoints.size());
}

TEST(ServiceEndpoint, IsKnownUnderABaseUrlWithAPathAndBeforeAQuery) {
  EXPECT_EQ(endpointOf("http://127.0.0.1:8080/eu/v1/tracking?k=v1/crash#v1/erasure"), ServiceEndpoint::kTracking);
}

TEST(ServiceEndpoint, IsNoneForAnotherPath) {
  EXPECT_EQ(endpointOf("https://a.example/v1/trackings"), std::nullopt);
  EXPECT_EQ(endpointOf("https://a.example/xv1/tracking"), std::nullopt);
  EXPECT_EQ(endpointOf("v1/tracking"), std::nullopt);
  EXPECT_EQ(endpointOf(""), std::nullopt);
}

}  // namespace
}  // namespace morvik::test
