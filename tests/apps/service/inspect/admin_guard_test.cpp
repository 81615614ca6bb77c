#include "apps/service/inspect/admin_guard.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::inspection;
using test::refusalOf;

HttpRequest withHeaders(const NamedValues& headers) {
  HttpRequest request = inspection("GET", "/inspect/events");
  request.headers = headers;
  return request;
}

Refusal refused(const HttpRequest& request, const AdminRules& rules = {}) {
  return refusalOf([&] { requireAdmin(request, rules); });
}

TEST(AdminGuard, LoopbackNamesAreWelcome) {
  for (const char* host : {"localhost", "LOCALHOST", "localhost:8443", "127.0.0.1:1", "[::1]", "[::1]:8443"}) {
    EXPECT_NO_THROW(requireAdmin(withHeaders({{"Host", host}}), {})) << host;
    EXPECT_NO_THROW(requireAdmin(withHeaders({{"Host", host}, {"Origin", "https://" + std::string(host)}}), {}))
        << host;
  }
}

TEST(AdminGuard, ForeignHostsAreRefused) {
  EXPECT_EQ(403, refused(withHeaders({})).status());
  for (const char* host : {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "[::1", "[::2]"})
    EXPECT_EQ("header Host", refused(withHeaders({{"Host", host}})).where()) << host;
}

TEST(AdminGuard, PagesOfOtherHostsOtherPortsAndOtherSchemesAreRefused) {
  for (const char* origin : {"null", "https://evil.example", "localhost:8443", "https://localhost.evil.example:8443",
                             "https://localhost", "https://localhost:3000", "http://localhost:8443"}) {
    const Refusal refusal = refused(withHeaders({{"Host", "localhost:8443"}, {"Origin", origin}}));
    EXPECT_EQ(403, refusal.status());
    EXPECT_EQ("header Origin", refusal.where()) << origin;
  }
}

TEST(AdminGuard, AnotherSitesPageIsRefusedWithoutAnOriginToo) {
  for (const char* site : {"cross-site", "same-site", ""}) {
    HttpRequest request = withHeaders({{"Host", "localhost:8443"}, {"Sec-Fetch-Site", site}});
    EXPECT_EQ("header Sec-Fetch-Site", refused(request).where()) << site;
    request.path = "/";
    EXPECT_NO_THROW(requireAdmin(request, {})) << "a link to the page";
  }
  for (const char* site : {"same-origin", "none"})
    EXPECT_NO_THROW(requireAdmin(withHeaders({{"Host", "localhost"}, {"Sec-Fetch-Site", site}}), {})) << site;
}

TEST(AdminGuard, APeerElsewhereIsRefusedWhateverItsHeadersSay) {
  HttpRequest request = inspection("GET", "/inspect/requests");
  request.from_loopback = false;
  EXPECT_EQ("the peer's address", refused(request).where());
}

TEST(AdminGuard, ANameThatWasAllowedLetsOtherMachinesInUnderThatNameAlone) {
  const AdminRules rules{{"build.example", "192.0.2.7"}};
  for (const char* host : {"build.example:8443", "Build.Example", "192.0.2.7:1"}) {
    HttpRequest request = withHeaders({{"Host", host}});
    request.from_loopback = false;
    EXPECT_NO_THROW(requireAdmin(request, rules)) << host;
    EXPECT_EQ("header Host", refused(withHeaders({{"Host", host}})).where());
  }
  EXPECT_EQ("header Host", refused(withHeaders({{"Host", "other.example"}}), rules).where());
  EXPECT_EQ("header Origin",
            refused(withHeaders({{"Host", "build.example"}, {"Origin", "https://other.example"}}), rules).where());
}

}  // namespace
}  // namespace morvik_service
