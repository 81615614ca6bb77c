#include "host/linux/crash/earlier_crash.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "host/json/simdjson_codec.h"
#include "host/linux/crash/crash_record.h"
#include "testing/recording_log.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Earlier : public ::testing::Test {
 protected:
  Earlier() { levels_._lcl_component_level[kit::lcl_cKesmo] = kit::lcl_vWarning; }

  /// A process prepared its record, and perhaps a signal ended it.
  void leave(std::optional<int> signal, const std::string& note = "{}") const {
    const int file = std::get<int>(prepareCrashRecord(path(), {}));
    SignalPart part;
    part.signal = signal.value_or(0);
    if (signal)
      writeSignalPart(file, part, note);
    ::close(file);
  }
  /// A start at which a report can be kept or not; returns what was reported.
  std::vector<std::string> start(bool can_keep = true) {
    std::vector<std::string> told;
    reportEarlierCrashes(
        path(), json_,
        [&](const kit::UncaughtException& crash) {
          told.push_back(crash.reason.value_or("(none)"));
          return can_keep;
        },
        logger());
    return told;
  }
  services::Logger logger() { return services::Logger(levels_, log); }
  std::string path() const { return scratch_.path() + "/record"; }
  std::string waiting() const { return waitingRecordPath(path()); }
  std::string unreadable() const { return unreadableRecordPath(path()); }
  bool isThere(const std::string& file) const { return std::filesystem::exists(file); }

  testing::RecordingLog log;

 private:
  const test::ScratchFolder scratch_;
  kit::LogLevels levels_;
  const SimdjsonCodec json_;
};

TEST_F(Earlier, CrashIsToldOnceAndItsRecordGoes) {
  leave(SIGSEGV);
  EXPECT_THAT(start(), ElementsAre("SIGSEGV"));
  EXPECT_FALSE(isThere(path()));
  EXPECT_THAT(start(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Earlier, CrashWhoseRecordTellsNothingOfTheDeviceIsToldWithALine) {
  for (const char* note : {"", "{", "[]"}) {
    log.clear();
    leave(SIGSEGV, note);
    EXPECT_THAT(start(), ElementsAre("SIGSEGV"));
    EXPECT_THAT(
        log.messages(),
        ElementsAre("Morvik host: the record of an earlier process's crash (SIGSEGV) does not describe the device, "
                    "like records of earlier versions: its report describes the device as it is now."));
  }
}

TEST_F(Earlier, ProcessWithoutACrashLeavesNothingToTell) {
  leave(std::nullopt);
  EXPECT_THAT(start(), IsEmpty());
  EXPECT_FALSE(isThere(path()));
  EXPECT_THAT(start(), IsEmpty()) << "without a file too";
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Earlier, CrashThatCannotBeKeptWaitsForAStartThatCan) {
  leave(SIGSEGV);
  EXPECT_THAT(start(false), ElementsAre("SIGSEGV"));
  EXPECT_FALSE(isThere(path())) << "the place is free for the next one";
  EXPECT_THAT(
      log.messages(),
      ElementsAre("Morvik host: the report of a crash can be kept neither in the store nor next to it. Its record "
                  "waits for the next start as \"" +
                  waiting() +
                  "\", where it replaces one that waited before: free some space, or make the folder writable."));
  EXPECT_EQ(log.lines()[0].prefix->level, "WARNING");
  leave(SIGFPE);
  EXPECT_THAT(start(), ElementsAre("SIGSEGV", "SIGFPE"));
  EXPECT_FALSE(isThere(waiting()));
  EXPECT_THAT(start(), IsEmpty());
}

TEST_F(Earlier, CrashIsToldAgainWhereAStartEndsBeforeItsRecordIsGone) {
  leave(SIGSEGV);
  const auto end_here = [](const kit::UncaughtException&) -> bool { throw std::runtime_error("ended"); };
  EXPECT_THROW(reportEarlierCrashes(path(), SimdjsonCodec(), end_here, logger()), std::runtime_error);
  EXPECT_THAT(start(), ElementsAre("SIGSEGV"));
  EXPECT_THAT(start(), IsEmpty());
}

TEST_F(Earlier, CrashesThatCannotBeKeptLeaveTheLatestWaiting) {
  leave(SIGSEGV);
  start(false);
  leave(SIGFPE);
  EXPECT_THAT(start(false), ElementsAre("SIGSEGV", "SIGFPE"));
  EXPECT_THAT(start(), ElementsAre("SIGFPE"));
}

/// Ends the process while a record is read, as a file used to name its stack could.
class DeadlyCodec final : public kit::JsonCodec {
 public:
  std::variant<kit::Value, kit::Error> read(std::string_view) const override { std::_Exit(3); }
  std::variant<std::string, kit::Error> write(const kit::Value&) const override { return kit::Error{"none"}; }
  std::variant<std::string, kit::Error> writePretty(const kit::Value&) const override { return kit::Error{"none"}; }
};

using EarlierDeathTest = Earlier;

TEST_F(EarlierDeathTest, RecordThatEndsAStartIsTriedOnceAndThenSetAside) {
  for (const bool is_waiting : {false, true}) {
    log.clear();
    leave(SIGSEGV);
    if (is_waiting)
      start(false);
    const std::string place = is_waiting ? waiting() : path();
    const std::string bytes = test::bytesOf(place);
    log.clear();
    EXPECT_EXIT(reportEarlierCrashes(
                    path(), DeadlyCodec(), [](const kit::UncaughtException&) { return true; }, logger()),
                ::testing::ExitedWithCode(3), "");
    EXPECT_THAT(start(), IsEmpty());
    EXPECT_FALSE(isThere(place));
    EXPECT_EQ(test::bytesOf(unreadableRecordPath(place)), bytes) << "nothing is deleted";
    EXPECT_THAT(log.messages(), ElementsAre("Morvik host: an earlier start ended while it named the stack of a crash. "
                                            "It is not tried again: the record goes on as \"" +
                                            unreadableRecordPath(place) + "\"; delete it if it does not matter."));
    leave(SIGFPE);
    EXPECT_THAT(start(), ElementsAre("SIGFPE")) << "the next crash is told";
  }
}

TEST_F(Earlier, EveryPlaceOfARecordIsKnown) {
  EXPECT_THAT(crashRecordPaths("/d/r"),
              ::testing::UnorderedElementsAre("/d/r", "/d/r.tried", "/d/r.unreadable", "/d/r.waiting",
                                              "/d/r.waiting.tried", "/d/r.waiting.unreadable"));
}

TEST_F(Earlier, FileThatIsNoRecordIsSetAside) {
  test::writeBytes(path(), "something else");
  EXPECT_THAT(start(), IsEmpty());
  EXPECT_FALSE(isThere(path()));
  EXPECT_EQ(test::bytesOf(unreadable()), "something else");
  EXPECT_THAT(log.messages(), ElementsAre("Morvik host: a crash of an earlier process is not reported: " + path() +
                                          " is not a crash record. The file goes on as \"" + unreadable() +
                                          "\": delete it if it does not matter."));
}

}  // namespace
}  // namespace morvik::host
