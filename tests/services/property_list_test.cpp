#include "services/property_list.h"

#include <gtest/gtest.h>

#include <limits>

#include "kit/json_codec.h"

namespace morvik::services {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
constexpr std::string_view kEnd = "</plist>\n";

/// What stands between head and end; an error's message in its place.
std::string listOf(const Value& value) {
  std::string out;
  if (const auto error = appendPropertyList(value, out))
    return error->message;
  EXPECT_TRUE(out.starts_with(kHead) && out.ends_with(kEnd)) << out;
  return out.substr(kHead.size(), out.size() - kHead.size() - kEnd.size());
}

TEST(PropertyList, HasAnElementForEachKindOfValue) {
  EXPECT_EQ(listOf(Dictionary{{"yes", true},
                              {"no", false},
                              {"number", -5},
                              {"large", uint64_t{18446744073709551615U}},
                              {"double", 2.5},
                              {"text", "a"},
                              {"date", kit::Date::fromSeconds(0)},
                              {"list", Array{1, Array{}}},
                              {"map", Dictionary{}}}),
            "<dict><key>yes</key><true/><key>no</key><false/><key>number</key><integer>-5</integer>"
            "<key>large</key><integer>18446744073709551615</integer><key>double</key><real>2.5</real>"
            "<key>text</key><string>a</string><key>date</key><date>1970-01-01T00:00:00Z</date>"
            "<key>list</key><array><integer>1</integer><array></array></array><key>map</key><dict></dict></dict>");
}

TEST(PropertyList, EscapesMarkupAndMendsWhatIsNotUtf8) {
  EXPECT_EQ(listOf(Dictionary{{"<k>", "a & b\r\n\t\"c\" \xff"}}),
            "<dict><key>&lt;k&gt;</key><string>a &amp; b&#13;\n\t\"c\" \xEF\xBF\xBD</string></dict>");
}

TEST(PropertyList, SaysWhatHasNoForm) {
  EXPECT_EQ(listOf(Array{Value()}), "an absent value has no property list form: leave the entry out");
  EXPECT_EQ(listOf(Array{Value::null()}), "null has no property list form: leave the entry out");
  EXPECT_EQ(listOf(Array{std::numeric_limits<double>::infinity()}),
            "a number that is not finite has no property list form");
  EXPECT_EQ(listOf(Dictionary{{"k", "\x01"}}), "a control character has no property list form: leave it out");
  EXPECT_EQ(listOf(Dictionary{{"\x01", "v"}}), "a control character has no property list form: leave it out");
}

TEST(PropertyList, RefusesContainersNestedBeyondTheLimit) {
  Value nested(Array{});
  for (size_t depth = 1; depth < kit::kMaxJsonDepth; ++depth)
    nested = Array{nested};
  EXPECT_TRUE(listOf(nested).starts_with("<array>"));
  EXPECT_EQ(listOf(Array{nested}), "containers are nested too deeply");
}

}  // namespace
}  // namespace morvik::services
