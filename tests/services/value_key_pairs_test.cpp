#include "services/value_key_pairs.h"

#include <gtest/gtest.h>

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Value;

TEST(ValueKeyPairs, MakeADictionaryInTheirOrder) {
  const Value made(untilAbsent({{"b", 1}, {"a", Value::null()}, {"c", ""}}));
  EXPECT_EQ(made, Value(Dictionary{{"b", 1}, {"a", Value::null()}, {"c", ""}}));
  EXPECT_EQ(made.dictionary().begin()->key, Value("b"));
}

TEST(ValueKeyPairs, EndAtTheFirstAbsentValue) {
  EXPECT_EQ(Value(untilAbsent({{"a", 1}, {"b", Value()}, {"c", 3}})), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(Value(untilAbsent({{"appkey", Value()}, {"type", "classic"}})), Value(Dictionary{}));
  EXPECT_TRUE(Value(untilAbsent({})).isDictionary());
}

}  // namespace
}  // namespace morvik::services
