#include "apps/device/options.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/scratch_folder.h"

namespace morvik_device {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;

using Arguments = std::vector<std::string>;

Arguments complete(const Arguments& more = {}) {
  Arguments all = {"--store", "folder",     "--service", "https://127.0.0.1:1", "--app-key",
                   "app",     "--hash-key", "hash",      "--tracking-key",      "tracking"};
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

Arguments without(const std::string& option) {
  Arguments all = complete();
  const auto found = std::find(all.begin(), all.end(), option);
  all.erase(found, found + 2);
  return all;
}

Options optionsOf(const Arguments& arguments) {
  auto read = readOptions(arguments);
  const auto* mistake = std::get_if<std::string>(&read);
  EXPECT_EQ(mistake, nullptr) << *mistake;
  return mistake == nullptr ? std::get<Options>(read) : Options();
}

// The one line about what is wrong.
std::string mistakeIn(const Arguments& arguments) {
  const auto read = readOptions(arguments);
  const auto* mistake = std::get_if<std::string>(&read);
  EXPECT_NE(mistake, nullptr);
  if (mistake == nullptr)
    return "";
  EXPECT_EQ(std::count(mistake->begin(), mistake->end(), '\n'), 0) << *mistake;
  return *mistake;
}

class File {
 public:
  explicit File(const std::string& text) { morvik::test::writeBytes(path(), text); }
  std::string path() const { return folder_ / "file"; }

 private:
  morvik::test::ScratchFolder folder_;
};

TEST(Options, TheRequiredOnesAreEnough) {
  const Options options = optionsOf(complete());
  EXPECT_EQ(options.start.store_folder, "folder");
  EXPECT_EQ(options.start.service_url, "https://127.0.0.1:1");
  EXPECT_EQ(options.start.app_key.text(), "app");
  EXPECT_EQ(options.start.hash_key.text(), "hash");
  EXPECT_EQ(options.start.tracking_key.text(), "tracking");
  EXPECT_EQ(options.script, "");
}

TEST(Options, WhatIsNotGivenHasItsDefault) {
  const morvik::StartOptions start = optionsOf(complete()).start;
  EXPECT_EQ(start.log_level, 2);
  EXPECT_EQ(start.device.system_version, "15.0");
  EXPECT_EQ(start.device.idfa.source(), morvik::Identifier::Source::kMadeAndKept);
  EXPECT_EQ(start.device.puid.source(), morvik::Identifier::Source::kMadeAndKept);
  EXPECT_EQ(start.device.orientation, 1);
  EXPECT_EQ(start.device.multitasking, true);
  EXPECT_TRUE(start.ad_client.requestAttributionDetails);
  EXPECT_FALSE(start.ad_client.lookupAdConversionDetails);
  EXPECT_FALSE(start.ad_client.determineAppInstallationAttribution);
}

TEST(Options, EachMissingRequiredOneIsNamedWithAFix) {
  EXPECT_THAT(mistakeIn(without("--store")), HasSubstr("--store is required; give the folder"));
  EXPECT_THAT(mistakeIn(without("--service")), HasSubstr("--service is required; give the base URL"));
  EXPECT_THAT(mistakeIn(without("--app-key")), HasSubstr("--app-key is required; give it, or a file with the line "
                                                         "app-key=... with --keys"));
  EXPECT_THAT(mistakeIn(without("--hash-key")), HasSubstr("--hash-key is required"));
  EXPECT_THAT(mistakeIn(without("--tracking-key")), HasSubstr("--tracking-key is required"));
}

TEST(Options, AnEmptyTrackingKeyIsGivenAndEmpty) {
  for (const Arguments& form : {Arguments{"--tracking-key", ""}, Arguments{"--tracking-key="}}) {
    Arguments all = without("--tracking-key");
    all.insert(all.begin(), form.begin(), form.end());
    const morvik::Key key = optionsOf(all).start.tracking_key;
    EXPECT_EQ(key.source(), morvik::Key::Source::kText);
    EXPECT_EQ(key.text(), "");
  }
}

TEST(Options, KeysComeFromAFileUnlessAnOptionWins) {
  const File keys("app-key=a\nhash-key=b\ntracking-key=c\n");
  Arguments all = without("--app-key");
  all.insert(all.end(), {"--keys", keys.path()});
  const morvik::StartOptions start = optionsOf(all).start;
  EXPECT_EQ(start.app_key.source(), morvik::Key::Source::kFile);
  EXPECT_EQ(start.app_key.path(), keys.path());
  EXPECT_EQ(start.app_key.text(), "app-key");
  EXPECT_EQ(start.hash_key.source(), morvik::Key::Source::kText);
  EXPECT_EQ(start.hash_key.text(), "hash");
}

TEST(Options, FilesThatAreNotThereAreNamed) {
  EXPECT_THAT(mistakeIn(complete({"--keys", "/no/keys"})), HasSubstr("--keys: there is no file /no/keys; name one"));
  EXPECT_THAT(mistakeIn(complete({"--ca", "/no/ca"})), HasSubstr("--ca: there is no file /no/ca; name one"));
  EXPECT_THAT(mistakeIn(complete({"--script", "/no/s"})), HasSubstr("--script: there is no file /no/s; name one"));
}

TEST(Options, ACaFileAndAScriptAreTaken) {
  const File file("");
  const Options options = optionsOf(complete({"--ca", file.path(), "--script", file.path()}));
  EXPECT_EQ(options.start.ca_file, file.path());
  EXPECT_EQ(options.script, file.path());
}

TEST(Options, SingleEndpointsAreGivenByName) {
  Arguments all = without("--service");
  all.insert(all.end(),
             {"--endpoint", "kGdprReqUrl=https://a.example/x", "--endpoint", "kCommerceBaseLiveUrl=https://b"});
  EXPECT_THAT(optionsOf(all).start.endpoints,
              ElementsAre(Pair("kCommerceBaseLiveUrl", "https://b"), Pair("kGdprReqUrl", "https://a.example/x")));
  EXPECT_THAT(mistakeIn(complete({"--endpoint", "kGdprReqUrl"})),
              HasSubstr("--endpoint kGdprReqUrl has no URL; write --endpoint NAME=URL"));
}

TEST(Options, TheAdvertisingIdentifierIsAUuidOrNone) {
  const std::string uuid = "6d92078a-8246-4ba4-ae5b-76104861e7dc";
  EXPECT_EQ(optionsOf(complete({"--idfa", uuid})).start.device.idfa.text(), uuid);
  EXPECT_EQ(optionsOf(complete({"--idfa", "none"})).start.device.idfa.source(), morvik::Identifier::Source::kNone);
  EXPECT_THAT(mistakeIn(complete({"--idfa", "6d92078a"})),
              HasSubstr("--idfa: \"6d92078a\" is not a UUID; write one like"));
}

TEST(Options, ThePersistentIdentifierIsAnyTextOrNone) {
  EXPECT_EQ(optionsOf(complete({"--puid", "p-1"})).start.device.puid.text(), "p-1");
  EXPECT_EQ(optionsOf(complete({"--puid", "none"})).start.device.puid.source(), morvik::Identifier::Source::kNone);
}

TEST(Options, TheDeviceIsDescribed) {
  const morvik::DeviceDescription device =
      optionsOf(complete({"--system-version", "9.3", "--orientation", "3", "--no-multitasking"})).start.device;
  EXPECT_EQ(device.system_version, "9.3");
  EXPECT_EQ(device.orientation, 3);
  EXPECT_EQ(device.multitasking, false);
}

TEST(Options, SendingIsOnAndTheEnvironmentLeftAloneUnlessSaid) {
  EXPECT_TRUE(optionsOf(complete()).start.sending);
  EXPECT_FALSE(optionsOf(complete()).start.allow_environment);
  EXPECT_FALSE(optionsOf(complete({"--no-sending"})).start.sending);
  EXPECT_TRUE(optionsOf(complete({"--allow-environment"})).start.allow_environment);
}

TEST(Options, NumbersOutOfTheirRangeAreMistakes) {
  EXPECT_THAT(mistakeIn(complete({"--log-level", "7"})), HasSubstr("--log-level"));
  EXPECT_THAT(mistakeIn(complete({"--log-level", "much"})), HasSubstr("--log-level"));
  EXPECT_THAT(mistakeIn(complete({"--orientation", "0"})), HasSubstr("--orientation"));
  EXPECT_EQ(optionsOf(complete({"--log-level", "0"})).start.log_level, 0);
  EXPECT_EQ(optionsOf(complete({"--log-level", "6"})).start.log_level, 6);
}

TEST(Options, ModulesAreNamedWithOrWithoutAVersion) {
  const ModuleNames modules =
      optionsOf(complete({"--module", "FendoLib", "--module", "Fendo=1.2", "--module=Quint="})).modules;
  EXPECT_EQ(modules, (ModuleNames{{"FendoLib", std::nullopt}, {"Fendo", "1.2"}, {"Quint", ""}}));
  EXPECT_THAT(mistakeIn(complete({"--module", "=1"})), HasSubstr("--module =1 has no name; write --module NAME"));
}

TEST(Options, AdvertisingAnswersAreReadHere) {
  const morvik::AdClient client =
      optionsOf(complete({"--search-ads", "absent", "--iad", "determine:no"})).start.ad_client;
  EXPECT_FALSE(client.requestAttributionDetails);
  EXPECT_TRUE(client.determineAppInstallationAttribution);
  EXPECT_THAT(mistakeIn(complete({"--search-ads", "?"})), HasSubstr("--search-ads: the details are not JSON ("));
  EXPECT_THAT(mistakeIn(complete({"--iad", "?"})), HasSubstr("--iad: \"?\" is not understood; write none,"));
}

TEST(Options, AnOptionThatDoesNotExistOrLacksItsValueIsAMistake) {
  EXPECT_THAT(mistakeIn(complete({"--colour", "red"})), HasSubstr("--colour"));
  EXPECT_THAT(mistakeIn(complete({"--script"})), HasSubstr("--script"));
}

TEST(Options, TheLedgerIsReportedOnDemandAndToAServiceAlone) {
  EXPECT_FALSE(optionsOf(complete()).report_ledger);
  EXPECT_TRUE(optionsOf(complete({"--report-ledger"})).report_ledger);
  Arguments arguments = without("--service");
  for (const char* more : {"--endpoint", "kFendoTrackingBaseLiveUrl=https://127.0.0.1:1/", "--report-ledger"})
    arguments.emplace_back(more);
  EXPECT_THAT(mistakeIn(arguments), StartsWith("--report-ledger needs --service; give the base URL"));
}

}  // namespace
}  // namespace morvik_device
