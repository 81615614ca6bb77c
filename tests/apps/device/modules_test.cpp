#include "apps/device/modules.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace morvik_device {
namespace {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

class Modules : public ::testing::Test {
 protected:
  std::string written() {
    std::rewind(file_.get());
    std::string text;
    for (int c = std::fgetc(file_.get()); c != EOF; c = std::fgetc(file_.get()))
      text.push_back(static_cast<char>(c));
    return text;
  }

  const std::unique_ptr<std::FILE, CloseFile> file_{std::tmpfile()};
  Output output_{file_.get()};
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
