#include "apps/service/times.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

TEST(Times, WritesTimesInUtc) {
  EXPECT_EQ("1970-01-01T00:00:00.000Z", isoTime(0));
  EXPECT_EQ("2024-02-29T23:59:59.999Z", isoTime(1709251199999));
  EXPECT_EQ("20240229235959", compactTime(1709251199999));
  EXPECT_EQ("20240301000000", compactTime(1709251200000));
}

TEST(Times, WritesTimesBefore1970) {
  EXPECT_EQ("1969-12-31T23:59:59.999Z", isoTime(-1));
}

TEST(Times, TheSystemsClockIsInMilliseconds) {
  EXPECT_GT(systemTimeMilliseconds(), 1600000000000);
  EXPECT_LT(systemTimeMilliseconds(), 10000000000000);
}

}  // namespace
}  // namespace morvik_service
