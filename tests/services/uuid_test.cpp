#include "services/uuid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>

namespace morvik::services {
namespace {

class Constant : public kit::Random {
 public:
  explicit Constant(uint8_t byte) : byte_(byte) {}
  void fill(std::span<uint8_t> bytes) override { std::fill(bytes.begin(), bytes.end(), byte_); }

 private:
  uint8_t byte_;
};

class Counting : public kit::Random {
 public:
  void fill(std::span<uint8_t> bytes) override {
    for (uint8_t& byte : bytes)
      byte = next_++;
  }

 private:
  uint8_t next_ = 0;
};

TEST(TimeOrderedUuid, CarriesTimeVersionAndVariant) {
  Constant ones(0xFF);
  Constant zeros(0);
  const kit::Date date{1'645'557'742'123'999};  // 0x017F22E27A2B milliseconds and 999 microseconds more
  EXPECT_EQ(makeTimeOrderedUuid(date, ones), "017f22e2-7a2b-7fff-bfff-ffffffffffff");
  EXPECT_EQ(makeTimeOrderedUuid(date, zeros), "017f22e2-7a2b-7000-8000-000000000000");
}

TEST(TimeOrderedUuid, TakesEveryOtherBitFromChance) {
  Counting random;
  EXPECT_EQ(makeTimeOrderedUuid(kit::Date{0}, random), "00000000-0000-7607-8809-0a0b0c0d0e0f");
}

TEST(TimeOrderedUuid, SortsByTime) {
  Constant ones(0xFF);
  Constant zeros(0);
  EXPECT_LT(makeTimeOrderedUuid(kit::Date::fromSeconds(1'700'000'000), ones),
            makeTimeOrderedUuid(kit::Date{1'700'000'000'001'000}, zeros));
}

TEST(TimeOrderedUuid, CountsADateBefore1970As1970) {
  Constant zeros(0);
  EXPECT_EQ(makeTimeOrderedUuid(kit::Date{-1}, zeros), "00000000-0000-7000-8000-000000000000");
  EXPECT_EQ(makeTimeOrderedUuid(kit::Date{std::numeric_limits<int64_t>::min()}, zeros),
            "00000000-0000-7000-8000-000000000000");
}

TEST(TimeOrderedUuid, DiffersWithinOneMillisecond) {
  Counting random;
  std::set<std::string> ids;
  for (int i = 0; i < 16; ++i)
    ids.insert(makeTimeOrderedUuid(kit::Date{0}, random));
  EXPECT_EQ(ids.size(), 16U);
}

TEST(RandomUuid, TakesAllButVersionAndVariantFromChance) {
  Counting counting;
  Constant ones(0xFF);
  EXPECT_EQ(makeRandomUuid(counting), "00010203-0405-4607-8809-0a0b0c0d0e0f");
  EXPECT_EQ(makeRandomUuid(ones), "ffffffff-ffff-4fff-bfff-ffffffffffff");
}

TEST(IsUuid, TakesTheFormInEitherCase) {
  for (const char* text : {"6d92078a-8246-4ba4-ae5b-76104861e7dc", "6D92078A-8246-4BA4-AE5B-76104861E7DC",
                           "00000000-0000-0000-0000-000000000000"})
    EXPECT_TRUE(isUuid(text)) << text;
}

TEST(IsUuid, TakesNothingElse) {
  for (const char* text : {"", "6d92078a", "6d92078a82464ba4ae5b76104861e7dc", "6d92078a-8246-4ba4-ae5b-76104861e7d",
                           "6d92078a-8246-4ba4-ae5b-76104861e7dcc", "6d92078g-8246-4ba4-ae5b-76104861e7dc",
                           "6d92078a 8246-4ba4-ae5b-76104861e7dc", "6d92078a-8246-4ba4-ae5b076104861e7dc",
                           "{6d92078a-8246-4ba4-ae5b-76104861e7dc}", "6d92078a-8246-4ba4-ae5b-76104861e7d\xB2"})
    EXPECT_FALSE(isUuid(text)) << text;
}

}  // namespace
}  // namespace morvik::services
