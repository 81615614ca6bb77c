#include "apps/device/progress_bar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace morvik_device {
namespace {

using ::testing::EndsWith;
using ::testing::IsEmpty;
using Clock = ProgressBar::Clock;

TEST(ProgressBar, ShowsNothingOfWorkThatIsDoneSoon) {
  std::ostringstream terminal;
  {
    ProgressBar bar(terminal, true, "simulating");
    bar.show(1, 2, Clock::now());
  }
  EXPECT_THAT(terminal.str(), IsEmpty());
}

TEST(ProgressBar, ShowsHowFarLongWorkIsAndWipesItself) {
  std::ostringstream terminal;
  {
    ProgressBar bar(terminal, true, "simulating");
    bar.show(1, 2, Clock::now() + 2 * kProgressAfter);
    EXPECT_THAT(terminal.str(), EndsWith("simulating [###############...............] 50%"));
  }
  EXPECT_THAT(terminal.str(), EndsWith("\r\033[K"));
}

TEST(ProgressBar, IsNotRedrawnAllTheTime) {
  std::ostringstream terminal;
  ProgressBar bar(terminal, true, "simulating");
  const Clock::time_point late = Clock::now() + 2 * kProgressAfter;
  bar.show(1, 4, late);
  const std::string once = terminal.str();
  bar.show(2, 4, late);
  EXPECT_EQ(terminal.str(), once);
  bar.show(3, 4, late + 2 * kProgressEvery);
  EXPECT_THAT(terminal.str(), EndsWith(" 75%"));
}

TEST(ProgressBar, ShowsNothingWhereNobodyWatches) {
  std::ostringstream terminal;
  {
    ProgressBar bar(terminal, false, "simulating");
    bar.show(1, 2, Clock::now() + 2 * kProgressAfter);
  }
  EXPECT_THAT(terminal.str(), IsEmpty());
}

TEST(ProgressBar, NeverShowsMoreThanAll) {
  std::ostringstream terminal;
  ProgressBar bar(terminal, true, "simulating");
  bar.show(9, 4, Clock::now() + 2 * kProgressAfter);
  EXPECT_THAT(terminal.str(), EndsWith("] 100%"));
  bar.show(1, 0, Clock::now() + 9 * kProgressAfter);
  EXPECT_THAT(terminal.str(), EndsWith("] 100%"));
}

}  // namespace
}  // namespace morvik_device
