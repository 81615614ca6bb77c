#include "host/linux/crash/frame_walk.h"

#include <gmock/gmock.h>

#include <vector>

namespace morvik::host {
namespace {

using ::testing::ElementsAre;

// A stack in memory: words, some of which are frame records (the caller's record, the return address).
class Walk : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(reader_.open());
    code_.ranges[0] = {0x1000, 0x2000};
    code_.count = 1;
  }
  void TearDown() override { reader_.close(); }

  uint64_t at(size_t word) const { return reinterpret_cast<uint64_t>(&stack_[word]); }
  void frame(size_t word, size_t caller, uint64_t return_address) {
    stack_[word] = at(caller);
    stack_[word + 1] = return_address;
  }
  std::vector<uint64_t> walk(uint64_t frame_pointer, size_t capacity = 16) const {
    std::vector<uint64_t> frames(capacity);
    frames.resize(walkFrames({0x1001, at(0), frame_pointer, 0}, code_, reader_, frames.data(), capacity));
    return frames;
  }

  std::vector<uint64_t> stack_ = std::vector<uint64_t>(4096);
  CodeRanges code_;
  SafeReader reader_;
};

TEST_F(Walk, FollowsTheFramePointers) {
  frame(10, 20, 0x1100);
  frame(20, 30, 0x1200);
  frame(30, 40, 0x1300);
  EXPECT_THAT(walk(at(10)), ElementsAre(0x1001, 0x1100, 0x1200, 0x1300));
}

TEST_F(Walk, NamesTheCallerOfACallToWhereNoCodeIs) {
  stack_[0] = 0x1050;
  frame(10, 20, 0x1100);
  frame(20, 30, 0x1200);
  std::vector<uint64_t> frames(16);
  const auto walkFrom = [&](const StackTop& top, size_t capacity) {
    frames.resize(walkFrames(top, code_, reader_, frames.data(), capacity));
    return frames;
  };
  EXPECT_THAT(walkFrom({0, at(0), at(10), 0}, 16), ElementsAre(0, 0x1050, 0x1100, 0x1200));
  frames.resize(16);
  EXPECT_THAT(walkFrom({0, at(0), at(10), 0x1060}, 16), ElementsAre(0, 0x1060, 0x1100, 0x1200)) << "in a register";
  frames.resize(16);
  EXPECT_THAT(walkFrom({0, at(0), at(10), 0}, 1), ElementsAre(0));
  frames.resize(16);
  EXPECT_THAT(walkFrom({0, 8, at(10), 0}, 16), ElementsAre(0, 0x1100, 0x1200)) << "no stack either";
  stack_[0] = 0x9999;
  frames.resize(16);
  EXPECT_THAT(walkFrom({0, at(0), at(10), 0}, 16), ElementsAre(0, 0x1100, 0x1200)) << "no code there";
}

TEST_F(Walk, LooksForTheFirstFrameWhereTheRegisterHoldsSomethingElse) {
  frame(10, 20, 0x1100);
  frame(20, 30, 0x1200);
  EXPECT_THAT(walk(7), ElementsAre(0x1001, 0x1100, 0x1200));
}

TEST_F(Walk, LooksNoFurtherThanTheLimit) {
  frame(kMaxScannedWords, 2000, 0x1100);
  frame(2000, 2010, 0x1200);
  EXPECT_THAT(walk(0), ElementsAre(0x1001));
  frame(kMaxScannedWords - 1, 2000, 0x1100);
  EXPECT_THAT(walk(0), ElementsAre(0x1001, 0x1100, 0x1200));
}

TEST_F(Walk, EndsAtAReturnAddressThatIsNoCode) {
  frame(10, 20, 0x1100);
  frame(20, 30, 0x1200);
  frame(30, 40, 0x9999);
  EXPECT_THAT(walk(at(10)), ElementsAre(0x1001, 0x1100, 0x1200));
}

TEST_F(Walk, EndsWhereTheChainGoesBackOrRoundInCircles) {
  frame(10, 20, 0x1100);
  frame(20, 10, 0x1200);
  EXPECT_THAT(walk(at(10)), ElementsAre(0x1001, 0x1100, 0x1200));
}

TEST_F(Walk, EndsWhereTheNextFrameIsTooFarAway) {
  frame(10, 20, 0x1100);
  stack_[20] = at(20) + kMaxFrameBytes + 8;
  stack_[21] = 0x1200;
  EXPECT_THAT(walk(at(10)), ElementsAre(0x1001, 0x1100, 0x1200));
}

TEST_F(Walk, EndsWhereMemoryCannotBeRead) {
  EXPECT_THAT(walk(8), ElementsAre(0x1001));
  frame(10, 20, 0x1100);
  stack_[20] = at(20) + (kMaxFrameBytes & ~uint64_t{7});
  stack_[21] = 0x1200;
  EXPECT_GE(walk(at(10)).size(), 3U);
}

TEST_F(Walk, FillsNoMoreThanItsRoom) {
  for (size_t i = 0; i < 100; ++i)
    frame(10 + 2 * i, 12 + 2 * i, 0x1100 + i);
  EXPECT_EQ(walk(at(10), 5).size(), 5U);
  EXPECT_EQ(walk(at(10), 1).size(), 1U);
  EXPECT_EQ(walk(at(10), 0).size(), 0U);
}

}  // namespace
}  // namespace morvik::host
