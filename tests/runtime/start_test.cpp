#include "runtime/start.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/system_machine.h"
#include "tests/support/scratch_folder.h"

namespace morvik::runtime {
namespace {

/// The system's machine, which tells when it is destroyed, and whose parts refer to it.
class WatchedSystem final : public host::SystemMachine {
 public:
  explicit WatchedSystem(std::promise<void>& gone) : gone_(gone) {}
  ~WatchedSystem() override { gone_.set_value(); }
  std::unique_ptr<MachineClock> makeClock() override { return std::make_unique<Clock>(*this); }

 private:
  class Clock final : public MachineClock {
   public:
    explicit Clock(const WatchedSystem& machine) : machine_(machine) {}
    kit::Date now() const override { return machine_.clock_->now(); }
    std::chrono::steady_clock::time_point steadyNow() const override { return machine_.clock_->steadyNow(); }

   private:
    const WatchedSystem& machine_;
  };

  std::promise<void>& gone_;
  const std::unique_ptr<MachineClock> clock_ = host::SystemMachine::makeClock();
};

/// The system's machine without crash reporting.
class SystemWithoutCrashes final : public host::SystemMachine {
 public:
  std::unique_ptr<MachineCrashes> makeCrashes(const std::string&, const kit::JsonCodec&,
                                              const services::Logger&) override {
    return nullptr;
  }
};

/// Threads of the kit may release the last parts shortly after the end.
bool isReadyInTheEnd(const std::future<void>& gone) {
  return gone.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

StartOptions optionsIn(const test::ScratchFolder& folder) {
  StartOptions options;
  options.store_folder = folder / "store";
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "";
  options.service_url = "http://127.0.0.1:9/";
  options.log_level = 0;
  return options;
}

TEST(Start, KeepsItsMachineForAsLongAsTheKit) {
  const test::ScratchFolder folder;
  std::promise<void> gone;
  const std::future<void> is_gone = gone.get_future();
  StartResult started = start(optionsIn(folder), std::make_unique<WatchedSystem>(gone));
  ASSERT_TRUE(started) << started.error;
  // By the machine's clock.
  EXPECT_EQ(started.core->addActivity("shop", "look"), Recorded::kKept);
  EXPECT_EQ(is_gone.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  started.core.reset();
  EXPECT_TRUE(isReadyInTheEnd(is_gone));
}

TEST(Start, TellsOnceThatAPlatformWithoutCrashReportingReportsNone) {
  for (const bool is_asked_for : {false, true}) {
    const test::ScratchFolder folder;
    StartOptions options = optionsIn(folder);
    options.log_level = 3;
    options.report_crashes = is_asked_for;
    std::vector<std::string> lines;
    options.log_sink = [&lines](std::string_view line) { lines.emplace_back(line); };
    {
      const StartResult started = start(options, std::make_unique<SystemWithoutCrashes>());
      ASSERT_TRUE(started) << started.error;
    }
    const auto tells = [](const std::string& line) {
      return line.ends_with(
          "Morvik host: crashes are not reported: this platform has no crash reporting; set "
          "StartOptions::report_crashes to false");
    };
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), tells), is_asked_for ? 1 : 0);
  }
}

TEST(Start, LetsItsMachineGoWithAnErrorOfTheOptions) {
  const test::ScratchFolder folder;
  StartOptions options = optionsIn(folder);
  options.app_key = "";
  std::promise<void> gone;
  const std::future<void> is_gone = gone.get_future();
  const StartResult started = start(options, std::make_unique<WatchedSystem>(gone));
  EXPECT_FALSE(started);
  EXPECT_TRUE(started.error.starts_with("StartOptions::app_key is empty")) << started.error;
  EXPECT_TRUE(isReadyInTheEnd(is_gone));
}

}  // namespace
}  // namespace morvik::runtime
