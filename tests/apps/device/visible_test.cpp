#include "apps/device/visible.h"

#include <gtest/gtest.h>

namespace morvik_device {
namespace {

TEST(Visible, LeavesReadableTextAsItIs) {
  for (const char* text : {"", "a b ~", "caf\xc3\xa9 \xed\x95\x9c \xf0\x9f\x8e\x81"})
    EXPECT_EQ(visible(text), text);
}

TEST(Visible, WritesDownWhatWouldSpeakToATerminal) {
  EXPECT_EQ(visible("a\n\x1b[2J\x7f\xc2\x9b"), "a\\x0a\\x1b[2J\\x7f\\xc2\\x9b");
  EXPECT_EQ(visible("\xff|\xc3|\xe2\x82"), "\\xff|\\xc3|\\xe2\\x82");
}

}  // namespace
}  // namespace morvik_device
