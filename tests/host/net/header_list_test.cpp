#include "host/net/header_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace morvik::host {
namespace {

using Texts = std::vector<std::string>;

Texts linesOf(const std::vector<kit::HttpHeader>& headers) {
  const HeaderList list = headerList({.method = "POST", .url = "https://a.example/", .headers = headers});
  Texts lines;
  for (const curl_slist* line = list.get(); line != nullptr; line = line->next)
    lines.push_back(line->data);
  return lines;
}

bool fits(const kit::HttpHeader& header) {
  return !unfitHead({.method = "POST", .url = "https://a.example/", .headers = {header}});
}

TEST(HeaderList, TakesCurlsOwnHeadersAway) {
  EXPECT_EQ(linesOf({}), (Texts{"Accept:", "Content-Type:", "Expect:"}));
}

TEST(HeaderList, KeepsTextAndOrderOfWhatIsGiven) {
  EXPECT_EQ(linesOf({{"accept", "text/x"}, {"B", "2"}, {"B", "3 "}, {"A", ""}}),
            (Texts{"accept: text/x", "B: 2", "B: 3 ", "A;", "Content-Type:", "Expect:"}));
}

TEST(UnfitHead, LetsOrdinaryHeadersPass) {
  EXPECT_TRUE(fits({"Accept-Encoding", "application/json"}));
  EXPECT_TRUE(fits({"X_1!", "caf\xC3\xA9; q=\"0.5\"\t"}));
  EXPECT_TRUE(fits({"Empty", ""}));
}

TEST(UnfitHead, StopsWhatIsNoHeader) {
  EXPECT_FALSE(fits({"", "x"}));
  EXPECT_FALSE(fits({"Two words", "x"}));
  EXPECT_FALSE(fits({"Name:", "x"}));
  EXPECT_FALSE(fits({"N\xC3\xA4me", "x"}));
  EXPECT_FALSE(fits({"Name", "x\r"}));
  EXPECT_FALSE(fits({"EXPECT", "100-continue"}));
}

}  // namespace
}  // namespace morvik::host
