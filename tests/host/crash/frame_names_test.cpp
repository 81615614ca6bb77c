#include "host/crash/frame_names.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "host/crash/loaded_modules.h"

namespace elsewhere {
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
  EXPECT_FALSE(frames[0].is_ours);
}

TEST(FrameNames, AFunctionThatTakesOurTypesIsNotOursForThat) {
  const auto frames = namedFrames(loadedModules(), {addressOf(ofTheKit) + 4, addressOf(elsewhere::ofTheApp) + 4});
  EXPECT_TRUE(frames[0].is_ours);
  EXPECT_FALSE(frames[1].is_ours);
  EXPECT_TRUE(holdsFrameOfOurs(frames));
  EXPECT_FALSE(holdsFrameOfOurs({frames[1]}));
  EXPECT_FALSE(holdsFrameOfOurs({}));
}

TEST(FrameNames, AModuleThatHasChangedSinceShowsTheOffsetAlone) {
  LoadedModule changed = thisProgram();
  changed.build_id = "00";
  const auto frames = namedFrames({changed}, {addressOf(ofTheKit)});
  EXPECT_THAT(frames[0].text, MatchesRegex("0  test_host  0x[0-9a-f]{16}  \\+ 0x[0-9a-f]+"));
  EXPECT_FALSE(frames[0].is_ours);
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
