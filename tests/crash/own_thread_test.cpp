// A kit on its own thread: the app's callbacks run on top of the kit's loop.
//
// The tests stand outside the kit's namespace on purpose: whose function is on the stack is what they tell apart.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "host/json/simdjson_codec.h"
#include "host/linux/crash/crash_hook.h"
#include "host/linux/crash/crash_record.h"
#include "morvik/morvik.h"

#include "tests/crash/callbacks.h"
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
  /// Starts a kit and does what crashes with it. Ends with the process, or after a while.
  void crash(const std::function<void(morvik::MorvikCore&)>& act, morvik::StartOptions options,
             const std::shared_ptr<const morvik::MorvikCoreDelegate>& delegate = nullptr) const {
    options.store_folder = folder();
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.report_crashes = true;
    if (!options.log_sink)
      options.log_sink = [](std::string_view) {};
    options.service_url = "http://127.0.0.1:1/";
    const auto started = morvik::MorvikCore::start(options);
    if (!started)
      std::_Exit(1);
    started.core->setDelegate(delegate);
    started.core->applicationDidBecomeActive();
    act(*started.core);
    std::promise<void> end;  // comes with the process's end
    end.get_future().wait_for(kGiveUp);
    std::_Exit(1);
  }
  void crashInACallback(std::function<void()> callback, morvik::StartOptions options = {}) const {
    crash([&callback](morvik::MorvikCore& core) { core.perform(std::move(callback)); }, std::move(options));
  }

  kit::UncaughtException found() const {
    const auto earlier = host::crashOfEarlierProcess(host::crashRecordPath(folder()), host::SimdjsonCodec());
    const auto* crash = std::get_if<std::optional<kit::UncaughtException>>(&earlier);
    return crash != nullptr && *crash ? **crash : kit::UncaughtException();
  }
  std::string reason() const { return found().reason.value_or("(no record)"); }

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
  morvik::StartOptions options;
  options.device.system_version = "12.1";
  morvik::Module module;
  module.getSDKVersion = [] { return std::to_string(++asked); };
  options.modules = {{"FendoUpdateLog", std::move(module)}};
  EXPECT_EXIT(crashInACallback(readNothing, std::move(options)), KilledBySignal(SIGSEGV), "");
  ASSERT_TRUE(found().moment);
  const kit::Value facts = found().moment->facts;
  EXPECT_EQ(facts["os_version"], kit::Value("i_12.1"));
  EXPECT_EQ(facts["appkey"], kit::Value("app"));
  EXPECT_EQ(facts["fendo_sdk_version"], kit::Value("2")) << "asked at the start, and when the app came to the front";
  EXPECT_EQ(facts["device_information"]["app_in_focus"], kit::Value(true));
}

TEST_F(OwnThreadDeathTest, ACallbackThatIsNowhereIsTheAppsAffair) {
  void (*const nowhere)() = nullptr;
  EXPECT_EXIT(crashInACallback(std::bind(nowhere)), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV") << "no function of the app's is entered, but the kit calls what it was given";
}

// ----------------------------------------------------------------------------- what the optimiser leaves of a callback

class OptimisedOrNotDeathTest : public OwnThreadDeathTest, public ::testing::WithParamInterface<Callbacks (*)()> {
 protected:
  Callbacks callbacks() const { return GetParam()(); }
};

TEST_P(OptimisedOrNotDeathTest, AFaultInACallbackIsTheAppsAffair) {
  EXPECT_EXIT(crashInACallback(callbacks().faults), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

TEST_P(OptimisedOrNotDeathTest, AFaultInTheLibraryThatACallbackCallsLastIsTheAppsAffair) {
  EXPECT_EXIT(crashInACallback(callbacks().faults_in_the_library), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

TEST_P(OptimisedOrNotDeathTest, AFaultInWhatACallbackKeepsIsTheAppsAffair) {
  EXPECT_EXIT(crashInACallback(callbacks().faults_when_destroyed), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

TEST_P(OptimisedOrNotDeathTest, AFaultInTheKitThatACallbackCallsIsTheKitsCrash) {
  EXPECT_EXIT(crashInACallback(callbacks().faults_in_the_kit), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "mrvk SIGSEGV");
}

INSTANTIATE_TEST_SUITE_P(Callbacks, OptimisedOrNotDeathTest,
                         ::testing::Values(&optimisedCallbacks, &unoptimisedCallbacks),
                         [](const auto& made) { return std::string(made.index == 0 ? "Optimised" : "Unoptimised"); });

// ----------------------------------------------------------------------------- all through which the kit calls the app

int* volatile nothing = nullptr;
volatile size_t size = 64;

/// Faults in the C library, by a call that is a jump: no frame of the app is left.
constexpr auto kFault = [](const auto&...) { std::memset(nothing, 0, size); };

/// A slot of the app that faults, and what makes the kit call it.
struct FaultySlot {
  const char* name;
  std::function<void(morvik::StartOptions&, morvik::MorvikCoreDelegate&)> fill;
  std::function<void(morvik::MorvikCore&)> act = [](morvik::MorvikCore&) {};
};

const FaultySlot kFaultySlots[] = {
    {"didRefuseEvent", [](auto&, auto& delegate) { delegate.didRefuseEvent = kFault; },
     [](auto& core) { core.addActivity("", ""); }},
    {"didFailToDeliver", [](auto&, auto& delegate) { delegate.didFailToDeliver = kFault; }},
    {"didAnswerErasure", [](auto&, auto& delegate) { delegate.didAnswerErasure = kFault; },
     [](auto& core) { core.gdprForgetMe(true); }},
    {"requestAttributionDetails", [](auto& options, auto&) { options.ad_client.requestAttributionDetails = kFault; }},
    {"setRemotePushEnable", [](auto& options, auto&) { options.modules["QuintPush"].setRemotePushEnable = kFault; },
     [](auto& core) { core.gdprForgetMe(true); }},
    {"getSDKVersion",
     [](auto& options, auto&) {
       options.modules["FendoUpdateLog"].getSDKVersion = [is_first = true]() mutable -> std::optional<std::string> {
         if (!std::exchange(is_first, false))  // the hook comes after the first
           kFault();
         return "1";
       };
     }},
    {"log_sink",
     [](auto& options, auto&) {
       options.log_sink = [](std::string_view line) {
         if (line.find("a session started") != std::string_view::npos)
           std::memset(nothing, 0, size);
       };
       options.log_level = 6;
     }},
    {"flush", [](auto&, auto&) {}, [](auto& core) { core.flush(kFault, std::chrono::seconds(0)); }},
};

void PrintTo(const FaultySlot& slot, std::ostream* out) {
  *out << slot.name;
}

class FaultySlotDeathTest : public OwnThreadDeathTest, public ::testing::WithParamInterface<FaultySlot> {};

TEST_P(FaultySlotDeathTest, IsTheAppsAffair) {
  const auto delegate = std::make_shared<morvik::MorvikCoreDelegate>();
  morvik::StartOptions options;
  GetParam().fill(options, *delegate);
  EXPECT_EXIT(crash(GetParam().act, options, delegate), KilledBySignal(SIGSEGV), "");
  EXPECT_EQ(reason(), "SIGSEGV");
}

INSTANTIATE_TEST_SUITE_P(Slots, FaultySlotDeathTest, ::testing::ValuesIn(kFaultySlots),
                         [](const auto& slot) { return std::string(slot.param.name); });

}  // namespace shop
