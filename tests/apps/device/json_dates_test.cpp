#include "apps/device/json_dates.h"

#include <gtest/gtest.h>

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

const kit::Value kText = "2024-05-01T12:00:00Z";
const kit::Value kDate = kit::Date::fromSeconds(1714564800);

TEST(JsonDates, TextUnderTheTwoDateNamesBecomesADate) {
  const kit::Value given = kit::Dictionary{{"createdAt", kText}, {"activityCreatedAt", kText}};
  EXPECT_EQ(withDates(given), kit::Value(kit::Dictionary{{"createdAt", kDate}, {"activityCreatedAt", kDate}}));
}

TEST(JsonDates, TextUnderAnyOtherNameStaysText) {
  const kit::Value given = kit::Dictionary{{"created_at", kText}, {"spaceKey", kText}};
  EXPECT_EQ(withDates(given), given);
  EXPECT_EQ(withDates(kText), kText);
}

TEST(JsonDates, WhatIsNoDateStaysAsItIs) {
  const kit::Value given = kit::Dictionary{{"createdAt", "soon"}, {"activityCreatedAt", 7}};
  EXPECT_EQ(withDates(given), given);
}

TEST(JsonDates, DatesAreFoundAtAnyDepth) {
  const kit::Value given = kit::Array{kit::Dictionary{{"list", kit::Array{kit::Dictionary{{"createdAt", kText}}}}}};
  const kit::Value wanted = kit::Array{kit::Dictionary{{"list", kit::Array{kit::Dictionary{{"createdAt", kDate}}}}}};
  EXPECT_EQ(withDates(given), wanted);
}

}  // namespace
}  // namespace morvik_device
