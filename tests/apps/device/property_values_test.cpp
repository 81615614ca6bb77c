#include "apps/device/property_values.h"

#include <gtest/gtest.h>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
using kit::Dictionary;
using kit::Value;

const Value kNoon = kit::Date::fromSeconds(1714564800);

Value valueOf(std::string_view property, const Value& json) {
  const auto read = propertyValue(property, json);
  if (const auto* value = std::get_if<Value>(&read))
    return *value;
  ADD_FAILURE() << std::get<std::string>(read);
  return {};
}

std::string mistakeOf(std::string_view property, const Value& json) {
  const auto read = propertyValue(property, json);
  const auto* mistake = std::get_if<std::string>(&read);
  return mistake != nullptr ? *mistake : "no mistake";
}

TEST(PropertyValues, EachTypeTakesItsOwnKindOfJson) {
  EXPECT_EQ(valueOf("fendoUserInfo_referralKey", int64_t{1} << 40), Value(int64_t{1} << 40));
  EXPECT_EQ(valueOf("fendoUserDemoInfo_age", -1), Value(-1));
  EXPECT_EQ(valueOf("MorvikCoreUserInfo_isGDPRForgetMe", true), Value(true));
  EXPECT_EQ(valueOf("commercePremiumPostBack", "true"), Value("true"));
  EXPECT_EQ(valueOf("fendoConversionInfoForCaches", kit::Array{1, 2}), Value(kit::Array{1, 2}));
}

TEST(PropertyValues, NullMakesAnyPropertyAbsent) {
  for (const char* property : {"fendoUserInfo_referralKey", "MorvikCoreUserInfo_endSessoinDate", "reEngagementInfos"})
    EXPECT_TRUE(valueOf(property, Value::null()).isAbsent()) << property;
}

TEST(PropertyValues, TextBecomesADateInADatePropertyAndUnderTheNamesOfDatesAlone) {
  EXPECT_EQ(valueOf("MorvikCoreUserInfo_endSessoinDate", "2024-05-01T12:00:00Z"), kNoon);
  EXPECT_EQ(valueOf("commercePremiumPostBack", "2024-05-01T12:00:00Z"), Value("2024-05-01T12:00:00Z"));
  const kit::Array given{Dictionary{{"createdAt", "2024-05-01T12:00:00Z"}, {"at", "2024-05-01T12:00:00Z"}}};
  const kit::Array kept{Dictionary{{"createdAt", kNoon}, {"at", "2024-05-01T12:00:00Z"}}};
  EXPECT_EQ(valueOf("fendoImpressionInfos", given), Value(kept));
}

TEST(PropertyValues, WhatDoesNotFitIsNamedWithTheWayToMendIt) {
  EXPECT_EQ(mistakeOf("fendoUserInfo_referralKey", "7"),
            "fendoUserInfo_referralKey needs a whole number of 64 bits, or null");
  EXPECT_EQ(mistakeOf("fendoUserInfo_referralKey", 1.5),
            "fendoUserInfo_referralKey needs a whole number of 64 bits, or null");
  EXPECT_EQ(mistakeOf("fendoUserDemoInfo_age", int64_t{1} << 31),
            "fendoUserDemoInfo_age needs a whole number of 32 bits, or null");
  EXPECT_EQ(mistakeOf("MorvikCoreUserInfo_isGDPRForgetMe", 1),
            "MorvikCoreUserInfo_isGDPRForgetMe needs true, false or null");
  EXPECT_EQ(mistakeOf("commercePremiumPostBack", true), "commercePremiumPostBack needs text in double quotes, or null");
  EXPECT_EQ(mistakeOf("MorvikCoreUserInfo_endSessoinDate", "noon"),
            "MorvikCoreUserInfo_endSessoinDate needs a date, such as \"2024-05-01T12:00:00Z\", or null");
  EXPECT_EQ(mistakeOf("reEngagementInfos", Dictionary{}), "reEngagementInfos needs a JSON array, or null");
}

TEST(PropertyValues, AnUnknownPropertyIsRefused) {
  EXPECT_EQ(mistakeOf("referralKey", 7),
            "\"referralKey\" is not a stored property; \"store\" shows those that are set");
}

}  // namespace
}  // namespace morvik_device
