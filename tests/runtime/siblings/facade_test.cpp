#include "runtime/siblings/facade.h"

#include <gtest/gtest.h>

namespace morvik::runtime {
namespace {

TEST(FacadeHolder, HasNoDelegateUntilOneIsSetAndHoldsItWeakly) {
  Facade facade;
  EXPECT_EQ(facade.delegate(), nullptr);
  auto delegate = std::make_shared<const MorvikCoreDelegate>();
  facade.setDelegate(delegate);
  EXPECT_NE(facade.delegate(), nullptr);
  delegate.reset();
  EXPECT_EQ(facade.delegate(), nullptr);
}

TEST(FacadeHolder, PassesCallsToTheSlotsThatAreThere) {
  Facade facade;
  auto delegate = std::make_shared<MorvikCoreDelegate>();
  std::string called;
  delegate->didSaveConversionKey = [&called](int64_t conversion_key, const std::string& sub_referral_key) {
    called = std::to_string(conversion_key) + " " + sub_referral_key;
  };
  facade.setDelegate(delegate);
  EXPECT_FALSE(facade.delegate()->didReceiveDeeplink);
  facade.delegate()->didSaveConversionKey(12, "34");
  EXPECT_EQ(called, "12 34");
  delegate->didReceiveDeeplink = [&called](const std::string& deeplink) { called = deeplink; };
  facade.delegate()->didReceiveDeeplink("app://x");
  EXPECT_EQ(called, "app://x");
}

TEST(FacadeHolder, KeepsTheDelegateAliveDuringACall) {
  Facade facade;
  auto delegate = std::make_shared<MorvikCoreDelegate>();
  int calls = 0;
  delegate->didReceiveDeeplink = [&](const std::string&) {
    delegate.reset();
    ++calls;
  };
  facade.setDelegate(delegate);
  facade.delegate()->didReceiveDeeplink("app://x");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(facade.delegate(), nullptr);
}

}  // namespace
}  // namespace morvik::runtime
