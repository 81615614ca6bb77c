#include "host/linux/crash/stored_traces.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "kit/list_lock.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kBare = "0  shop  0x0000000000002010  + 0x1010 [0a1b]<br>";
constexpr const char* kOffsetAlone = "0  shop  0x0000000000002010  + 0x1010<br>";

class StoredTraces : public ::testing::Test {
 protected:
  StoredTraces() { levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vWarning; }

  void keep(const std::vector<const char*>& traces) {
    kit::MutableArray reports;
    for (const char* trace : traces)
      reports.append(kit::Dictionary{{"exception_reason", "fendo"}, {"exception_log_trace", trace}});
    properties.setMorvikCoreUserInfo_Crash(kit::Value(std::move(reports)));
  }
  void nameAll() {
    nameStoredTraces(
        properties, marker(), [](const std::string&) { return "named"; }, logger());
  }
  void dieOfIt() {
    nameStoredTraces(
        properties, marker(), [](const std::string&) -> std::string { std::_Exit(3); }, logger());
  }
  std::vector<std::string> traces() const {
    std::vector<std::string> all;
    for (const kit::Value& report : properties.MorvikCoreUserInfo_Crash().array())
      all.emplace_back(report["exception_log_trace"].string());
    return all;
  }
  services::Logger logger() { return services::Logger(levels_, log); }
  std::string marker() const { return namingMarkerPath(folder_); }
  bool isMarked() const { return std::filesystem::exists(marker()); }

  testing::RecordingLog log;
  testing::MemoryStore store;

 private:
  kit::ListLock lock_;
  const test::ScratchFolder scratch_;
  kit::LogLevels levels_;

 protected:
  std::string folder_ = scratch_.path();
  const services::MorvikGVUserDefaults properties{store, lock_};
};

using StoredTracesDeathTest = StoredTraces;

TEST_F(StoredTraces, GetTheirNamesWhereTheyHaveNone) {
  keep({kBare, "0  shop  sell() + 4<br>", kBare});
  nameAll();
  EXPECT_THAT(traces(), ElementsAre("named", "0  shop  sell() + 4<br>", "named"));
  EXPECT_FALSE(isMarked());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(StoredTraces, AreLeftAloneWhereAllHaveTheirNames) {
  nameAll();
  EXPECT_TRUE(properties.MorvikCoreUserInfo_Crash().isAbsent()) << "no report, no list";
  keep({"0  shop  sell() + 4<br>", ""});
  store.clearJournal();
  nameAll();
  EXPECT_THAT(store.journalTexts(), IsEmpty());
  EXPECT_FALSE(isMarked());
}

TEST_F(StoredTracesDeathTest, ThatEndAStartAreTriedOnceAndThenKeepTheirOffsets) {
  keep({kBare});
  EXPECT_EXIT(dieOfIt(), ::testing::ExitedWithCode(3), "");
  EXPECT_TRUE(isMarked());
  dieOfIt();
  EXPECT_THAT(traces(), ElementsAre(kOffsetAlone));
  EXPECT_FALSE(isMarked());
  EXPECT_THAT(log.messages(),
              ElementsAre("Morvik host: an earlier start ended while it named the stacks of stored crash reports (" +
                          marker() + "). It is not tried again: they keep modules and offsets."));
  keep({kBare});
  nameAll();
  EXPECT_THAT(traces(), ElementsAre("named")) << "of another crash";
}

TEST_F(StoredTracesDeathTest, ThatEndAStartAreNotTriedAgainAsLongAsTheStoreKeepsNothing) {
  keep({kBare});
  EXPECT_EXIT(dieOfIt(), ::testing::ExitedWithCode(3), "");
  store.setKeepsNothing(true);
  dieOfIt();
  EXPECT_TRUE(isMarked());
}

TEST_F(StoredTraces, KeepTheirOffsetsWhereAFatalTryWouldLeaveNoMark) {
  folder_ = "/nowhere";
  keep({kBare});
  nameAll();
  EXPECT_THAT(traces(), ElementsAre(kOffsetAlone));
}

}  // namespace
}  // namespace morvik::host
