#include "testing/fake_siblings.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

TEST(FakePuid, IsWhatTheTestSays) {
  testing::FakePuid puid;
  EXPECT_EQ(puid.getAESHashedPUID(), "hashed-puid");
  puid.setHashedPUID(std::nullopt);
  EXPECT_EQ(puid.getAESHashedPUID(), std::nullopt);
}

TEST(FakeBundle, HoldsTheTextsThatTheTestSets) {
  testing::FakeBundle bundle;
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleShortVersionString"), "4.5.6");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleVersion"), "789");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleIdentifier"), "com.example.test");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleName"), std::nullopt);
  bundle.set("CFBundleVersion", std::nullopt);
  bundle.set("CFBundleName", "Name");
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleVersion"), std::nullopt);
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("CFBundleName"), "Name");
}

TEST(FakeThreads, DescribesTheThreadAsTheTestSays) {
  testing::FakeThreads threads;
  EXPECT_EQ(threads.currentThreadDescription(), "<Thread: 0x600000264c00>{number = 1, name = main}");
  threads.setDescription("a thread");
  EXPECT_EQ(threads.currentThreadDescription(), "a thread");
}

TEST(MemoryShelf, RefusesWhatTheTestSays) {
  testing::MemoryShelf shelf;
  shelf.refuse("no room");
  ASSERT_TRUE(shelf.append("report").has_value());
  EXPECT_EQ(shelf.append("report")->message, "no room");
  EXPECT_TRUE(shelf.reports().empty());
  shelf.refuse(std::nullopt);
  EXPECT_FALSE(shelf.append("report").has_value());
  EXPECT_EQ(shelf.reports().size(), 1u);
}

}  // namespace
}  // namespace morvik::test
