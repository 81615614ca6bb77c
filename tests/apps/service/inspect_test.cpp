#include "apps/service/inspect.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::inspection;
using test::refusalOf;
using test::TemporaryFolder;

class InspectTest : public testing::Test {
 protected:
  HttpReply ask(const HttpRequest& request) { return inspect(request, {store_, behaviours_, attribution_}); }
  Refusal refused(const HttpRequest& request) {
    return refusalOf([&] { ask(request); });
  }

  TemporaryFolder folder_;
  Store store_{folder_.path()};
  Behaviours behaviours_;
  Attribution attribution_;
};

HttpRequest withHeaders(const NamedValues& headers) {
  HttpRequest request = inspection("GET", "/inspect/events");
  request.headers = headers;
  return request;
}

TEST(Inspect, ClaimsItsOwnPathsOnly) {
  for (const char* path : {"/inspect", "/inspect/", "/inspect/requests"}) {
    EXPECT_TRUE(isInspection(inspection("GET", path))) << path;
  }
  for (const char* path : {"/", "/inspector", "/v1/inspect"}) {
    EXPECT_FALSE(isInspection(inspection("GET", path))) << path;
  }
}

TEST_F(InspectTest, ShowsAnEmptyStore) {
  EXPECT_EQ(R"({"requests":[],"complete":true,"next_after":0})", ask(inspection("GET", "/inspect/requests")).body);
  EXPECT_EQ(R"({"events":[],"distinct":0,"arrivals":0,"complete":true,"next_after":0})",
            ask(inspection("GET", "/inspect/events")).body);
}

TEST_F(InspectTest, PagesByTheQuery) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  request.query = {{"after", "7"}, {"limit", "1"}};
  EXPECT_EQ(R"({"requests":[],"complete":true,"next_after":7})", ask(request).body);
}

TEST_F(InspectTest, ABadQueryIsRefused) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  for (const char* value : {"", "x", "-1", "1x", "99999999999999999999"}) {
    request.query = {{"after", value}};
    EXPECT_STREQ("\"after\" is no whole number from 0 on", refused(request).what()) << value;
  }
  request.query = {{"since", "1"}};
  EXPECT_STREQ("the query parameter \"since\" is not known", refused(request).what());
}

TEST_F(InspectTest, QueuesShowsAndClearsBehaviours) {
  const std::string one = R"({"endpoint":"tracking","count":3,"kind":"status","status":500,"count_events":false})";
  EXPECT_EQ("{\"behaviours\":[" + one + "]}", ask(inspection("POST", "/inspect/behaviour", one)).body);
  EXPECT_EQ("{\"behaviours\":[" + one + "]}", ask(inspection("GET", "/inspect/behaviour")).body);
  EXPECT_EQ(R"({"behaviours":[]})", ask(inspection("DELETE", "/inspect/behaviour")).body);
}

TEST_F(InspectTest, ABadBehaviourIsRefusedAndNotQueued) {
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/behaviour", "{")).status());
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/behaviour", R"({"endpoint":"tracking"})")).status());
  EXPECT_TRUE(behaviours_.list().empty());
}

TEST_F(InspectTest, ShowsAndChangesTheAttributionData) {
  EXPECT_EQ(R"({"attribution":{}})", ask(inspection("GET", "/inspect/attribution")).body);
  EXPECT_EQ(R"({"attribution":{"deeplink":"x"}})",
            ask(inspection("POST", "/inspect/attribution", R"({"deeplink":"x"})")).body);
  EXPECT_EQ(400, refused(inspection("POST", "/inspect/attribution", "7")).status());
}

TEST_F(InspectTest, ABodyThatWasTooLargeIsRefused) {
  HttpRequest request = inspection("POST", "/inspect/behaviour");
  request.body_too_large = true;
  EXPECT_EQ(413, refused(request).status());
}

TEST_F(InspectTest, UnknownPathsAndMethodsAreToldWhatExists) {
  const Refusal path = refused(inspection("GET", "/inspect/everything"));
  EXPECT_EQ(404, path.status());
  EXPECT_EQ(
      "use one of: GET /inspect/requests, GET /inspect/events, GET /inspect/behaviour, POST /inspect/behaviour, "
      "DELETE /inspect/behaviour, GET /inspect/attribution, POST /inspect/attribution",
      path.mend());
  const Refusal method = refused(inspection("PUT", "/inspect/behaviour"));
  EXPECT_EQ(405, method.status());
  EXPECT_EQ("use GET or POST or DELETE", method.mend());
}

TEST_F(InspectTest, LoopbackNamesAreWelcome) {
  for (const char* host : {"localhost", "localhost:8443", "127.0.0.1:1", "[::1]", "[::1]:8443"}) {
    EXPECT_EQ(200, ask(withHeaders({{"Host", host}})).status) << host;
    EXPECT_EQ(200, ask(withHeaders({{"Host", host}, {"Origin", "https://" + std::string(host)}})).status) << host;
  }
}

TEST_F(InspectTest, ForeignNamesAreRefused) {
  EXPECT_EQ(403, refused(withHeaders({})).status());
  for (const char* host : {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "[::1", "[::2]"}) {
    EXPECT_EQ("header Host", refused(withHeaders({{"Host", host}})).where()) << host;
  }
  for (const char* origin : {"null", "https://evil.example", "localhost", "https://localhost.evil.example:8443"}) {
    const Refusal refusal = refused(withHeaders({{"Host", "localhost"}, {"Origin", origin}}));
    EXPECT_EQ(403, refusal.status());
    EXPECT_EQ("header Origin", refusal.where()) << origin;
  }
}

TEST_F(InspectTest, APeerElsewhereIsRefusedWhateverItsHeadersSay) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  request.from_loopback = false;
  EXPECT_EQ(403, refused(request).status());
}

}  // namespace
}  // namespace morvik_service
