#include "services/format.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace morvik::services {
namespace {

using kit::Value;

TEST(Format, FillsEachConversion) {
  EXPECT_EQ(format("%@", {"text"}), "text");
  EXPECT_EQ(format("%s", {"text"}), "text");
  EXPECT_EQ(format("%d", {-7}), "-7");
  EXPECT_EQ(format("%ld", {int64_t{-9'000'000'000}}), "-9000000000");
  EXPECT_EQ(format("%lld", {std::numeric_limits<int64_t>::min()}), "-9223372036854775808");
  EXPECT_EQ(format("%lu", {size_t{12}}), "12");
  EXPECT_EQ(format("%lu", {std::numeric_limits<uint64_t>::max()}), "18446744073709551615");
  EXPECT_EQ(format("100%%", {}), "100%");
}

TEST(Format, KeepsTheLow32BitsForANarrowNumber) {
  EXPECT_EQ(format("%d", {int64_t{4'294'967'303}}), "7");
  EXPECT_EQ(format("%d", {int64_t{2'147'483'648}}), "-2147483648");
}

TEST(Format, FillsInOrderAndKeepsTheTextAround) {
  EXPECT_EQ(format("a %@ b %d c %ld\n%@", {"1", 2, 3, "4"}), "a 1 b 2 c 3\n4");
  EXPECT_EQ(format("%@%@%@", {"a", "", "c"}), "ac");
  EXPECT_EQ(format("", {}), "");
  EXPECT_EQ(format("nothing to fill\n", {}), "nothing to fill\n");
}

TEST(Format, DoesNotLookIntoWhatItFilledIn) {
  EXPECT_EQ(format("%@ %@", {"%@ %d %%", "b"}), "%@ %d %% b");
}

TEST(Format, LeavesAConversionWithoutArgumentAsItStands) {
  EXPECT_EQ(format("%@ %ld %d", {"a"}), "a %ld %d");
  EXPECT_EQ(format("%@", {}), "%@");
}

TEST(Format, IgnoresASurplusArgument) {
  EXPECT_EQ(format("%@", {"a", "b", 3}), "a");
}

TEST(Format, LeavesWhatIsNoConversionOfItsOwnAlone) {
  EXPECT_EQ(format("%x %f %", {1, 2}), "%x %f %");
  EXPECT_EQ(format("%l %ll %L@ %@", {1}), "%l %ll %L@ 1");
  EXPECT_EQ(format("%%@ %@", {1}), "%@ 1");
}

TEST(Format, TakesArgumentsOfEveryKind) {
  const std::string text = "string";
  EXPECT_EQ(format("%@", {text}), "string");
  EXPECT_EQ(format("%@", {std::string_view("view")}), "view");
  const std::vector<std::optional<std::string>> optional_texts = {"there", std::nullopt};
  EXPECT_EQ(format("%@ %@", {optional_texts[0], optional_texts[1]}), "there (null)");
  const char* const nothing = nullptr;
  EXPECT_EQ(format("%s", {nothing}), "(null)");
  EXPECT_EQ(format("%@ %d", {true, false}), "1 0");
  EXPECT_EQ(format("%@", {2.5}), "2.5");
  EXPECT_EQ(format("%@", {Value()}), "(null)");
  EXPECT_EQ(format("%@", {Value::null()}), "<null>");
  EXPECT_EQ(format("%@", {Value(kit::Array{1, 2})}), "[1,2]");
  EXPECT_EQ(format("%@", {kit::Date::fromSeconds(0)}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(format("%@", {kit::Error{"no route"}}), "no route");
  EXPECT_EQ(format("%@", {kit::Exception{"Name", "the reason", {}}}), "the reason");
  EXPECT_EQ(format("%@", {kit::Response{200, "https://a.example/", ""}}), "200 https://a.example/");
}

TEST(Format, ReadsATextAsTheNumberZero) {
  EXPECT_EQ(format("%ld %d", {"12", std::string("13")}), "0 0");
}

TEST(Format, KeepsBytesThatAreNoText) {
  EXPECT_EQ(format("%@", {std::string_view("a\0b\xFF", 4)}), std::string("a\0b\xFF", 4));
}

}  // namespace
}  // namespace morvik::services
