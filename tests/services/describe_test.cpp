#include "services/describe.h"

#include <gtest/gtest.h>

#include <limits>

namespace morvik::services {
namespace {

using kit::Array;
using kit::Date;
using kit::Dictionary;
using kit::Value;

TEST(Describe, GivesEachKindOfValueItsText) {
  EXPECT_EQ(describe(Value()), "(null)");
  EXPECT_EQ(describe(Value::null()), "<null>");
  EXPECT_EQ(describe(Value(true)), "1");
  EXPECT_EQ(describe(Value(false)), "0");
  EXPECT_EQ(describe(Value(-42)), "-42");
  EXPECT_EQ(describe(Value(std::numeric_limits<uint64_t>::max())), "18446744073709551615");
  EXPECT_EQ(describe(Value(2.5)), "2.5");
  EXPECT_EQ(describe(Value("bare \"text\"\n")), "bare \"text\"\n");
  EXPECT_EQ(describe(Value(Date::fromSeconds(0))), "1970-01-01T00:00:00Z");
  EXPECT_EQ(describe(Value(Array())), "[]");
  EXPECT_EQ(describe(Value(Array{1, "a", Value::null(), true})), R"([1,"a",null,true])");
  EXPECT_EQ(describe(Value(Dictionary())), "{}");
  EXPECT_EQ(describe(Value(Dictionary{{"when", Date::fromSeconds(1'700'000'000)}, {"n", 1.5}})),
            R"({"when":"2023-11-14T22:13:20Z","n":1.5})");
}

TEST(Describe, WritesADoubleInDecimalFormWhereItCan) {
  EXPECT_EQ(numberText(100000.0), "100000");
  EXPECT_EQ(numberText(1e20), "100000000000000000000");
  EXPECT_EQ(numberText(-123456789012.5), "-123456789012.5");
  EXPECT_EQ(numberText(0.000001), "0.000001");
  EXPECT_EQ(numberText(0.1), "0.1");
  EXPECT_EQ(numberText(0.0), "0");
  EXPECT_EQ(numberText(1e21), "1e+21");
  EXPECT_EQ(numberText(9.5e-7), "9.5e-07");
  EXPECT_EQ(numberText(-std::numeric_limits<double>::max()), "-1.7976931348623157e+308");
  EXPECT_EQ(numberText(std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(numberText(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(numberText(-std::numeric_limits<double>::infinity()), "-inf");
}

TEST(Describe, GivesARequestItsMethodAndUrl) {
  kit::Request request;
  request.method = "POST";
  request.url = "https://a.example/v1";
  request.body = "secret";
  EXPECT_EQ(describe(request), "POST https://a.example/v1");
}

TEST(Describe, GivesAResponseItsStatusAndUrl) {
  EXPECT_EQ(describe(kit::Response{404, "https://a.example/v1", "body"}), "404 https://a.example/v1");
  EXPECT_EQ(describe(std::optional<kit::Response>(kit::Response{204, "https://a.example/", ""})),
            "204 https://a.example/");
  EXPECT_EQ(describe(std::optional<kit::Response>()), "(null)");
}

TEST(Describe, GivesAUrlItsTextWhateverItsBytes) {
  EXPECT_EQ(describe(kit::Url("app://x?a=%41#b")), "app://x?a=%41#b");
  EXPECT_EQ(describe(kit::Url("")), "");
  EXPECT_EQ(describe(kit::Url("\xFF\n")), "\xFF\n");
}

TEST(Describe, GivesAnErrorItsMessageAndAnExceptionItsReason) {
  EXPECT_EQ(describe(kit::Error{"The disk is full."}), "The disk is full.");
  EXPECT_EQ(describe(kit::Exception{"NSInvalidArgumentException", "nil object", Value("info")}), "nil object");
}

}  // namespace
}  // namespace morvik::services
