#include "apps/service/base/times.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

TEST(Times, WritesTimesInUtc) {
  EXPECT_EQ("1970-01-01T00:00:00.000Z", isoTime(0));
  EXPECT_EQ("2024-02-29T23:59:59.999Z", isoTime(1709251199999));
  EXPECT_EQ("20240229235959", compactTime(1709251199999));
  EXPECT_EQ("20240301000000", compactTime(1709251200000));
}

TEST(Times, ReadsCompactTimesOfRealDatesOnly) {
  EXPECT_EQ(1709251199000, parseCompactTime("20240229235959"));
  for (const char* text : {"", "2024022923595", "202402292359590", "20230229235959", "20240229245959", "20240229236059",
                           "20240229235960", "2024-02-29 2359", "20241329235959"})
    EXPECT_EQ(std::nullopt, parseCompactTime(text)) << text;
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
