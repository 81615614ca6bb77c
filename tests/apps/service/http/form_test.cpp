#include "apps/service/http/form.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

TEST(Form, ReadsFieldsInOrder) {
  const FormFields expected = {{"k", "app 1"}, {"j", "a=b&c+%"}, {"", "x"}, {"empty", ""}};
  EXPECT_EQ(expected, parseForm("k=app+1&j=a%3Db%26c%2B%25&=x&empty="));
}

TEST(Form, AnEmptyBodyHasNoFields) {
  EXPECT_TRUE(parseForm("").empty());
}

TEST(Form, FindsAFieldByItsName) {
  const FormFields fields = parseForm("k=1&j=2");
  ASSERT_NE(nullptr, findField(fields, "j"));
  EXPECT_EQ("2", *findField(fields, "j"));
  EXPECT_EQ(nullptr, findField(fields, "J"));
}

TEST(Form, RefusesABrokenEscape) {
  for (const char* body : {"k=%", "k=%4", "k=%4x", "k=%x4"}) {
    const Refusal refusal = refusalOf([&] { parseForm(body); });
    EXPECT_EQ(400, refusal.status());
    EXPECT_STREQ("bad form encoding: a percent sign without two hexadecimal digits", refusal.what()) << body;
  }
}

TEST(Form, RefusesAFieldWithoutAValue) {
  EXPECT_STREQ("bad form encoding: a field without \"=\"", refusalOf([] { parseForm("k=1&j"); }).what());
}

TEST(Form, RefusesAFieldGivenTwice) {
  EXPECT_STREQ("a form field is given twice", refusalOf([] { parseForm("k=1&k=1"); }).what());
}

TEST(Form, RefusesMoreFieldsThanItsLimit) {
  std::string body;
  for (std::size_t i = 0; i < kMaxFormFields; ++i)
    body += (i == 0 ? "f" : "&f") + std::to_string(i) + "=";
  EXPECT_EQ(kMaxFormFields, parseForm(body).size());
  EXPECT_STREQ("more than 64 form fields", refusalOf([&] { parseForm(body + "&one=more"); }).what());
}

}  // namespace
}  // namespace morvik_service
