#include "proofs/oracle/payload_values.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace morvik::proofs {
namespace {

TEST(TextOf, IsATextOrWhatANumberReadsAs) {
  EXPECT_EQ(textOf("sku-42"), "sku-42");
  EXPECT_EQ(textOf(17), "17");
  EXPECT_EQ(textOf(true), "1");
  EXPECT_EQ(textOf(kit::Value()), "");
  EXPECT_EQ(textOf(kit::Array{1}), "");
}

TEST(IntegerOf, ReadsNumbersAndTheTextsThatBeginWithOne) {
  EXPECT_EQ(integerOf(-7), -7);
  EXPECT_EQ(integerOf(2.9), 2);
  EXPECT_EQ(integerOf(true), 1);
  EXPECT_EQ(integerOf(" +12abc"), 12);
  EXPECT_EQ(integerOf("-3"), -3);
  EXPECT_EQ(integerOf("+-3"), 0);
  EXPECT_EQ(integerOf("none"), 0);
  EXPECT_EQ(integerOf(kit::Value()), 0);
}

TEST(IntegerOf, IsTheNearestThatFits) {
  EXPECT_EQ(integerOf(1e300), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(integerOf(-1e300), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(integerOf(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(integerOf("99999999999999999999"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(integerOf("-99999999999999999999"), std::numeric_limits<int64_t>::min());
}

TEST(MeansYes, TakesTruthNumbersAndTheWordsForIt) {
  for (const kit::Value& yes : {kit::Value(true), kit::Value(2), kit::Value(-0.5), kit::Value(" yes"), kit::Value("1")})
    EXPECT_TRUE(meansYes(yes));
  for (const kit::Value& no : {kit::Value(), kit::Value(false), kit::Value(0), kit::Value("no"), kit::Value("0"),
                               kit::Value(""), kit::Value(std::numeric_limits<double>::quiet_NaN())})
    EXPECT_FALSE(meansYes(no));
}

TEST(ConversionKeyAndFailures, AreReadFromTheirFields) {
  const kit::Value record = kit::Dictionary{{"conversion_key", "5"}, {"failure_cnt", 2}};
  EXPECT_EQ(conversionKeyOf(record), 5);
  EXPECT_EQ(failuresOf(record), 2);
}

}  // namespace
}  // namespace morvik::proofs
