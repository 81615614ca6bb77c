#include "runtime/checked_options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "host/system_inputs.h"
#include "tests/support/scratch_folder.h"

namespace morvik::runtime {
namespace {

StartOptions complete() {
  StartOptions options;
  options.store_folder = "folder";
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "";
  return options;
}

std::string errorOf(const StartOptions& options) {
  const auto checked = checkOptions(options, host::SystemInputs());
  const auto* error = std::get_if<kit::Error>(&checked);
  return error != nullptr ? error->message : "";
}

CheckedOptions checkedOf(const StartOptions& options) {
  EXPECT_EQ(errorOf(options), "");
  return std::get<CheckedOptions>(checkOptions(options, host::SystemInputs()));
}

/// Complete, and something could arrive: no reason for a warning.
StartOptions sent() {
  StartOptions options = complete();
  options.service_url = "https://own.example/";
  return options;
}

std::vector<std::string> warningsOf(StartOptions options, const DeviceDescription& device) {
  options.device = device;
  return checkedOf(options).warnings;
}

TEST(CheckedOptions, TakeTheKeysAndTheDefaultEndpoints) {
  const CheckedOptions checked = checkedOf(complete());
  EXPECT_EQ(checked.app_key, "app");
  EXPECT_EQ(checked.hash_key, "hash");
  EXPECT_EQ(checked.tracking_key, "");
  EXPECT_EQ(checked.endpoints.kFendoTrackingBaseLiveUrl, "https://tracking.morvik.example/");
  EXPECT_FALSE(checked.has_loopback_endpoint);
}

TEST(CheckedOptions, SayWhichIsMissing) {
  StartOptions options = complete();
  options.store_folder = "";
  EXPECT_EQ(errorOf(options), "StartOptions::store_folder is not set; name a folder that the app may write to.");
  options = complete();
  options.app_key = Key();
  EXPECT_EQ(errorOf(options), "StartOptions::app_key is not set; set it to the key that the service gave this app.");
  options = complete();
  options.hash_key = "";
  EXPECT_EQ(errorOf(options), "StartOptions::hash_key is empty; set it to the key that the service gave this app.");
  options = complete();
  options.tracking_key = Key();
  EXPECT_EQ(errorOf(options),
            "StartOptions::tracking_key is not set; set it to the key that the service gave this app.");
}

TEST(CheckedOptions, RefuseAnAppKeyThatCannotStandInAUrl) {
  StartOptions options = complete();
  for (const char* key : {"my app", "a/b", "a?b", "a#b", "a%41", "\xC3\xBC"}) {
    options.app_key = key;
    EXPECT_EQ(errorOf(options),
              "StartOptions::app_key holds a character that cannot stand in a URL; set it to the key that the service "
              "gave this app, made of letters, digits, '-', '.', '_' and '~'.");
  }
  options.app_key = "My.app-1_2~";
  EXPECT_EQ(checkedOf(options).app_key, "My.app-1_2~");
}

TEST(CheckedOptions, RefuseALogLevelThatIsNone) {
  StartOptions options = complete();
  for (const int level : {-1, 7}) {
    options.log_level = level;
    EXPECT_EQ(errorOf(options),
              "StartOptions::log_level is " + std::to_string(level) + "; choose 0 (off) to 6 (trace).");
  }
}

TEST(CheckedOptions, PointAllEndpointsToOneServiceAndSingleOnesElsewhere) {
  StartOptions options = complete();
  options.service_url = "https://own.example/base";
  options.endpoints["kGdprReqUrl"] = "http://127.0.0.1:8080";
  const CheckedOptions checked = checkedOf(options);
  EXPECT_EQ(checked.endpoints.kFendoTrackingBaseLiveUrl, "https://own.example/base/");
  EXPECT_EQ(checked.endpoints.KAppConfigBaseLiveUrl, "https://own.example/base/");
  EXPECT_EQ(checked.endpoints.kGdprReqUrl, "http://127.0.0.1:8080/");
  EXPECT_TRUE(checked.has_loopback_endpoint);
}

TEST(CheckedOptions, KnowEachEndpointByItsConstantsName) {
  for (const char* name : {"kFendoTrackingBaseLiveUrl", "kFendoConversionBaseLiveUrl", "kFendoCampaignBaseLiveUrl",
                           "kCommerceBaseLiveUrl", "kCrashReportBaseLiveUrl", "kGdprReqUrl", "KAppConfigBaseLiveUrl"}) {
    StartOptions options = complete();
    options.endpoints[name] = "https://localhost/";
    EXPECT_TRUE(checkedOf(options).has_loopback_endpoint) << name;
  }
  StartOptions options = complete();
  options.endpoints["kNone"] = "https://own.example/";
  EXPECT_EQ(errorOf(options),
            "StartOptions::endpoints: there is no endpoint kNone; there are kFendoTrackingBaseLiveUrl, "
            "kFendoConversionBaseLiveUrl, kFendoCampaignBaseLiveUrl, kCommerceBaseLiveUrl, kCrashReportBaseLiveUrl, "
            "kGdprReqUrl, KAppConfigBaseLiveUrl.");
}

TEST(CheckedOptions, RefuseUrlsThatNothingMayBeSentTo) {
  for (const char* url : {"http://own.example/", "ftp://127.0.0.1/", "no url at all", "https://"}) {
    StartOptions options = complete();
    options.service_url = url;
    EXPECT_EQ(errorOf(options).substr(0, 27), "StartOptions::service_url: ") << url;
    options = complete();
    options.endpoints["kGdprReqUrl"] = url;
    EXPECT_EQ(errorOf(options).substr(0, 37), "StartOptions::endpoints kGdprReqUrl: ") << url;
  }
  StartOptions options = complete();
  options.service_url = "https://own.example/?q";
  EXPECT_EQ(errorOf(options),
            "StartOptions::service_url: https://own.example/?q has a query or a fragment; paths are added to it, so "
            "leave those out.");
}

TEST(CheckedOptions, ReadAKeyFromALineOfAFile) {
  const test::ScratchFolder folder;
  const std::string path = folder / "keys";
  std::ofstream(path) << "# hash-key=no\nhash-key = first \nother=1\r\nhash-key=  two words\r\ntracking-key=";
  StartOptions options = complete();
  options.hash_key = Key::inFile(path, "hash-key");
  options.tracking_key = Key::inFile(path, "tracking-key");
  EXPECT_EQ(checkedOf(options).hash_key, "two words");
  EXPECT_EQ(checkedOf(options).tracking_key, "");
  options.app_key = Key::inFile(path, "app-key");
  EXPECT_EQ(errorOf(options), "StartOptions::app_key: the file " + path + " has no line \"app-key=…\"; add it.");
}

TEST(CheckedOptions, RefuseAFileOfKeysThatCannotBeReadOrIsTooLarge) {
  const test::ScratchFolder folder;
  StartOptions options = complete();
  const std::string path = folder / "keys";
  options.app_key = Key::inFile(path, "app-key");
  const std::string error = "StartOptions::app_key: the file " + path +
                            " cannot be read, or is larger than 65536 bytes; fix its path or its permissions.";
  EXPECT_EQ(errorOf(options), error);
  const std::string line = "app-key=key\n";
  std::ofstream(path) << line << std::string(kMaxKeyFileBytes - line.size(), '#');
  EXPECT_EQ(checkedOf(options).app_key, "key");
  std::ofstream(path, std::ios::app) << '#';
  EXPECT_EQ(errorOf(options), error);
}

TEST(CheckedOptions, ReadAKeyFromTheEnvironment) {
  StartOptions options = complete();
  options.app_key = Key::inEnvironment("MORVIK_TEST_APP_KEY");
  unsetenv("MORVIK_TEST_APP_KEY");
  EXPECT_EQ(errorOf(options), "StartOptions::app_key: the environment has no variable MORVIK_TEST_APP_KEY; set it.");
  setenv("MORVIK_TEST_APP_KEY", "from-outside", 1);
  EXPECT_EQ(checkedOf(options).app_key, "from-outside");
  unsetenv("MORVIK_TEST_APP_KEY");
}

TEST(CheckedOptions, SayHowToFixABadUrl) {
  const std::string option = "StartOptions::service_url: ";
  const auto errorOfUrl = [](const std::string& url) {
    StartOptions options = complete();
    options.service_url = url;
    return errorOf(options);
  };
  EXPECT_EQ(errorOfUrl("http://own.example"),
            option + "http://own.example cannot be used: plain HTTP stays on this machine; use https.");
  EXPECT_EQ(errorOfUrl("ftp://own.example/"),
            option + "ftp://own.example/ cannot be used: its scheme is \"ftp\"; begin it with https://.");
  for (const char* url : {"no url at all", "own.example", "localhost:8443", "https://", "https://own.example:port/"}) {
    const std::string error = errorOfUrl(url);
    EXPECT_EQ(error.find(option + url + " cannot be used: it cannot be read as a URL ("), 0u) << error;
    EXPECT_TRUE(error.ends_with("); write a whole one, such as https://service.example/.")) << error;
  }
  EXPECT_EQ(errorOfUrl(std::string("https://own.example\0/", 21)),
            option + "https://own.example cannot be used: it holds a zero byte; leave that out.");
}

TEST(CheckedOptions, WarnWhenNothingCanArriveAnywhere) {
  EXPECT_EQ(
      warningsOf(complete(), {}),
      std::vector<std::string>{
          "nothing will arrive: all endpoints are the defaults under morvik.example, which are reserved and reach "
          "nobody; set StartOptions::service_url to the base URL of your service"});
  StartOptions options = complete();
  options.endpoints["kGdprReqUrl"] = "https://own.example/";
  EXPECT_TRUE(warningsOf(options, {}).empty());
}

TEST(CheckedOptions, WarnOfAnOrientationThatIsNone) {
  for (const int orientation : {-1, 5, 90}) {
    DeviceDescription device;
    device.orientation = orientation;
    EXPECT_EQ(warningsOf(sent(), device),
              std::vector<std::string>{"DeviceDescription::orientation is " + std::to_string(orientation) +
                                       " and counts as unknown; give 1 to 4, or 0 when it is not known"});
  }
  for (const int orientation : {0, 1, 2, 3, 4}) {
    DeviceDescription device;
    device.orientation = orientation;
    EXPECT_TRUE(warningsOf(sent(), device).empty()) << orientation;
  }
}

TEST(CheckedOptions, CountAMalformedAdvertisingIdentifierAsNoneAndWarnWithoutShowingIt) {
  for (const char* text : {"", "my phone", "6d92078a82464ba4ae5b76104861e7dc"}) {
    StartOptions options = sent();
    options.device.idfa = Identifier::given(text);
    const CheckedOptions checked = checkedOf(options);
    EXPECT_EQ(checked.options.device.idfa.source(), Identifier::Source::kNone) << text;
    EXPECT_EQ(
        checked.warnings,
        std::vector<std::string>{"DeviceDescription::idfa is not a UUID (" + std::to_string(std::string(text).size()) +
                                 " bytes) and counts as none; give it as 8-4-4-4-12 hexadecimal digits, or say "
                                 "Identifier::none()"});
  }
}

TEST(CheckedOptions, TakeAWellFormedAdvertisingIdentifierAsItIs) {
  for (const char* text : {"6D92078A-8246-4BA4-AE5B-76104861E7DC", "6d92078a-8246-4ba4-ae5b-76104861e7dc"}) {
    StartOptions options = sent();
    options.device.idfa = Identifier::given(text);
    const CheckedOptions checked = checkedOf(options);
    EXPECT_EQ(checked.options.device.idfa.text(), text);
    EXPECT_TRUE(checked.warnings.empty());
  }
}

TEST(CheckedOptions, TakeAnAdvertisingIdentifierOfZerosForNone) {
  StartOptions options = sent();
  options.device.idfa = Identifier::given("00000000-0000-0000-0000-000000000000");
  const CheckedOptions checked = checkedOf(options);
  EXPECT_EQ(checked.options.device.idfa.source(), Identifier::Source::kNone);
  EXPECT_TRUE(checked.warnings.empty());
}

TEST(CheckedOptions, RefuseAStoreFolderWithAZeroByte) {
  StartOptions options = complete();
  options.store_folder = std::string("/tmp/store\0hidden", 17);
  EXPECT_EQ(errorOf(options),
            "StartOptions::store_folder holds a zero byte, behind \"/tmp/store\", where the system ends a path; name a "
            "folder without one.");
}

}  // namespace
}  // namespace morvik::runtime
