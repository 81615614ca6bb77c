#include "host/linux/crash/frame_names.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>

#include "host/linux/crash/loaded_modules.h"
#include "runtime/life/call_app.h"

namespace elsewhere {
struct Callback {
  std::function<void()> call;
};
[[gnu::noinline]] void ofTheApp(const morvik::host::NamedFrame&) {
  asm volatile("");
}
}  // namespace elsewhere

extern "C" [[gnu::noinline]] void f(const morvik::host::NamedFrame&) {
  asm volatile("");
}

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

uint64_t addressOf(void (*function)(const NamedFrame&)) {
  return reinterpret_cast<uint64_t>(function);
}

[[gnu::noinline]] void ofTheKit(const NamedFrame&) {
  asm volatile("");
}

LoadedModule thisProgram() {
  const auto modules = loadedModules();
  const uint64_t address = addressOf(ofTheKit);
  return *std::find_if(modules.begin(), modules.end(), [&](const auto& module) { return module.holds(address); });
}

TEST(LoadedModules, HoldThisProgramAndTheLibraries) {
  const LoadedModule program = thisProgram();
  EXPECT_THAT(program.path, HasSubstr("test_host"));
  EXPECT_THAT(program.build_id, MatchesRegex("[0-9a-f]+"));
  EXPECT_GT(loadedModules().size(), 3U);
  EXPECT_LE(loadedModules().size(), kMaxLoadedModules);
}

TEST(FrameNames, AreThoseOfTheFunctions) {
  const auto frames = namedFrames(loadedModules(), {addressOf(ofTheKit) + 4, addressOf(elsewhere::ofTheApp) + 4});
  ASSERT_EQ(frames.size(), 2U);
  EXPECT_THAT(frames[0].text,
              MatchesRegex("0  test_host  0x[0-9a-f]{16}  morvik::host::.anonymous namespace.::ofTheKit.* \\+ 4"));
  EXPECT_THAT(frames[1].text, MatchesRegex("1  test_host  0x[0-9a-f]{16}  elsewhere::ofTheApp.* \\+ 4"));
}

TEST(FrameNames, AFunctionOfCIsCalledAsItIs) {
  const auto frames = namedFrames(loadedModules(), {addressOf(f) + 4});
  EXPECT_THAT(frames[0].text, MatchesRegex("0  test_host  0x[0-9a-f]{16}  f \\+ 4"));
  EXPECT_EQ(frames[0].owner, FrameOwner::kApp);
}

FrameOwner ownerOf(uint64_t address) {
  return namedFrames(loadedModules(), {address})[0].owner;
}

TEST(FrameNames, AFunctionThatTakesOurTypesIsNotOursForThat) {
  EXPECT_EQ(ownerOf(addressOf(ofTheKit) + 4), FrameOwner::kKit);
  EXPECT_EQ(ownerOf(addressOf(elsewhere::ofTheApp) + 4), FrameOwner::kApp);
}

TEST(FrameNames, ThroughWhichTheKitCallsTheAppStandsForTheAppOnceItHasCalled) {
  void (*const call)(const std::function<void()>&) = &runtime::callApp<std::function<void()>>;
  const uint64_t address = reinterpret_cast<uint64_t>(call) + 4;
  const auto frames = namedFrames(loadedModules(), {address, address});
  EXPECT_THAT(frames[0].text, HasSubstr("morvik::runtime::callApp<"));
  EXPECT_EQ(frames[0].owner, FrameOwner::kKit) << "the crash is in it";
  EXPECT_EQ(frames[1].owner, FrameOwner::kApp);
}

TEST(FrameNames, TheRuntimeLibraryIsTheSystemsWhereverItsCodeLies) {
  EXPECT_EQ(ownerOf(reinterpret_cast<uint64_t>(&::getppid) + 4), FrameOwner::kSystem);
  // A template of the library, instantiated in this program.
  using Callbacks = std::map<int, elsewhere::Callback>;
  const auto insert = static_cast<Callbacks::mapped_type& (Callbacks::*)(const int&)>(&Callbacks::operator[]);
  uint64_t address = 0;
  std::memcpy(&address, &insert, sizeof address);
  EXPECT_EQ(ownerOf(address + 4), FrameOwner::kSystem);
}

TEST(FrameNames, ALibraryIsTheSystemsWhereTheSystemHasItsOwn) {
  const auto ownerIn = [](const char* path) {
    const LoadedModule program{0, 1, 2, "", "/usr/lib/program"};
    return namedFrames({program, {0, 0x1000, 0x2000, "", path}}, {0x1500})[0].owner;
  };
  for (const char* path : {"/lib/libz.so.1", "/usr/lib/x86_64-linux-gnu/libcurl.so.4", "/usr/lib64/libssl.so.3",
                           "/opt/shop/libstdc++.so.6", "/opt/shop/libc.so.6", "linux-vdso.so.1"})
    EXPECT_EQ(ownerIn(path), FrameOwner::kSystem) << path;
  for (const char* path :
       {"/usr/lib/shop/libshop.so", "/opt/shop/libshop.so", "/usr/local/lib/libshop.so", "/home/a/lib/libshop.so"})
    EXPECT_EQ(ownerIn(path), FrameOwner::kApp) << path;
  EXPECT_EQ(namedFrames({{0, 0x1000, 0x2000, "", "/usr/lib/program"}}, {0x1500})[0].owner, FrameOwner::kApp)
      << "the program is never the system's";
}

TEST(CrashOfTheKit, IsToldByTheInnermostFrameThatIsNotTheSystems) {
  const NamedFrame kit{"", FrameOwner::kKit};
  const NamedFrame app{"", FrameOwner::kApp};
  const NamedFrame system{"", FrameOwner::kSystem};
  EXPECT_TRUE(isCrashOfTheKit({kit, app}, false));
  EXPECT_TRUE(isCrashOfTheKit({system, system, kit, app}, false));
  EXPECT_FALSE(isCrashOfTheKit({app, kit}, false));
  EXPECT_FALSE(isCrashOfTheKit({system, app, system, kit}, false)) << "a callback of the app";
  EXPECT_TRUE(isCrashOfTheKit({app, kit}, true)) << "where no code is, nobody is";
  EXPECT_FALSE(isCrashOfTheKit({app, app, kit}, true));
  EXPECT_FALSE(isCrashOfTheKit({system}, false));
  EXPECT_FALSE(isCrashOfTheKit({}, true));
}

TEST(FrameNames, AModuleThatHasChangedSinceShowsTheOffsetAlone) {
  LoadedModule changed = thisProgram();
  changed.build_id = "00";
  const auto frames = namedFrames({changed}, {addressOf(ofTheKit)});
  EXPECT_THAT(frames[0].text, MatchesRegex("0  test_host  0x[0-9a-f]{16}  \\+ 0x[0-9a-f]+"));
  EXPECT_EQ(frames[0].owner, FrameOwner::kApp);
  LoadedModule gone = thisProgram();
  gone.path = "/nowhere/app";
  EXPECT_THAT(namedFrames({gone}, {addressOf(ofTheKit)})[0].text,
              MatchesRegex("0  app  0x[0-9a-f]{16}  \\+ 0x[0-9a-f]+"));
}

TEST(FrameNames, AnAddressInNoModuleIsShownAsItIs) {
  EXPECT_EQ(namedFrames({}, {0x1234})[0].text, "0  ?  0x0000000000001234");
}

}  // namespace
}  // namespace morvik::host
