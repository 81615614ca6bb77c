#include "apps/device/modules.h"

#include <gtest/gtest.h>

#include "tests/support/captured_file.h"

namespace morvik_device {
namespace {

class Modules : public ::testing::Test {
 protected:
  std::string written() { return file_.text(); }

  morvik::test::CapturedFile file_;
  Output output_{file_.file()};
};

TEST_F(Modules, AnswerEveryOperationAndTellOfEachCall) {
  const auto modules = makeModules({{"FendoLib", "1.2"}}, output_);
  const morvik::Module& module = modules.at("FendoLib");
  module.saveCommerceEventAndSend();
  module.setRemotePushEnable(false);
  module.resetRetainedConversionCache({{"ck", "12"}, {"sn", ""}});
  module.saveRetainedConversionKey(12);
  module.didGetSchedule("{\"Data\":{\"CheckSum\":\"a\"}}");
  EXPECT_EQ(module.getSDKVersion(), "1.2");
  EXPECT_EQ(written(),
            "{\"callback\":\"saveCommerceEventAndSend\",\"module\":\"FendoLib\",\"args\":[]}\n"
            "{\"callback\":\"setRemotePushEnable:\",\"module\":\"FendoLib\",\"args\":[false]}\n"
            "{\"callback\":\"resetRetainedConversionCache:\",\"module\":\"FendoLib\",\"args\":"
            "[{\"ck\":\"12\",\"sn\":\"\"}]}\n"
            "{\"callback\":\"saveRetainedConversionKey:\",\"module\":\"FendoLib\",\"args\":[12]}\n"
            "{\"callback\":\"didGetSchedule:\",\"module\":\"FendoLib\",\"args\":"
            "[{\"Data\":{\"CheckSum\":\"a\"}}]}\n"
            "{\"callback\":\"getSDKVersion\",\"module\":\"FendoLib\",\"args\":[]}\n");
}

TEST_F(Modules, WithoutAVersionHaveNoneToTell) {
  const auto modules = makeModules({{"Fendo", std::nullopt}}, output_);
  EXPECT_EQ(modules.at("Fendo").getSDKVersion(), std::nullopt);
}

}  // namespace
}  // namespace morvik_device
