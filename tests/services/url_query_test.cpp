#include "services/url_query.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "services/json_writer.h"

namespace morvik::services {
namespace {

using kit::Dictionary;
using kit::Value;

std::vector<std::string> keysOf(const Value& query) {
  std::vector<std::string> keys;
  for (const kit::Entry& entry : query.dictionary())
    keys.emplace_back(entry.key.string());
  return keys;
}

TEST(UrlQuery, IsAbsentWithoutAQuestionMarkAndEmptyWithNothingBehindIt) {
  for (const char* url : {"", "a", "app://x/y", "ck=1", "app://x#?ck=1"})
    EXPECT_TRUE(urlQuery(url).isAbsent()) << url;
  for (const char* url : {"?", "app://x?", "app://x?#ck=1", "?&", "?&&&", "?=", "?=a", "?&=a&"}) {
    EXPECT_TRUE(urlQuery(url).isDictionary()) << url;
    EXPECT_EQ(urlQuery(url).size(), 0U) << url;
  }
}

TEST(UrlQuery, KeepsTheOrderOfTheUrl) {
  EXPECT_EQ(keysOf(urlQuery("app://x?c=1&a=2&b=3")), (std::vector<std::string>{"c", "a", "b"}));
}

TEST(UrlQuery, TakesTheFirstOfARepeatedKeyWhateverItsSpelling) {
  EXPECT_EQ(urlQuery("?a=1&a=2&%61=3"), Value(Dictionary{{"a", "1"}}));
  EXPECT_EQ(urlQuery("?a=&a=2"), Value(Dictionary{{"a", ""}}));
  EXPECT_EQ(urlQuery("?%FF=1&%FE=2"), Value(Dictionary{{"\xEF\xBF\xBD", "1"}})) << "both repaired to one key";
}

TEST(UrlQuery, TellsAKeyThatIsPresentAndEmptyFromOneThatIsAbsent) {
  const Value query = urlQuery("?a=&b");
  EXPECT_EQ(query["a"], Value(""));
  EXPECT_EQ(query["b"], Value(""));
  EXPECT_TRUE(query["c"].isAbsent());
}

TEST(UrlQuery, SplitsAtTheFirstEqualsSignAndQuestionMarkOnly) {
  EXPECT_EQ(urlQuery("?a=b=c&d==&e?=f"), Value(Dictionary{{"a", "b=c"}, {"d", "="}, {"e?", "f"}}));
  EXPECT_EQ(urlQuery("?a=1;b=2"), Value(Dictionary{{"a", "1;b=2"}}));
}

TEST(UrlQuery, CutsTheFragment) {
  EXPECT_EQ(urlQuery("app://x?a=1#b=2?c=3&d=4"), Value(Dictionary{{"a", "1"}}));
  EXPECT_EQ(urlQuery("?a=%23b"), Value(Dictionary{{"a", "#b"}}));
}

TEST(UrlQuery, DecodesKeysAndValuesAfterSplitting) {
  EXPECT_EQ(urlQuery("?a%3Db=c%26d&e+f=+g%2B"), Value(Dictionary{{"a=b", "c&d"}, {"e f", " g+"}}));
  EXPECT_EQ(urlQuery("?k=%ED%95%9C"), Value(Dictionary{{"k", "\xED\x95\x9C"}}));
  EXPECT_EQ(urlQuery("?k=%&l=%4&m=%4g&n=%%41"), Value(Dictionary{{"k", "%"}, {"l", "%4"}, {"m", "%4g"}, {"n", "%A"}}));
}

TEST(UrlQuery, RepairsTextThatIsNotUtf8) {
  EXPECT_EQ(urlQuery("?a=\xFF%C3&b=%00"),
            Value(Dictionary{{"a", "\xEF\xBF\xBD\xEF\xBF\xBD"}, {"b", Value(std::string(1, '\0'))}}));
}

TEST(UrlQuery, OfAMegabyteHoldsEveryKey) {
  std::string url = "app://x?";
  size_t count = 0;
  while (url.size() < 1'000'000)
    url += "k" + std::to_string(count++) + "=v&";
  const Value query = urlQuery(url);
  EXPECT_EQ(query.size(), count);
  EXPECT_EQ(query["k" + std::to_string(count - 1)], Value("v"));
  std::string repeated = "?";
  for (int i = 0; i < 300'000; ++i)
    repeated += "a=&";
  EXPECT_EQ(urlQuery(repeated).size(), 1U);
}

TEST(UrlQuery, HoldsEachKeyOnceAndInUtf8WhateverTheBytes) {
  std::mt19937_64 random(5);
  for (int round = 0; round < 2'000; ++round) {
    std::string url(random() % 60, '\0');
    for (char& c : url)
      c = "?&=#%+aA1\xC3\xA4\xFF\x00"[random() % 13];
    const Value query = urlQuery(url);
    const std::string plain = url.substr(0, url.find('#'));
    ASSERT_EQ(query.isAbsent(), plain.find('?') == std::string::npos) << url;
    std::map<std::string, int> seen;
    for (const kit::Entry& entry : query.dictionary()) {
      ASSERT_TRUE(isUtf8(entry.key.string()) && isUtf8(entry.value.string())) << url;
      ASSERT_FALSE(entry.key.string().empty()) << url;
      ASSERT_EQ(++seen[std::string(entry.key.string())], 1) << url;
    }
  }
}

TEST(WithoutQuery, CutsQueryAndFragment) {
  EXPECT_EQ(withoutQuery("https://a/b?c#d"), "https://a/b");
  EXPECT_EQ(withoutQuery("https://a/b#d?c"), "https://a/b");
  EXPECT_EQ(withoutQuery("https://a/b"), "https://a/b");
}

}  // namespace
}  // namespace morvik::services
