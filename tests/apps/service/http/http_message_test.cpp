#include "apps/service/http/http_message.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

TEST(HttpMessage, FindsAHeaderWithoutRegardToCase) {
  HttpRequest request;
  request.headers = {{"Host", "one"}, {"HOST", "two"}, {"Content-Type", "x"}};
  ASSERT_NE(nullptr, findHeader(request, "host"));
  EXPECT_EQ("one", *findHeader(request, "host"));
  EXPECT_EQ("x", *findHeader(request, "CONTENT-TYPE"));
}

TEST(HttpMessage, AMissingHeaderIsNotThere) {
  HttpRequest request;
  request.headers = {{"Host", "one"}};
  EXPECT_EQ(nullptr, findHeader(request, "Hos"));
  EXPECT_EQ(nullptr, findHeader(request, "Hosts"));
}

}  // namespace
}  // namespace morvik_service
