// A kit on its own thread: the app's callbacks run on top of the kit's loop.
//
// The tests stand outside the kit's namespace on purpose: whose function is on the stack is what they tell apart.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <future>
#include <variant>

#include "host/crash/crash_hook.h"
#include "host/crash/crash_record.h"
#include "host/json/simdjson_codec.h"
#include "morvik/morvik.h"

#include "tests/crash/without_frame_pointers.h"
#include "tests/support/scratch_folder.h"

namespace shop {

using ::testing::KilledBySignal;
namespace host = morvik::host;
namespace kit = morvik::kit;

constexpr std::chrono::seconds kGiveUp{20};

void readNothing() {
  static int* volatile nothing = nullptr;
  *nothing = 1;
}
void giveUp() {
  std::abort();
}

class OwnThreadDeathTest : public ::testing::Test {
 protected:
  /// Ends with the process, or after a while.
  void crashInACallback(std::function<void()> callback, morvik::HostOptions options = {}) const {
    options.store_folder = folder();
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.report_crashes = true;
    options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";
    const auto started = morvik::MorvikCore::start(options);
    if (!started)
      std::_Exit(1);
    started.core->applicationDidBecomeActive();
    started.core->perform(std::move(callback));
    std::promise<void> end;  // which comes with the process
    end.get_future().wait_for(kGiveUp);
  }

  kit::UncaughtException crash() const {
    const auto found = host::crashOfEarlierProcess(host::crashRecordPath(folder()), host::SimdjsonCodec());
    const auto* crash = std::get_if<std::optional<kit::UncaughtException>>(&found);
    return crash != nullptr && *crash ? **crash : kit::UncaughtException();
  }
  std::string reason() const { return crash().reason.value_or("(no record)"); }

 private:
  std::string folder() const { return scratch_.path() + "/store"; }

  const morvik::test::ScratchFolder scratch_;
};

TEST_F(OwnThreadDeathTest, AFaultInACallbackIsTheAppsAffair) {
  EXPECT_EXIT(crashInACallback([] { readNothing(); }), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

TEST_F(OwnThreadDeathTest, AnAbortInACallbackIsTheAppsAffair) {
  EXPECT_EXIT(crashInACallback(giveUp), KilledBySignal(SIGABRT), "");
  EXPECT_EQ(reason(), "SIGABRT") << "the library's abort() stands between the callback and the signal";
}

TEST_F(OwnThreadDeathTest, AFaultInTheLibraryThatACallbackCalledIsTheAppsAffairAlsoWithoutFramePointers) {
  EXPECT_EXIT(crashInACallback(readNothingInTheLibrary), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

TEST_F(OwnThreadDeathTest, TheRecordTellsOfTheProcessAsItLastWas) {
  static int asked = 0;
  morvik::HostOptions options;
  options.device.system_version = "12.1";
  morvik::Module module;
  module.getSDKVersion = [] { return std::to_string(++asked); };
  options.modules = {{"FendoUpdateLog", std::move(module)}};
  EXPECT_EXIT(crashInACallback(readNothing, std::move(options)), KilledBySignal(SIGSEGV), "");
  ASSERT_TRUE(crash().moment);
  const kit::Value facts = crash().moment->facts;
  EXPECT_EQ(facts["os_version"], kit::Value("i_12.1"));
  EXPECT_EQ(facts["appkey"], kit::Value("app"));
  EXPECT_EQ(facts["fendo_sdk_version"], kit::Value("2")) << "asked at the start, and when the app came to the front";
  EXPECT_EQ(facts["device_information"]["app_in_focus"], kit::Value(true));
}

TEST_F(OwnThreadDeathTest, ACallbackThatIsNowhereIsTheKitsCrash) {
  // No function of the app's is ever entered: the library calls nothing for the kit.
  void (*const nowhere)() = nullptr;
  EXPECT_EXIT(crashInACallback(std::bind(nowhere)), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "mrvk SIGSEGV");
}

}  // namespace shop
