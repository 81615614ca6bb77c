#include "testing/fake_facade.h"

#include <gtest/gtest.h>

#include <optional>

namespace morvik::test {
namespace {

TEST(FakeFacade, HoldsTheDelegateWeakly) {
  testing::FakeFacade facade;
  EXPECT_EQ(facade.delegate(), nullptr);
  auto delegate = std::make_shared<kit::FacadeDelegate>();
  facade.setDelegate(delegate);
  EXPECT_EQ(facade.delegate(), delegate);
  delegate.reset();
  EXPECT_EQ(facade.delegate(), nullptr);
}

TEST(RecordingDelegate, NotesEveryCall) {
  const testing::RecordingDelegate app;
  app.of_facade->didReceiveDeeplink("app://x");
  app.of_facade->didSaveConversionKey(12, "34");
  app.of_services->didSaveFendoUserInfo(1, 2, 3, "usn", -4);
  EXPECT_EQ(app.calls(), (std::vector<std::string>{"didReceiveDeeplink: app://x", "didSaveConversionKey: 12, 34",
                                                   "didSaveFendoUserInfo: 1, 2, 3, usn, -4"}));
}

TEST(RecordingDelegate, MayBeCalledAfterTheTestLetGoOfIt) {
  std::optional<testing::RecordingDelegate> app(std::in_place);
  const auto held = app->of_facade;
  app.reset();
  EXPECT_NO_THROW(held->didReceiveDeeplink("app://x"));
}

TEST(FakeConfig, AnswersTheKeyOfTheMoment) {
  testing::FakeConfig config("key");
  const auto fresh = testing::freshConfig(config);
  EXPECT_EQ(fresh->getTrackingSuperkey(), "key");
  config.setTrackingKey("another");
  EXPECT_EQ(fresh->getTrackingSuperkey(), "another");
}

TEST(FakeUpdateLog, NamesTheFrameworkAndItsVersion) {
  EXPECT_EQ(testing::FakeUpdateLog().frameworkName(), "MorvikCore");
  EXPECT_EQ(testing::FakeUpdateLog().getSDKVersion(), "1.2.3");
}

}  // namespace
}  // namespace morvik::test
