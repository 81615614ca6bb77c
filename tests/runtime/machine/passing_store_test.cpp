#include "runtime/machine/passing_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace morvik::runtime {
namespace {

using kit::Value;
using ::testing::_;
using ::testing::Return;
using ::testing::ReturnRef;

class MockStore : public MachineStore {
 public:
  MOCK_METHOD(Value, get, (std::string_view), (const, override));
  MOCK_METHOD(void, set, (std::string_view, Value), (override));
  MOCK_METHOD(void, append, (std::string_view, Value), (override));
  MOCK_METHOD(void, replace, (std::string_view, const Value&, Value), (override));
  MOCK_METHOD(void, setTogether, (std::span<StoreWrite>), (override));
  MOCK_METHOD(bool, synchronize, (), (override));
  MOCK_METHOD(std::optional<Value>, tryGet, (std::string_view), (const, override));
  MOCK_METHOD(bool, trySetAndSynchronize, (std::string_view, Value), (override));
  MOCK_METHOD(StoreOpening, opening, (), (const, override));
  MOCK_METHOD(const std::string&, openingLine, (), (const, override));
  MOCK_METHOD(void, setWhenTakenOver, (kit::Block), (override));
  MOCK_METHOD(bool, commitTurn, (), (override));
  MOCK_METHOD(bool, synchronizeUntold, (), (override));
  MOCK_METHOD(void, tellWaiting, (), (override));
  MOCK_METHOD(bool, isKept, (), (const, override));
  MOCK_METHOD((std::vector<std::pair<std::string, Value>>), all, (), (const, override));
  MOCK_METHOD(void, flushNow, (), (override));
  MOCK_METHOD(void, flushSoon, (), (override));
  MOCK_METHOD(void, setWhenFlushed, (kit::Block), (override));
  MOCK_METHOD(void, beginToEnd, (), (override));
  MOCK_METHOD(void, shutdown, (), (override));
};

class ChangesNothing final : public PassingStore {
 public:
  explicit ChangesNothing(MachineStore& store) : PassingStore(store) {}
};

class PassingStoreTest : public ::testing::Test {
 protected:
  ::testing::StrictMock<MockStore> store_;
  ChangesNothing passing_{store_};
};

TEST_F(PassingStoreTest, PassesOnWhatIsWritten) {
  std::array writes{StoreWrite{"a", Value(1)}};
  EXPECT_CALL(store_, set("a", Value(1)));
  EXPECT_CALL(store_, append("list", Value(2)));
  EXPECT_CALL(store_, replace("list", Value(3), Value(4)));
  EXPECT_CALL(store_, setTogether(_)).WillOnce([&](std::span<StoreWrite> passed) {
    EXPECT_EQ(passed.data(), writes.data());
    EXPECT_EQ(passed.size(), 1U);
  });
  EXPECT_CALL(store_, trySetAndSynchronize("a", Value(5))).WillOnce(Return(true));
  passing_.set("a", Value(1));
  passing_.append("list", Value(2));
  passing_.replace("list", Value(3), Value(4));
  passing_.setTogether(writes);
  EXPECT_TRUE(passing_.trySetAndSynchronize("a", Value(5)));
}

TEST_F(PassingStoreTest, PassesBackWhatIsAsked) {
  const std::string line = "a line";
  const std::vector<std::pair<std::string, Value>> all{{"a", Value(1)}};
  EXPECT_CALL(store_, get("a")).WillOnce(Return(Value(1)));
  EXPECT_CALL(store_, tryGet("a")).WillOnce(Return(Value(2)));
  EXPECT_CALL(store_, opening()).WillOnce(Return(StoreOpening::kNewerVersion));
  EXPECT_CALL(store_, openingLine()).WillOnce(ReturnRef(line));
  EXPECT_CALL(store_, isKept()).WillOnce(Return(true));
  EXPECT_CALL(store_, all()).WillOnce(Return(all));
  EXPECT_EQ(passing_.get("a"), Value(1));
  EXPECT_EQ(passing_.tryGet("a"), Value(2));
  EXPECT_EQ(passing_.opening(), StoreOpening::kNewerVersion);
  EXPECT_EQ(&passing_.openingLine(), &line);
  EXPECT_TRUE(passing_.isKept());
  EXPECT_EQ(passing_.all(), all);
}

TEST_F(PassingStoreTest, PassesOnCommitsFlushesAndHooks) {
  int taken_over = 0;
  int flushed = 0;
  EXPECT_CALL(store_, synchronize()).WillOnce(Return(true));
  EXPECT_CALL(store_, commitTurn()).WillOnce(Return(true));
  EXPECT_CALL(store_, synchronizeUntold()).WillOnce(Return(true));
  EXPECT_CALL(store_, tellWaiting());
  EXPECT_CALL(store_, flushNow());
  EXPECT_CALL(store_, flushSoon());
  EXPECT_CALL(store_, setWhenTakenOver(_)).WillOnce([](const kit::Block& hook) { hook(); });
  EXPECT_CALL(store_, setWhenFlushed(_)).WillOnce([](const kit::Block& hook) { hook(); });
  EXPECT_CALL(store_, beginToEnd());
  EXPECT_CALL(store_, shutdown());
  EXPECT_TRUE(passing_.synchronize());
  EXPECT_TRUE(passing_.commitTurn());
  EXPECT_TRUE(passing_.synchronizeUntold());
  passing_.tellWaiting();
  passing_.flushNow();
  passing_.flushSoon();
  passing_.setWhenTakenOver([&] { ++taken_over; });
  passing_.setWhenFlushed([&] { ++flushed; });
  passing_.beginToEnd();
  passing_.shutdown();
  EXPECT_EQ(taken_over, 1);
  EXPECT_EQ(flushed, 1);
}

}  // namespace
}  // namespace morvik::runtime
