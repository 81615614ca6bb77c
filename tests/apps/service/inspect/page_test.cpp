#include "apps/service/inspect/page.h"

#include <gtest/gtest.h>

#include "tests/apps/service/samples.h"
#include "tests/support/paths.h"
#include "tests/support/scratch_folder.h"

namespace morvik_service {
namespace {

using test::inspection;
using test::refusalOf;

std::string header(const HttpReply& reply, const std::string& wanted) {
  for (const auto& [name, value] : reply.headers) {
    if (name == wanted)
      return value;
  }
  return "";
}

TEST(Page, ClaimsTheRootAndItsOwnFolder) {
  for (const char* path : {"/", "/page/", "/page/main.js"})
    EXPECT_TRUE(isPage(inspection("GET", path))) << path;
  for (const char* path : {"/page", "/v1/tracking", "/inspect/requests", "/app/config.json"})
    EXPECT_FALSE(isPage(inspection("GET", path))) << path;
}

TEST(Page, IsServedFromInsideTheProgramByteForByte) {
  ASSERT_GE(pageFiles().size(), 3U);
  for (const PageFile& file : pageFiles()) {
    const std::string source =
        morvik::test::bytesOf(morvik::test::sourceDir() + "/apps/service/page/" + std::string(file.name));
    EXPECT_FALSE(source.empty()) << file.name;
    // Comparing first avoids printing whole files.
    EXPECT_TRUE(source == page(inspection("GET", "/page/" + std::string(file.name))).body) << file.name;
  }
  EXPECT_EQ(page(inspection("GET", "/page/index.html")).body, page(inspection("GET", "/")).body);
}

TEST(Page, SaysItsTypesAndAllowsNothingFromElsewhere) {
  const HttpReply root = page(inspection("GET", "/"));
  EXPECT_EQ("text/html; charset=utf-8", root.content_type);
  const std::string policy = header(root, "Content-Security-Policy");
  EXPECT_EQ(0U, policy.find("default-src 'none'; script-src 'self'; style-src 'self'; "));
  EXPECT_EQ(std::string::npos, policy.find("unsafe"));
  EXPECT_EQ("text/css; charset=utf-8", page(inspection("GET", "/page/style.css")).content_type);
  EXPECT_EQ("text/javascript; charset=utf-8", page(inspection("GET", "/page/main.js")).content_type);
  EXPECT_EQ("image/svg+xml; charset=utf-8", page(inspection("GET", "/page/icon.svg")).content_type);
}

TEST(Page, NamesNoPlaceElsewhereAndWritesNoMarkup) {
  for (const PageFile& file : pageFiles()) {
    for (const char* forbidden : {"https://", "//cdn", "innerHTML", "outerHTML", "insertAdjacentHTML", "document.write",
                                  "eval(", " style=\"", " onclick=\""}) {
      EXPECT_EQ(std::string_view::npos, file.content.find(forbidden)) << file.name << " holds " << forbidden;
    }
  }
}

TEST(Page, WhatIsNotThereIsSaid) {
  EXPECT_EQ(404, refusalOf([] { page(inspection("GET", "/page/nothing.js")); }).status());
  EXPECT_EQ(405, refusalOf([] { page(inspection("POST", "/")); }).status());
}

}  // namespace
}  // namespace morvik_service
