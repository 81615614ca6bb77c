#include "host/checked_options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

HostOptions complete() {
  HostOptions options;
  options.store_folder = "folder";
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "";
  return options;
}

std::string errorOf(const HostOptions& options) {
  const auto checked = checkOptions(options);
  const auto* error = std::get_if<kit::Error>(&checked);
  return error != nullptr ? error->message : "";
}

CheckedOptions checkedOf(const HostOptions& options) {
  EXPECT_EQ(errorOf(options), "");
  return std::get<CheckedOptions>(checkOptions(options));
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
  HostOptions options = complete();
  options.store_folder = "";
  EXPECT_EQ(errorOf(options), "HostOptions::store_folder is not set; name a folder that the app may write to.");
  options = complete();
  options.app_key = Key();
  EXPECT_EQ(errorOf(options), "HostOptions::app_key is not set; set it to the key that the service gave this app.");
  options = complete();
  options.hash_key = "";
  EXPECT_EQ(errorOf(options), "HostOptions::hash_key is empty; set it to the key that the service gave this app.");
  options = complete();
  options.tracking_key = Key();
  EXPECT_EQ(errorOf(options),
            "HostOptions::tracking_key is not set; set it to the key that the service gave this app.");
}

TEST(CheckedOptions, RefuseAnAppKeyThatCannotStandInAUrl) {
  HostOptions options = complete();
  for (const char* key : {"my app", "a/b", "a?b", "a#b", "a%41", "\xC3\xBC"}) {
    options.app_key = key;
    EXPECT_EQ(errorOf(options),
              "HostOptions::app_key holds a character that cannot stand in a URL; set it to the key that the service "
              "gave this app, made of letters, digits, '-', '.', '_' and '~'.");
  }
  options.app_key = "My.app-1_2~";
  EXPECT_EQ(checkedOf(options).app_key, "My.app-1_2~");
}

TEST(CheckedOptions, RefuseALogLevelThatIsNone) {
  HostOptions options = complete();
  for (const int level : {-1, 7}) {
    options.log_level = level;
    EXPECT_EQ(errorOf(options),
              "HostOptions::log_level is " + std::to_string(level) + "; choose 0 (off) to 6 (trace).");
  }
}

TEST(CheckedOptions, PointAllEndpointsToOneServiceAndSingleOnesElsewhere) {
  HostOptions options = complete();
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
    HostOptions options = complete();
    options.endpoints[name] = "https://localhost/";
    EXPECT_TRUE(checkedOf(options).has_loopback_endpoint) << name;
  }
  HostOptions options = complete();
  options.endpoints["kNone"] = "https://own.example/";
  EXPECT_EQ(errorOf(options),
            "HostOptions::endpoints: there is no endpoint kNone; there are kFendoTrackingBaseLiveUrl, "
            "kFendoConversionBaseLiveUrl, kFendoCampaignBaseLiveUrl, kCommerceBaseLiveUrl, kCrashReportBaseLiveUrl, "
            "kGdprReqUrl, KAppConfigBaseLiveUrl.");
}

TEST(CheckedOptions, RefuseUrlsThatNothingMayBeSentTo) {
  for (const char* url : {"http://own.example/", "ftp://127.0.0.1/", "no url at all", "https://"}) {
    HostOptions options = complete();
    options.service_url = url;
    EXPECT_EQ(errorOf(options).substr(0, 26), "HostOptions::service_url: ") << url;
    options = complete();
    options.endpoints["kGdprReqUrl"] = url;
    EXPECT_EQ(errorOf(options).substr(0, 36), "HostOptions::endpoints kGdprReqUrl: ") << url;
  }
  HostOptions options = complete();
  options.service_url = "https://own.example/?q";
  EXPECT_EQ(errorOf(options),
            "HostOptions::service_url: https://own.example/?q has a query or a fragment; paths are added to it, so "
            "leave those out.");
}

TEST(CheckedOptions, ReadAKeyFromALineOfAFile) {
  const test::ScratchFolder folder;
  const std::string path = folder / "keys";
  std::ofstream(path) << "# hash-key=no\nhash-key = first \nother=1\r\nhash-key=  two words\r\ntracking-key=";
  HostOptions options = complete();
  options.hash_key = Key::inFile(path, "hash-key");
  options.tracking_key = Key::inFile(path, "tracking-key");
  EXPECT_EQ(checkedOf(options).hash_key, "two words");
  EXPECT_EQ(checkedOf(options).tracking_key, "");
  options.app_key = Key::inFile(path, "app-key");
  EXPECT_EQ(errorOf(options), "HostOptions::app_key: the file " + path + " has no line \"app-key=…\"; add it.");
}

TEST(CheckedOptions, RefuseAFileOfKeysThatCannotBeReadOrIsTooLarge) {
  const test::ScratchFolder folder;
  HostOptions options = complete();
  const std::string path = folder / "keys";
  options.app_key = Key::inFile(path, "app-key");
  const std::string error = "HostOptions::app_key: the file " + path +
                            " cannot be read, or is larger than 65536 bytes; mend its path or its permissions.";
  EXPECT_EQ(errorOf(options), error);
  const std::string line = "app-key=key\n";
  std::ofstream(path) << line << std::string(kMaxKeyFileBytes - line.size(), '#');
  EXPECT_EQ(checkedOf(options).app_key, "key");
  std::ofstream(path, std::ios::app) << '#';
  EXPECT_EQ(errorOf(options), error);
}

TEST(CheckedOptions, ReadAKeyFromTheEnvironment) {
  HostOptions options = complete();
  options.app_key = Key::inEnvironment("MORVIK_TEST_APP_KEY");
  unsetenv("MORVIK_TEST_APP_KEY");
  EXPECT_EQ(errorOf(options), "HostOptions::app_key: the environment has no variable MORVIK_TEST_APP_KEY; set it.");
  setenv("MORVIK_TEST_APP_KEY", "from-outside", 1);
  EXPECT_EQ(checkedOf(options).app_key, "from-outside");
  unsetenv("MORVIK_TEST_APP_KEY");
}

}  // namespace
}  // namespace morvik::host
