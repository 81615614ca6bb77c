#include "apps/device/inspect_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "apps/device/program.h"
#include "host/store/sqlite_store.h"
#include "testing/recording_log.h"
#include "tests/support/captured_file.h"
#include "tests/support/environment_variable.h"
#include "tests/support/folder_state.h"
#include "tests/support/scratch_folder.h"

namespace morvik_device {
namespace {

namespace host = morvik::host;
namespace kit = morvik::kit;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class InspectProgram : public ::testing::Test {
 protected:
  std::unique_ptr<host::SqliteStore> open() {
    return std::make_unique<host::SqliteStore>(host::SqliteStoreOptions{.place = {.folder = folder_.path()}}, log_);
  }
  int run(const std::vector<std::string>& arguments, bool on_terminal = false) {
    morvik::test::CapturedFile output;
    std::istringstream no_input;
    std::ostringstream errors;
    const int status = runProgram(arguments, {no_input, output.file(), errors, on_terminal, false});
    output_ = output.text();
    errors_ = errors.str();
    return status;
  }

  morvik::test::ScratchFolder folder_;
  morvik::testing::RecordingLog log_;
  std::string output_;
  std::string errors_;
};

TEST_F(InspectProgram, IsColouredOnATerminalUnlessThatIsNotWanted) {
  open();
  morvik::test::EnvironmentVariable no_color("NO_COLOR");
  no_color.unset();
  ASSERT_EQ(run({"inspect", folder_.path()}, true), 0);
  EXPECT_THAT(output_, HasSubstr("\x1b["));
  no_color.set("1");
  ASSERT_EQ(run({"inspect", folder_.path()}, true), 0);
  EXPECT_THAT(output_, Not(HasSubstr("\x1b[")));
}

TEST_F(InspectProgram, ShowsAStoreThatAnAppHoldsAndTouchesNothing) {
  const auto owner = open();
  kit::MutableArray impressions;
  for (int number = 0; number < 30; ++number)
    impressions.append(kit::Dictionary{{"campaignKey", number}});
  owner->set("fendoImpressionInfos", kit::Value(std::move(impressions)));
  owner->synchronize();
  const auto before = morvik::test::stateOf(folder_.path());
  EXPECT_EQ(run({"inspect", folder_.path()}), 0);
  EXPECT_THAT(output_, HasSubstr("waiting  30, the newest 10:"));
  EXPECT_EQ(run({"inspect", folder_.path(), "--newest", "2"}), 0);
  EXPECT_THAT(output_, HasSubstr("waiting  30, the newest 2:"));
  EXPECT_EQ(run({"inspect", "--all", folder_.path()}), 0);
  EXPECT_THAT(output_, HasSubstr("waiting  30\n"));
  EXPECT_EQ(run({"inspect", folder_.path(), "--json"}), 0);
  EXPECT_THAT(output_, StartsWith("{\"store\":"));
  EXPECT_THAT(output_, HasSubstr("\"fendoImpressionInfos\":{\"count\":30,\"newest\":[{\"campaignKey\":20}"));
  EXPECT_THAT(errors_, IsEmpty());
  EXPECT_EQ(morvik::test::stateOf(folder_.path()), before);
}

TEST_F(InspectProgram, ExplainsOneEventOfAStoreThatAnAppHolds) {
  const auto owner = open();
  constexpr const char* kId = "018f3406-9e00-7abc-8def-0123456789ab";
  owner->set("fendoActivityInfos", kit::Array{kit::Dictionary{{"activityEventID", kId}}});
  owner->synchronize();
  const auto before = morvik::test::stateOf(folder_.path());
  EXPECT_EQ(run({"inspect", folder_.path(), "--explain", kId}), 0);
  EXPECT_EQ(output_, "recorded 2024-05-01T12:00:00Z; waiting in the store\n");
  EXPECT_EQ(run({"inspect", folder_.path(), "--json", "--explain", kId}), 0);
  EXPECT_THAT(output_, StartsWith("{\"event_id\":\"018f3406-9e00-7abc-8def-0123456789ab\",\"state\":\"pending\","));
  EXPECT_EQ(run({"inspect", folder_.path(), "--explain", "018f3406-9e00-7abc-8def-0123456789ac"}), 0);
  EXPECT_THAT(output_, StartsWith("not known: delivered or given up before "));
  EXPECT_THAT(errors_, IsEmpty());
  EXPECT_EQ(morvik::test::stateOf(folder_.path()), before);
}

TEST_F(InspectProgram, SaysWhatIsWrongWithAnIdThatIsNone) {
  open();
  for (const char* id : {"", "7", "018f3406"}) {
    EXPECT_EQ(run({"inspect", folder_.path(), "--explain", id}), 2) << id;
    EXPECT_THAT(output_, IsEmpty()) << id;
    EXPECT_THAT(errors_, StartsWith("morvik-device: not an event id: ")) << id;
  }
  EXPECT_EQ(run({"inspect", folder_ / "missing", "--explain", "7"}), 2);
  EXPECT_THAT(errors_, StartsWith("morvik-device: there is no folder "));
}

TEST_F(InspectProgram, RefusesInOneLine) {
  EXPECT_EQ(run({"inspect", folder_ / "missing"}), 2);
  EXPECT_EQ(errors_, "morvik-device: there is no folder " + (folder_ / "missing") +
                         "; name the folder that the app has as its store\n");
  EXPECT_THAT(output_, IsEmpty());
  EXPECT_EQ(run({"inspect"}), 2);
  EXPECT_EQ(errors_, "morvik-device: STORE_DIR is required; see morvik-device inspect --help\n");
  EXPECT_EQ(run({"inspect", folder_.path(), "--newest", "few"}), 2);
  EXPECT_THAT(errors_, HasSubstr("--newest"));
}

TEST_F(InspectProgram, SaysThatNobodyTakesItsOutput) {
  open()->shutdown();
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::istringstream no_input;
  std::ostringstream errors;
  EXPECT_EQ(runProgram({"inspect", folder_.path()}, {no_input, full, errors}), 1);
  EXPECT_EQ(errors.str(), "morvik-device: standard output cannot be written; keep its reader open\n");
  std::fclose(full);
}

TEST_F(InspectProgram, TellsItsOptions) {
  EXPECT_EQ(run({"inspect", "--help"}), 0);
  EXPECT_THAT(output_, HasSubstr("STORE_DIR"));
  EXPECT_THAT(output_, HasSubstr("--all"));
}

TEST_F(InspectProgram, IsAskedForByTheFirstWordAlone) {
  EXPECT_EQ(run({"--store", "inspect", "--service"}), 2);
  EXPECT_THAT(errors_, Not(HasSubstr("STORE_DIR")));
  EXPECT_THAT(errors_, HasSubstr("--service"));
}

}  // namespace
}  // namespace morvik_device
