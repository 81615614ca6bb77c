#include "apps/device/inspection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "MorvikCoreLib/failure_counts.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/crash/crash_record.h"
#include "host/store/sqlite_store.h"
#include "runtime/ledger/exchange_trail.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/conversion_cache.h"
#include "services/endpoints.h"
#include "testing/recording_log.h"
#include "tests/support/folder_state.h"
#include "tests/support/scratch_folder.h"

namespace morvik_device {
namespace {

namespace host = morvik::host;
namespace runtime = morvik::runtime;
namespace kit = morvik::kit;
namespace property = morvik::services::property;
using morvik::test::ScratchFolder;
using morvik::test::stateOf;
using morvik::test::writeBytes;

/// The places where an entry is shown, as "section/name".
std::vector<std::string> placesOf(const std::vector<Section>& sections, const std::string& name) {
  std::vector<std::string> places;
  for (const Section& section : sections) {
    for (const ShownValue& value : section.values) {
      if (value.name == name)
        places.push_back(section.name);
    }
    for (const ShownList& list : section.lists) {
      if (list.name == name)
        places.push_back(section.name);
    }
  }
  return places;
}

const Section& sectionOf(const std::vector<Section>& sections, const std::string& name) {
  return *std::find_if(sections.begin(), sections.end(), [&](const Section& each) { return each.name == name; });
}

TEST(Inspection, ShowsEveryEntryOnceAndKnowsEachOfTheKits) {
  StoredEntries entries;
  for (const auto& each : morvik::services::storeProperties())
    entries.emplace_back(each.name, each.type == morvik::services::PropertyType::kArray
                                        ? kit::Value(kit::Array{kit::Value(1)})
                                        : kit::Value(1));
  for (const std::string_view name : {runtime::kInstallIdKey, runtime::kDeviceIdKey, runtime::kAdvertisingIdKey})
    entries.emplace_back(name, "an id");
  entries.emplace_back(morvik::services::kConversionTimesKey, kit::Array{kit::Value(1)});
  entries.emplace_back(morvik::services::kPassOpenUrlKey, "app://x");
  entries.emplace_back(
      std::string(morvik::services::kMorvikNSUserDefaultsDomainName) + "." + morvik::services::kAppLaunchCountSaveKey,
      3);
  entries.emplace_back("a value of tomorrow", 1);
  entries.emplace_back("a list of tomorrow", kit::Array{kit::Value(1)});
  const std::vector<Section> sections = sorted(entries, {}, 10);
  for (const auto& [name, value] : entries) {
    const std::vector<std::string> places = placesOf(sections, name);
    ASSERT_EQ(places.size(), 1u) << name;
    const bool is_of_tomorrow = name.find("of tomorrow") != std::string::npos;
    EXPECT_EQ(places[0] == "unknown", is_of_tomorrow) << name << " is in " << places[0];
  }
}

TEST(Inspection, KeepsTheNewestOfEachListInTheirOrder) {
  kit::MutableArray all;
  for (int number = 0; number < 25; ++number)
    all.append(kit::Dictionary{{"campaignKey", number}});
  const auto sections = sorted({{property::fendoImpressionInfos, kit::Value(std::move(all))}}, {}, 3);
  const ShownList& list = sectionOf(sections, "impressions").lists.at(0);
  EXPECT_EQ(list.count, 25u);
  ASSERT_EQ(list.newest.size(), 3u);
  EXPECT_EQ(list.newest[0]["campaignKey"], kit::Value(22));
  EXPECT_EQ(list.newest[2]["campaignKey"], kit::Value(24));
}

TEST(Inspection, MarksTheActivitiesOfTheLatestBatch) {
  const auto sections = sorted(
      {{property::fendoActivityInfos, kit::Array{kit::Dictionary{{"activityEventID", "one"}},
                                                 kit::Dictionary{{"activityEventID", "two"}}, kit::Value("damaged")}},
       {property::fendoActivityInfosSentEventKeys, kit::Array{kit::Value("two")}}},
      {}, 10);
  const kit::Array& shown = sectionOf(sections, "activities").lists.at(0).newest;
  EXPECT_TRUE(shown[0]["in the latest batch"].isAbsent());
  EXPECT_EQ(shown[1]["in the latest batch"], kit::Value(true));
  EXPECT_EQ(shown[2], kit::Value("damaged"));
}

TEST(Inspection, TellsOfEachClickHowOftenItFailed) {
  const auto sections = sorted({{property::reEngagementInfos, kit::Array{kit::Dictionary{{"conversion_key", 5}},
                                                                         kit::Dictionary{{"conversion_key", 6}}}},
                                {property::reEngagementConversionFailedCnt, kit::Array{morvik::failureCount(5, 3)}}},
                               {}, 10);
  const kit::Array& shown = sectionOf(sections, "re_engagements").lists.at(0).newest;
  EXPECT_EQ(shown[0]["failed"], kit::Value(3));
  EXPECT_EQ(shown[1]["failed"], kit::Value(0));
}

TEST(Inspection, TellsTheLedgerWholeHoweverFewEntriesOfAListAreShown) {
  const auto sections =
      sorted({{"host.ledger", kit::Value("damaged")}, {property::fendoImpressionInfos, kit::Array{1}}}, {}, 1);
  const Section& ledger = sectionOf(sections, "ledger");
  EXPECT_EQ(ledger.values.at(0).value, kit::Value(false)) << "an impression is stored that the ledger does not know";
  EXPECT_EQ(ledger.lists.at(0).newest.size(), 6u);
  EXPECT_EQ(ledger.lists.at(0).newest[1]["stored"], kit::Value(1));
  EXPECT_TRUE(placesOf(sections, "host.ledger").empty()) << "it is shown as what it says";
}

TEST(Inspection, SaysOfHowManyBatchesItCanExplainTheEvents) {
  using runtime::trailBegin;
  const kit::Value trail = kit::Array{trailBegin(1, kit::Date{1}, {}), runtime::trailEnd({.number = 1}), "damaged",
                                      trailBegin(2, kit::Date{2}, {})};
  const auto sections = sorted({{std::string(runtime::kTrailKey), trail}}, {}, 1);
  EXPECT_EQ(sectionOf(sections, "host").values.at(0).value, kit::Value(2));
  EXPECT_EQ(placesOf(sections, std::string(runtime::kTrailKey)), std::vector<std::string>{"host"});
  const auto damaged = sorted({{std::string(runtime::kTrailKey), 7}}, {}, 1);
  EXPECT_EQ(sectionOf(damaged, "host").values.at(0).value, kit::Value(0));
}

class InspectionOfAFolder : public ::testing::Test {
 protected:
  void keep(const std::string& name, const kit::Value& value) {
    host::SqliteStore store({.place = {.folder = folder_.path()}}, log_);
    store.set(name, value);
    store.synchronize();
  }
  std::string refusal() {
    Inspection unused;
    return inspect(folder_.path(), 10, unused).value_or("nothing is wrong");
  }

  ScratchFolder folder_;
  morvik::testing::RecordingLog log_;
};

TEST_F(InspectionOfAFolder, ReadsTheStoreAndTheFilesNextToIt) {
  keep("fendoUserInfo_fendoUserNo", 1001);
  writeBytes(folder_ / "crash-reports", "\n{\"exception_reason\":\"fendo broke\"}\n\nno report\n");
  auto record_file = host::prepareCrashRecord(host::crashRecordPath(folder_.path()), {});
  ASSERT_TRUE(std::holds_alternative<int>(record_file));
  host::SignalPart signal;
  signal.time_microseconds = 1'709'251'200'000'000;
  signal.signal = 11;
  host::writeSignalPart(std::get<int>(record_file), signal);
  ::close(std::get<int>(record_file));
  writeBytes(folder_ / "morvik.store.unreadable-1", "?");
  const auto before = stateOf(folder_.path());

  Inspection inspection;
  ASSERT_EQ(inspect(folder_.path(), 10, inspection), std::nullopt);

  EXPECT_EQ(stateOf(folder_.path()), before);
  EXPECT_EQ(inspection.store, folder_ / "morvik.store");
  EXPECT_EQ(sectionOf(inspection.sections, "install").values.at(0).value, kit::Value(1001));
  const Section& crashes = sectionOf(inspection.sections, "crashes");
  ASSERT_EQ(crashes.lists.size(), 2u);
  EXPECT_EQ(crashes.lists[0].newest[0]["exception_reason"], kit::Value("fendo broke"));
  EXPECT_EQ(crashes.lists[1].newest[0]["signal"], kit::Value("SIGSEGV"));
  EXPECT_EQ(crashes.lists[1].newest[0]["date"], kit::Value(kit::Date::fromSeconds(1'709'251'200)));
  EXPECT_EQ(inspection.remarks,
            (std::vector<std::string>{
                (folder_ / "crash-reports") + " cannot be read, or not all of it; what can be read is shown",
                (folder_ / "morvik.store.unreadable-1") + " was set aside by the app, since it could not be read"}));
}

TEST_F(InspectionOfAFolder, SaysInOneLineWhyThereIsNothingToRead) {
  EXPECT_EQ(refusal(),
            "there is no store in " + folder_.path() + " (no file morvik.store); name the folder of an app's store");
  writeBytes(folder_ / "morvik.store", std::string(4096, 'x'));
  EXPECT_EQ(refusal(), "there is no store to read at \"" + (folder_ / "morvik.store") +
                           "\" (file is not a database): check the folder.");
  Inspection unused;
  EXPECT_EQ(inspect(folder_ / "missing", 10, unused),
            "there is no folder " + (folder_ / "missing") + "; name the folder that the app has as its store");
  EXPECT_EQ(inspect(folder_ / "morvik.store", 10, unused),
            (folder_ / "morvik.store") + " is not a folder; name the folder in which the store lies");
}

TEST_F(InspectionOfAFolder, ShowsNothingOfANewerStore) {
  keep("fendoUserInfo_fendoUserNo", 1001);
  std::string bytes = morvik::test::bytesOf(folder_ / "morvik.store");
  ASSERT_GT(bytes.size(), 64u);
  bytes[63] = 9;  // the version's last byte
  writeBytes(folder_ / "morvik.store", bytes);
  std::filesystem::remove(folder_ / "morvik.store-wal");
  Inspection inspection;
  EXPECT_EQ(inspect(folder_.path(), 10, inspection),
            "the store \"" + (folder_ / "morvik.store") +
                "\" has version 9, this program knows versions up to 1: use a newer program to look into it.");
  EXPECT_TRUE(inspection.sections.empty());
}

}  // namespace
}  // namespace morvik_device
