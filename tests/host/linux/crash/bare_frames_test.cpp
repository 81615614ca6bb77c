#include "host/linux/crash/bare_frames.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "host/linux/crash/frame_names.h"

namespace elsewhere {
[[gnu::noinline]] void sell() {
  asm volatile("");
}
}  // namespace elsewhere

namespace morvik::host {
namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

uint64_t addressInSell() {
  return reinterpret_cast<uint64_t>(&elsewhere::sell) + 4;
}

TEST(BareFrames, TellModuleOffsetAndBuildId) {
  const LoadedModule app{0x1000, 0x2000, 0x3000, "0a1b", "/opt/shop/my app"};
  const LoadedModule old{0, 0x5000, 0x6000, "", "/opt/old"};
  EXPECT_THAT(
      bareFrames({app, old}, {0x2010, 0x2abc, 0x5001, 0x9999}),
      ElementsAre("0  my app  0x0000000000002010  + 0x1010 [0a1b]", "1  my app  0x0000000000002abc  + 0x1abc [0a1b]",
                  "2  old  0x0000000000005001  + 0x5001", "3  ?  0x0000000000009999"));
}

TEST(BareFrames, GetTheNamesThatTheFramesHaveInThisProcess) {
  const auto modules = loadedModules();
  const std::vector<uint64_t> frames = {addressInSell(), addressInSell(), 0x10};
  std::string bare;
  for (const std::string& frame : bareFrames(modules, frames))
    bare.append(frame).append(kFrameEnd);
  std::string named;
  for (const NamedFrame& frame : namedFrames(modules, frames))
    named.append(frame.text).append(kFrameEnd);
  EXPECT_TRUE(holdsBareFrames(bare));
  EXPECT_EQ(namedTrace(bare, modules), named);
  EXPECT_FALSE(holdsBareFrames(named));
}

TEST(BareFrames, GetTheirNamesAlsoWhereTheModuleLiesElsewhereByNow) {
  auto modules = loadedModules();
  const auto bare = bareFrames(modules, {addressInSell()});
  for (LoadedModule& module : modules) {
    module.bias += 0x10000;
    module.begin += 0x10000;
    module.end += 0x10000;
  }
  EXPECT_THAT(namedTrace(bare[0], modules), MatchesRegex("0  test_host  0x[0-9a-f]{16}  elsewhere::sell\\(\\) \\+ 4"));
}

TEST(BareFrames, OfAModuleThatIsNotLoadedAnyMoreKeepTheOffset) {
  EXPECT_EQ(namedTrace("0  shop  0x0000000000002010  + 0x1010 [0a1b]<br>1  ?  0x0000000000000010<br>", loadedModules()),
            "0  shop  0x0000000000002010  + 0x1010<br>1  ?  0x0000000000000010<br>");
}

TEST(BareFrames, KeepTheOffsetWhereNoNamesAreAskedFor) {
  EXPECT_EQ(unnamedTrace("0  shop  0x0000000000002010  + 0x1010 [0a1b]<br>1  main<br>"),
            "0  shop  0x0000000000002010  + 0x1010<br>1  main<br>");
}

TEST(BareFrames, AreToldFromAnyOtherText) {
  for (const char* text :
       {"", "<br>", "]", " []", "0 app main<br>1 app start<br>", "  + 0x [aa]", "0  a  + 0x1 [no id]",
        "x  a  0x1  + 0x1 [aa]", "0  a  0x1  + 0xyz [aa]", "0  a  0x1  + 0x11111111111111111 [aa]",
        "99999999999999999999999  a  0x1  + 0x1 [aa]", "0  a  0x1  + 0x1 [aa] "}) {
    EXPECT_FALSE(holdsBareFrames(text)) << text;
    EXPECT_EQ(namedTrace(text, loadedModules()), text);
    EXPECT_EQ(unnamedTrace(text), text);
  }
}

}  // namespace
}  // namespace morvik::host
