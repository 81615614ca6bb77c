#include "proofs/run/transcript.h"

#include <gtest/gtest.h>

namespace morvik::proofs {
namespace {

uint64_t hashOf(std::string_view first, std::string_view second) {
  Transcript transcript;
  transcript.add(first);
  transcript.add(second);
  return transcript.hash();
}

TEST(Transcript, IsTheSameForTheSameAndAnotherForAnythingElse) {
  EXPECT_EQ(hashOf("one", "two"), hashOf("one", "two"));
  EXPECT_NE(hashOf("one", "two"), hashOf("two", "one"));
  EXPECT_NE(hashOf("one", "two"), hashOf("onet", "wo"));
  EXPECT_NE(hashOf("one", ""), hashOf("one", "one"));
  Transcript number;
  number.add(uint64_t{1} << 56U);
  EXPECT_NE(number.hash(), Transcript().hash());
}

}  // namespace
}  // namespace morvik::proofs
