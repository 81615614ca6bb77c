#include "runtime/siblings/app_modules.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik::runtime {
namespace {

using Texts = std::vector<std::string>;

TEST(AppModules, AreNoneUnlessTheAppRegistersThem) {
  EXPECT_EQ(AppModules().find("Fendo"), nullptr);
  EXPECT_EQ(AppModules(std::map<std::string, Module>()).find("Fendo"), nullptr);
}

TEST(AppModules, AreFoundByTheirWholeNames) {
  const AppModules modules({{"FendoLib", Module()}});
  EXPECT_NE(modules.find("FendoLib"), nullptr);
  EXPECT_EQ(modules.find("FendoLib"), modules.find("FendoLib")) << "it stays where it is";
  for (const char* other : {"", "Fendo", "FendoLib2", "fendolib"})
    EXPECT_EQ(modules.find(other), nullptr) << other;
}

TEST(AppModules, PassEveryCallToTheApp) {
  Texts calls;
  Module module;
  module.getSDKVersion = [] { return std::optional<std::string>("7.1"); };
  module.saveCommerceEventAndSend = [&] { calls.push_back("save"); };
  module.setRemotePushEnable = [&](bool enable) { calls.push_back(enable ? "push on" : "push off"); };
  module.resetRetainedConversionCache = [&](const std::map<std::string, std::string>& query) {
    std::string text = "reset";
    for (const auto& [key, value] : query)
      text += " " + key + "=" + value;
    calls.push_back(text);
  };
  module.saveRetainedConversionKey = [&](int64_t key) { calls.push_back("key " + std::to_string(key)); };
  module.didGetSchedule = [&](const std::string& json) { calls.push_back("schedule " + json); };
  const AppModules modules({{"Fendo", module}});

  const kit::Module* found = modules.find("Fendo");
  ASSERT_NE(found, nullptr);
  found->saveCommerceEventAndSend();
  found->setRemotePushEnable(true);
  found->setRemotePushEnable(false);
  EXPECT_EQ(found->getSDKVersion(), "7.1");
  const auto shared = found->shared();
  shared->resetRetainedConversionCache(kit::Dictionary{{"sn", "3"}, {"ck", "12"}});
  shared->resetRetainedConversionCache({});
  shared->saveRetainedConversionKey(-12);
  shared->didGetSchedule(kit::Dictionary{{"list", kit::Array{1, "a"}}});
  EXPECT_EQ(calls, (Texts{"save", "push on", "push off", "reset ck=12 sn=3", "reset", "key -12",
                          "schedule {\"list\":[1,\"a\"]}"}));
}

TEST(AppModules, HaveOneSingletonEach) {
  const AppModules modules({{"FendoLib", Module()}, {"Fendo", Module()}});
  const auto shared = modules.find("FendoLib")->shared();
  ASSERT_NE(shared, nullptr);
  EXPECT_EQ(shared, modules.find("FendoLib")->shared());
  EXPECT_NE(shared, modules.find("Fendo")->shared());
}

TEST(AppModules, DoNotRespondWhereTheAppLeftASlotEmpty) {
  const AppModules modules({{"FendoLib", Module()}});
  const kit::Module* found = modules.find("FendoLib");
  EXPECT_FALSE(found->saveCommerceEventAndSend);
  EXPECT_FALSE(found->setRemotePushEnable);
  EXPECT_FALSE(found->getSDKVersion);
  const auto shared = found->shared();
  EXPECT_FALSE(shared->resetRetainedConversionCache);
  EXPECT_FALSE(shared->saveRetainedConversionKey);
  EXPECT_FALSE(shared->didGetSchedule);
}

}  // namespace
}  // namespace morvik::runtime
