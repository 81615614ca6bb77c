#include "apps/device/store_view.h"

#include <gtest/gtest.h>

#include "kit/list_lock.h"
#include "testing/memory_store.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;

class StoreViewTest : public ::testing::Test {
 protected:
  kit::Value show(const std::vector<std::string>& names = {}) {
    return StoreView({store_, lock_}, [this](std::string_view key) { return store_.get(key); }).show(names, unknown_);
  }

  morvik::testing::MemoryStore store_;
  kit::ListLock lock_;
  std::optional<std::string> unknown_;
};

TEST_F(StoreViewTest, ShowsUnsetNumbersAndFlagsAndLeavesOutWhatIsAbsent) {
  const kit::Value all = show();
  EXPECT_EQ(unknown_, std::nullopt);
  EXPECT_EQ(all["fendoUserInfo_referralKey"], kit::Value(-1));
  EXPECT_EQ(all["fendoUserInfo_channelType"], kit::Value(0));
  EXPECT_EQ(all["MorvikCoreUserInfo_isGDPRForgetMe"], kit::Value(false));
  EXPECT_TRUE(all["fendoUserInfo_refUSN"].isAbsent());
  EXPECT_TRUE(all["fendoActivityInfos"].isAbsent());
  EXPECT_TRUE(all["fendoUserInfo_updated_at"].isAbsent());
  EXPECT_TRUE(all["com.morvik.core.appLaunchCount"].isAbsent());
}

TEST_F(StoreViewTest, ShowsThePlainEntriesUnderTheirKeys) {
  store_.set("com.morvik.core.appLaunchCount", 3);
  store_.set("com.morvik.reengagement.passopenurl", "shop://a");
  EXPECT_EQ(show()["com.morvik.core.appLaunchCount"], kit::Value(3));
  EXPECT_EQ(show({"com.morvik.reengagement.passopenurl"}),
            kit::Value(kit::Dictionary{{"com.morvik.reengagement.passopenurl", "shop://a"}}));
}

TEST_F(StoreViewTest, ShowsThoseNamedInThatOrder) {
  store_.set("fendoActivityInfos", kit::Array{1, 2});
  store_.set("fendoUserInfo_refUSN", "r");
  const kit::Value shown = show({"fendoUserInfo_refUSN", "fendoActivityInfos", "fendoUserInfo_updated_at"});
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown.dictionary().begin()->key, kit::Value("fendoUserInfo_refUSN"));
  EXPECT_EQ(shown["fendoActivityInfos"], kit::Value(kit::Array{1, 2}));
}

TEST_F(StoreViewTest, KnowsWhatItShows) {
  EXPECT_TRUE(isStoredProperty("fendoActivityInfos"));
  EXPECT_TRUE(isStoredProperty("com.morvik.core.appLaunchCount"));
  EXPECT_TRUE(isStoredProperty("com.morvik.reengagement.passopenurl"));
  EXPECT_FALSE(isStoredProperty("fendoActivityInfo"));
  EXPECT_FALSE(isStoredProperty(""));
}

TEST_F(StoreViewTest, NamesTheFirstThatIsNoProperty) {
  show({"fendoActivityInfos", "fendoActivityInfo", "nothing"});
  EXPECT_EQ(unknown_, "fendoActivityInfo");
}

}  // namespace
}  // namespace morvik_device
