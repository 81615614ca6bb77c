#include "testing/fake_modules.h"

#include <gtest/gtest.h>

namespace morvik::test {
namespace {

using testing::FakeModules;
using Texts = std::vector<std::string>;

TEST(FakeModules, AreNoneAtFirst) {
  const FakeModules modules;
  EXPECT_EQ(modules.find("Fendo"), nullptr);
  EXPECT_EQ(modules.calls(), Texts{});
}

TEST(FakeModules, AnswerEveryOperationAndNoteTheCalls) {
  FakeModules modules;
  modules.add("Fendo", "7.1");
  const kit::Module* module = modules.find("Fendo");
  ASSERT_NE(module, nullptr);
  module->saveCommerceEventAndSend();
  module->setRemotePushEnable(true);
  module->setRemotePushEnable(false);
  EXPECT_EQ(module->getSDKVersion(), "7.1");
  const auto shared = module->shared();
  shared->resetRetainedConversionCache(kit::Dictionary{{"ck", "12"}});
  shared->resetRetainedConversionCache({});
  shared->saveRetainedConversionKey(12);
  shared->didGetSchedule(kit::Dictionary{{"a", 1}});
  EXPECT_EQ(modules.calls(),
            (Texts{"Fendo saveCommerceEventAndSend", "Fendo setRemotePushEnable: 1", "Fendo setRemotePushEnable: 0",
                   "Fendo resetRetainedConversionCache: {\"ck\":\"12\"}", "Fendo resetRetainedConversionCache: (null)",
                   "Fendo saveRetainedConversionKey: 12", "Fendo didGetSchedule: {\"a\":1}"}));
}

TEST(FakeModules, AreToldApartByTheirNames) {
  FakeModules modules;
  modules.add("Fendo");
  modules.add("FendoLib", std::nullopt);
  modules.find("FendoLib")->saveCommerceEventAndSend();
  EXPECT_EQ(modules.calls(), Texts{"FendoLib saveCommerceEventAndSend"});
  EXPECT_EQ(modules.find("FendoLib")->getSDKVersion(), std::nullopt);
  EXPECT_EQ(modules.find("Fendo")->getSDKVersion(), "1.0.0");
  EXPECT_EQ(modules.find("fendo"), nullptr);
  EXPECT_EQ(modules.find("Fend"), nullptr);
  modules.remove("Fendo");
  EXPECT_EQ(modules.find("Fendo"), nullptr);
  EXPECT_NE(modules.find("FendoLib"), nullptr);
}

TEST(FakeModules, HaveOneSingletonEachWhoseSlotsTheTestMayEmpty) {
  FakeModules modules;
  modules.add("FendoLib").saveCommerceEventAndSend = nullptr;
  EXPECT_FALSE(modules.find("FendoLib")->saveCommerceEventAndSend);
  EXPECT_EQ(modules.find("FendoLib")->shared(), modules.find("FendoLib")->shared());
  EXPECT_EQ(modules.find("FendoLib")->shared().get(), &modules.sharedOf("FendoLib"));
  modules.sharedOf("FendoLib").saveRetainedConversionKey = nullptr;
  EXPECT_FALSE(modules.find("FendoLib")->shared()->saveRetainedConversionKey);
}

TEST(FakeModules, ThatAreReplacedOrGoneMayStillBeCalledByWhoeverHoldsThem) {
  FakeModules modules;
  modules.add("FendoLib");
  const auto first = modules.find("FendoLib")->shared();
  modules.add("FendoLib");
  EXPECT_NE(modules.find("FendoLib")->shared(), first);
  modules.remove("FendoLib");
  first->saveRetainedConversionKey(1);
  EXPECT_EQ(modules.calls(), Texts{"FendoLib saveRetainedConversionKey: 1"});
}

}  // namespace
}  // namespace morvik::test
