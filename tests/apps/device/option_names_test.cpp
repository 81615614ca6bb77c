#include "apps/device/option_names.h"

#include <gtest/gtest.h>

namespace morvik_device {
namespace {

TEST(OptionNames, AreThoseOfTheProgram) {
  EXPECT_EQ(withOptionName("StartOptions::app_key is empty"), "--app-key is empty");
  EXPECT_EQ(withOptionName("StartOptions::store_folder cannot be made"), "--store cannot be made");
}

TEST(OptionNames, LeaveOtherMessagesAlone) {
  EXPECT_EQ(withOptionName("it says StartOptions::app_key"), "it says StartOptions::app_key");
  EXPECT_EQ(withOptionName(""), "");
}

}  // namespace
}  // namespace morvik_device
