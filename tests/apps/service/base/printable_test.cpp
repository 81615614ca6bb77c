#include "apps/service/base/printable.h"

#include <gtest/gtest.h>

namespace morvik_service {
namespace {

TEST(Printable, LeavesReadableTextAsItIs) {
  for (const char* text : {"", "a reason, with blanks ~", "caf\xC3\xA9 \xED\x95\x9C\xEA\xB5\xAD \xF0\x9F\x8E\x81"})
    EXPECT_EQ(text, printable(text));
}

TEST(Printable, NothingSpeaksToATerminal) {
  EXPECT_EQ("a??[2Jb?c?d", printable("a\n\x1B[2Jb\x7F"
                                     "c\rd"));
  EXPECT_EQ("??31m", printable("\xC2\x9B"
                               "31m"))
      << "a control character of the upper half";
  EXPECT_EQ("???", printable(std::string_view("\0\t\x01", 3)));
}

TEST(Printable, WhatIsNoUtf8IsNotPassedOn) {
  EXPECT_EQ("?a", printable("\xFF"
                            "a"));
  EXPECT_EQ("?a", printable("\x80"
                            "a"));
  EXPECT_EQ("?a", printable("\xC3"
                            "a"));
  EXPECT_EQ("??", printable("\xE2\x82")) << "cut off at the end";
}

TEST(Printable, LongTextIsCutBetweenCharacters) {
  EXPECT_EQ(std::string(kMaxPrintedBytes, 'x'), printable(std::string(kMaxPrintedBytes, 'x')));
  EXPECT_EQ(std::string(kMaxPrintedBytes, 'x') + "...", printable(std::string(kMaxPrintedBytes + 1, 'x')));
  EXPECT_EQ("ab...", printable("ab\xC3\xA9"
                               "c",
                               3));
  EXPECT_EQ("ab\xC3\xA9", printable("ab\xC3\xA9", 4));
}

TEST(Printable, AWordHasNoBlanks) {
  EXPECT_EQ("/v1/a?b?", printableWord("/v1/a b\n"));
}

}  // namespace
}  // namespace morvik_service
