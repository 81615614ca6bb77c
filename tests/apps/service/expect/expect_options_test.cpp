#include "apps/service/expect/expect_options.h"

#include <gtest/gtest.h>

#include "apps/service/base/files.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using std::chrono::milliseconds;
using test::TemporaryFolder;

ExpectOptions read(const std::vector<std::string>& arguments) {
  CLI::App app;
  const auto options = describeExpectOptions(app);
  EXPECT_EQ(std::nullopt, morvik_command_line::tryParse(app, arguments));
  return *options;
}

TEST(ExpectOptions, TimesAreReadWithTheirUnits) {
  EXPECT_EQ(milliseconds(250), parseWithin("250ms"));
  EXPECT_EQ(milliseconds(5000), parseWithin("5s"));
  EXPECT_EQ(milliseconds(1500), parseWithin("1.5"));
  EXPECT_EQ(milliseconds(120000), parseWithin("2m"));
  EXPECT_EQ(milliseconds(86400000), parseWithin("24h"));
  EXPECT_EQ(milliseconds(0), parseWithin("0s"));
  EXPECT_EQ(milliseconds(90000), parseWithin("1m 30s"));
  EXPECT_EQ(milliseconds(86400000), parseWithin("1d"));
  for (const char* text : {"", "s", "5 s", "-1s", "24.1h", "24h 1ms", "5d", "0.5ms", "nan", "inf", "1e300h", "5s5"})
    EXPECT_EQ(std::nullopt, parseWithin(text)) << text;
}

TEST(ExpectOptions, TheFolderOfTheCertificatesTellsWhereTheServiceIs) {
  const TemporaryFolder folder;
  replaceFile(folder.path("url"), "https://127.0.0.1:7/\n", kPublicMode);
  const ExpectOptions options = read({"refused", "--make-cert", folder.path()});
  EXPECT_EQ("refused", options.expression);
  EXPECT_EQ("https://127.0.0.1:7/", options.url);
  EXPECT_EQ(folder.path("ca.pem"), options.authority_file);
  EXPECT_EQ(milliseconds(5000), options.within);
  EXPECT_EQ(1, options.count);
}

TEST(ExpectOptions, WhatIsGivenByItselfWins) {
  const TemporaryFolder folder;
  replaceFile(folder.path("port"), "8443\n", kPublicMode);
  EXPECT_EQ("https://127.0.0.1:8443/", read({"refused", "--port-file", folder.path("port"), "--ca", "x"}).url);
  const ExpectOptions options = read({"refused", "--url", "https://localhost:1", "--ca", "x", "--make-cert", "/nowhere",
                                      "--within", "1m", "--count", "3", "--after", "7"});
  EXPECT_EQ("https://localhost:1/", options.url);
  EXPECT_EQ("x", options.authority_file);
  EXPECT_EQ(milliseconds(60000), options.within);
  EXPECT_EQ(3, options.count);
  EXPECT_EQ(7, options.after);
}

TEST(ExpectOptions, WhatCannotBeUsedIsSaid) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "EXPRESSION is required"},
      {{"refused"}, "say where the service listens: --make-cert FOLDER, --url URL or --port-file FILE"},
      {{"refused", "--url", "https://localhost:1/"}, "say whom to trust: --make-cert FOLDER or --ca FILE"},
      {{"refused", "--make-cert", "/nowhere"}, "cannot open /nowhere/url: No such file or directory"},
      {{"refused", "--within", "soon"}, "--within soon is not a time up to 24h; write 250ms, 5s or 2m"},
      {{"refused", "--count", "0"}, "--count: Value 0 not in range 1 to 1000000"},
      {{"refused", "--none", "--count", "2"}, "--count excludes --none"},
      {{"refused", "--after", "1", "--from-now"}, "--from-now excludes --after"}};
  for (const auto& [arguments, problem] : cases) {
    CLI::App app;
    describeExpectOptions(app);
    EXPECT_EQ(problem, morvik_command_line::tryParse(app, arguments));
  }
}

}  // namespace
}  // namespace morvik_service
