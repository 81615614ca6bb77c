#include "apps/service/inspect/inspect_query.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::refusalOf;

HttpRequest asking(const NamedValues& query) {
  HttpRequest request = test::inspection("GET", "/inspect/summaries");
  request.query = query;
  return request;
}

TEST(InspectQuery, WithoutParametersTheNewestAreWanted) {
  const SummaryQuery query = readSummaryQuery(asking({}));
  EXPECT_EQ(INT64_MAX, query.before);
  EXPECT_EQ(50, query.limit);
  EXPECT_EQ("", query.search + query.install + query.endpoint);
  EXPECT_FALSE(query.refused_only);
}

TEST(InspectQuery, EveryParameterIsRead) {
  const SummaryQuery query = readSummaryQuery(asking({{"before", "9"},
                                                      {"limit", "7"},
                                                      {"search", "a b"},
                                                      {"install", "i"},
                                                      {"endpoint", "tracking"},
                                                      {"refused", "1"}}));
  EXPECT_EQ(9, query.before);
  EXPECT_EQ(7, query.limit);
  EXPECT_EQ("a b", query.search);
  EXPECT_EQ("i", query.install);
  EXPECT_EQ("tracking", query.endpoint);
  EXPECT_TRUE(query.refused_only);
}

TEST(InspectQuery, LimitsHold) {
  EXPECT_EQ(kMaxSummaries, readSummaryQuery(asking({{"limit", "1000000"}})).limit);
  EXPECT_EQ(kMaxSearchBytes, readSummaryQuery(asking({{"search", std::string(kMaxSearchBytes, 'x')}})).search.size());
  EXPECT_STREQ("the search text is longer than 200 bytes",
               refusalOf([] {
                 readSummaryQuery(asking({{"search", std::string(kMaxSearchBytes + 1, 'x')}}));
               }).what());
}

TEST(InspectQuery, ABadParameterIsNamed) {
  const Refusal unknown = refusalOf([] { readSummaryQuery(asking({{"since", "1"}})); });
  EXPECT_STREQ("the query parameter \"since\" is not known", unknown.what());
  EXPECT_EQ("use before, limit, search, install, endpoint and refused", unknown.fix());
  EXPECT_STREQ("the query parameter \"limit\" stands twice",
               refusalOf([] {
                 readSummaryQuery(asking({{"limit", "1"}, {"limit", "2"}}));
               }).what());
  EXPECT_STREQ("\"before\" is not a whole number of 0 or more", refusalOf([] {
                                                                  readSummaryQuery(asking({{"before", "-1"}}));
                                                                }).what());
}

}  // namespace
}  // namespace morvik_service
