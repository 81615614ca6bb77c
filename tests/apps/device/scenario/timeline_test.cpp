#include "apps/device/scenario/timeline.h"

#include <gtest/gtest.h>

#include "tests/support/captured_file.h"

namespace morvik_device::scenario {
namespace {

using morvik::kit::Dictionary;

Scenario story() {
  Scenario scenario;
  scenario.story = "A story";
  scenario.start = kDefaultStart;
  return scenario;
}

Happening happening(int64_t at_milliseconds, Happening::Kind kind, std::string text, bool is_trouble = false) {
  return {.at_milliseconds = at_milliseconds,
          .kind = kind,
          .is_trouble = is_trouble,
          .text = std::move(text),
          .fields = Dictionary{{"field", 1}}};
}

TEST(Timeline, ReadsLikeAStory) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kPlain, "a.yaml", 7);
  timeline.begin(story());
  timeline.happened(happening(0, Happening::Kind::kProcess, "started"));
  timeline.happened(happening(10'500, Happening::Kind::kRequest, "tracking  1 event: shop/purchase"));
  timeline.happened(happening(93'784'005, Happening::Kind::kLog, "one line\nand another", true));
  timeline.assessed(93'784'005, {.place = {12, 5}}, {.met = true, .expected = "exactly 1 delivered a/b", .got = ""});
  timeline.end(1, false);
  EXPECT_EQ(output.text(),
            "A story\n"
            "a.yaml, from 2024-03-01T00:00:00Z, seed 7\n"
            "\n"
            "       0:00:00.000  process   started\n"
            "       0:00:10.500    ->      tracking  1 event: shop/purchase\n"
            "    1d 2:03:04.005  log       one line\n"
            "                              and another\n"
            "    1d 2:03:04.005  expected  met: exactly 1 delivered a/b\n"
            "\n"
            "The expectation is met.\n");
}

TEST(Timeline, NamesTheFirstExpectationThatIsNotMet) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kPlain, "a.yaml", 7);
  timeline.assessed(1'000, {.place = {12, 5}}, {.met = false, .expected = "what should be", .got = "what is"});
  timeline.end(3, true);
  EXPECT_EQ(output.text(),
            "       0:00:01.000  expected  MISSED: what should be\n"
            "\n"
            "a.yaml:12: this expectation is not met\n"
            "  expected  what should be\n"
            "  got       what is\n"
            "  seed      7 (morvik-device simulate a.yaml --seed 7 plays it again)\n");
}

TEST(Timeline, HasColoursWhereTheyAreWanted) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kColoured, "a.yaml", 7);
  timeline.happened(happening(0, Happening::Kind::kAnswer, "tracking  200 {}"));
  timeline.happened(happening(0, Happening::Kind::kAnswer, "tracking  500 {}", true));
  EXPECT_EQ(output.text(),
            "\033[2m       0:00:00.000\033[0m  \033[32m  <-      tracking  200 {}\033[0m\n"
            "\033[2m       0:00:00.000\033[0m  \033[31m  <-      tracking  500 {}\033[0m\n");
}

TEST(Timeline, LetsNobodySpeakToTheTerminal) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kPlain, "a.yaml", 7);
  timeline.happened(happening(0, Happening::Kind::kAnswer, "tracking  200 \033[2Ja\rb\x7f\xc2\x9b"));
  EXPECT_EQ(output.text(), "       0:00:00.000    <-      tracking  200 \\x1b[2Ja\\x0db\\x7f\\xc2\\x9b\n");
}

TEST(Timeline, LetsNoTitleAndNoExpectationSpeakToTheTerminalEither) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kPlain, "a\033.yaml", 7);
  Scenario scenario = story();
  scenario.story = "A \033[2Jstory\nin two lines";
  timeline.begin(scenario);
  timeline.assessed(1'000, {.place = {12, 5}}, {.met = false, .expected = "x\033[2J\r", .got = "y\033[2J\n"});
  EXPECT_EQ(output.text().find_first_of("\033\r"), std::string::npos);
  EXPECT_EQ(output.text().find("A \\x1b[2Jstory\\x0ain two lines\na\\x1b.yaml, from "), 0U);
  EXPECT_NE(output.text().find("  expected  x\\x1b[2J\\x0d\n  got       y\\x1b[2J\\x0a\n"), std::string::npos)
      << output.text();
}

TEST(Timeline, IsJsonForMachines) {
  morvik::test::CapturedFile output;
  Timeline timeline(output.file(), TimelineForm::kJson, "a.yaml", 7);
  timeline.begin(story());
  timeline.happened(happening(10'500, Happening::Kind::kSession, "begins"));
  timeline.assessed(11'000, {.place = {12, 5}}, {.met = true, .expected = "x", .got = ""});
  timeline.assessed(12'000, {.place = {13, 5}}, {.met = false, .expected = "x", .got = "y"});
  timeline.end(1, true);
  EXPECT_EQ(output.text(),
            R"({"kind":"story","story":"A story","file":"a.yaml","start":"2024-03-01T00:00:00Z","seed":7})"
            "\n"
            R"({"at":10.5,"kind":"session","field":1})"
            "\n"
            R"({"at":11,"kind":"expectation","met":true,"line":12,"expected":"x"})"
            "\n"
            R"({"at":12,"kind":"expectation","met":false,"line":13,"expected":"x","got":"y"})"
            "\n"
            R"({"kind":"end","met":1,"missed":true,"seed":7})"
            "\n");
}

TEST(Timeline, KnowsThatItCouldNotBeWritten) {
  std::FILE* full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::setvbuf(full, nullptr, _IONBF, 0);
  Timeline timeline(full, TimelineForm::kPlain, "a.yaml", 7);
  EXPECT_FALSE(timeline.failed());
  timeline.begin(story());
  EXPECT_TRUE(timeline.failed());
  std::fclose(full);
}

}  // namespace
}  // namespace morvik_device::scenario
