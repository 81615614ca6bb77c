#include "services/guard.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Value;

constexpr Guard kBlockGuard{
    block("MRVK_QA-[MorvikCoreLib error] Exception from startSession!\n                          exceptionName: "
          "%@\n                          reason: %@\n                          exceptionInfo: %@"),
    block("MRVK_QA-[MorvikCoreLib error] Exception from startSession!\n                          exception print: %@"),
};
constexpr Guard kOneLineGuard{
    oneLine(kit::lcl_vTrace, "MRVK_QA-[MorvikCoreLib error] Exception : %@]"),
    oneLine(kit::lcl_vWarning, "MRVK_QA-[MorvikCoreLib error] Exception other : %@]"),
};
constexpr Guard kUngatedGuard{
    ungated("! MRVK_QA-MorvikCore reGetReferral Failed Exception: %@\n"),
    ungated("! MRVK_QA-MorvikCore reGetReferral Failed: %@\n"),
};

struct Odd {};
struct Derived : kit::Exception {};

class Lines : public kit::LogSink {
 public:
  void line(std::string_view text) override { all.emplace_back(text); }
  bool tryLine(std::string_view) override { return false; }
  std::vector<std::string> all;
};

class FailingLog : public kit::LogSink {
 public:
  void line(std::string_view) override {
    ++calls;
    throw std::runtime_error("the log is full");
  }
  bool tryLine(std::string_view) override { return false; }
  int calls = 0;
};

class GuardTest : public ::testing::Test {
 protected:
  GuardTest() { setLevel(kit::lcl_vTrace); }
  void setLevel(uint8_t level) { levels._lcl_component_level[kit::lcl_cKesmo] = level; }
  /// The one line that the guard writes when `body` throws.
  std::string lineOf(const Guard& guard, const std::function<void()>& body) {
    lines.all.clear();
    EXPECT_FALSE(guarded(logger, guard, site, body));
    EXPECT_EQ(lines.all.size(), 1U);
    return lines.all.empty() ? std::string() : lines.all[0];
  }
  kit::LogLevels levels;
  Lines lines;
  Logger logger{levels, lines};
  LogSite site{"lifecycle.cpp", 7, "-[MorvikCoreLib startSession]"};
};

[[noreturn]] void throwPlatformException() {
  throw kit::Exception{"NSInvalidArgumentException", "nil object", Dictionary{{"key", "value"}}};
}

TEST_F(GuardTest, AnswersTrueAndWritesNothingWhenNothingIsThrown) {
  bool ran = false;
  EXPECT_TRUE(guarded(logger, kBlockGuard, site, [&ran] { ran = true; }));
  EXPECT_TRUE(ran);
  EXPECT_TRUE(lines.all.empty());
}

TEST_F(GuardTest, HandsOnTheResultOfTheBody) {
  const std::optional<int> number = guarded(logger, kBlockGuard, site, [] { return 5; });
  EXPECT_EQ(number, 5);
  const auto owned = guarded(logger, kBlockGuard, site, [] { return std::make_unique<int>(6); });
  EXPECT_EQ(**owned, 6);
}

TEST_F(GuardTest, HasNoResultWhenTheBodyThrows) {
  const std::optional<int> number = guarded(logger, kBlockGuard, site, []() -> int { throw Odd{}; });
  EXPECT_EQ(number, std::nullopt);
  EXPECT_EQ(lines.all.size(), 1U);
}

TEST_F(GuardTest, WritesNameReasonAndInformationOfAPlatformExceptionInABlock) {
  EXPECT_EQ(lineOf(kBlockGuard, throwPlatformException),
            "ERROR Kesmo:lifecycle.cpp:7:-[MorvikCoreLib startSession] "
            "MRVK_QA-[MorvikCoreLib error] Exception from startSession!\n"
            "                          exceptionName: NSInvalidArgumentException\n"
            "                          reason: nil object\n"
            "                          exceptionInfo: {\"key\":\"value\"}");
}

TEST_F(GuardTest, WritesAbsentInformationAsSuch) {
  const std::string line = lineOf(kBlockGuard, [] { throw kit::Exception{"Name", "reason", {}}; });
  EXPECT_TRUE(line.ends_with("exceptionInfo: (null)")) << line;
}

TEST_F(GuardTest, TakesASubclassOfThePlatformExceptionForOne) {
  const std::string line = lineOf(kBlockGuard, [] { throw Derived{{"Name", "reason", {}}}; });
  EXPECT_NE(line.find("exceptionName: Name\n"), std::string::npos) << line;
}

TEST_F(GuardTest, WritesTheTextOfAnyOtherObjectInABlock) {
  const std::string head =
      "ERROR Kesmo:lifecycle.cpp:7:-[MorvikCoreLib startSession] "
      "MRVK_QA-[MorvikCoreLib error] Exception from startSession!\n"
      "                          exception print: ";
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw std::runtime_error("disk"); }), head + "disk");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw std::out_of_range("range"); }), head + "range");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw 5; }), head + "int");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw "text"; }), head + "char const*");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw std::string("text"); }),
            head + "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw Odd{}; }), head + "morvik::services::(anonymous namespace)::Odd");
  EXPECT_EQ(lineOf(kBlockGuard, [] { throw nullptr; }), head + "decltype(nullptr)");
}

TEST_F(GuardTest, KeepsConversionsInTheThrownTextAsTheyAre) {
  EXPECT_TRUE(lineOf(kBlockGuard, [] { throw std::runtime_error("50%@ %d"); }).ends_with("exception print: 50%@ %d"));
}

TEST_F(GuardTest, WritesTheReasonAloneInOneLine) {
  EXPECT_EQ(lineOf(kOneLineGuard, throwPlatformException),
            "TRACE Kesmo:lifecycle.cpp:7:-[MorvikCoreLib startSession] "
            "MRVK_QA-[MorvikCoreLib error] Exception : nil object]");
  EXPECT_EQ(lineOf(kOneLineGuard, [] { throw 5; }),
            "WARNING Kesmo:lifecycle.cpp:7:-[MorvikCoreLib startSession] "
            "MRVK_QA-[MorvikCoreLib error] Exception other : int]");
}

TEST_F(GuardTest, GatesEachClauseAtItsOwnLevel) {
  setLevel(kit::lcl_vDebug);
  EXPECT_FALSE(guarded(logger, kOneLineGuard, site, throwPlatformException));
  EXPECT_TRUE(lines.all.empty());
  EXPECT_FALSE(guarded(logger, kOneLineGuard, site, [] { throw 5; }));
  EXPECT_EQ(lines.all.size(), 1U);
  setLevel(kit::lcl_vCritical);
  EXPECT_FALSE(guarded(logger, kBlockGuard, site, throwPlatformException));
  EXPECT_EQ(lines.all.size(), 1U);
}

TEST_F(GuardTest, WritesAnUngatedLineWithoutPrefixAtAnyLevel) {
  setLevel(kit::lcl_vOff);
  EXPECT_EQ(lineOf(kUngatedGuard, throwPlatformException),
            "! MRVK_QA-MorvikCore reGetReferral Failed Exception: nil object\n");
  EXPECT_EQ(lineOf(kUngatedGuard, [] { throw std::runtime_error("disk"); }),
            "! MRVK_QA-MorvikCore reGetReferral Failed: disk\n");
}

TEST_F(GuardTest, LetsAnInnerGuardTakeWhatItsBodyThrows) {
  const bool outer = guarded(logger, kUngatedGuard, site,
                             [this] { EXPECT_FALSE(guarded(logger, kOneLineGuard, site, throwPlatformException)); });
  EXPECT_TRUE(outer);
  EXPECT_EQ(lines.all.size(), 1U);
}

TEST_F(GuardTest, DestroysWhatTheBodyHeld) {
  const auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  EXPECT_FALSE(guarded(logger, kBlockGuard, site, [copy = held] {
    const auto inner = copy;
    throwPlatformException();
  }));
  EXPECT_EQ(watched.use_count(), 1);
}

TEST_F(GuardTest, LetsNothingOutEvenWhenTheLogItselfFails) {
  FailingLog failing;
  const Logger to_failing(levels, failing);
  EXPECT_FALSE(guarded(to_failing, kBlockGuard, site, throwPlatformException));
  EXPECT_FALSE(guarded(to_failing, kUngatedGuard, site, [] { throw 5; }));
  EXPECT_EQ(guarded(to_failing, kOneLineGuard, site, []() -> int { throw Odd{}; }), std::nullopt);
  EXPECT_EQ(failing.calls, 3);
}

TEST_F(GuardTest, NamesTheObjectBeingHandled) {
  try {
    throwPlatformException();
  } catch (...) {
    EXPECT_EQ(caughtText(), "nil object");
  }
  try {
    throw std::logic_error("broken");
  } catch (...) {
    EXPECT_EQ(caughtText(), "broken");
  }
}

}  // namespace
}  // namespace morvik::services
