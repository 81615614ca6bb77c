#include "apps/service/program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <sstream>
#include <thread>

#include "apps/service/base/files.h"
#include "apps/service/base/json.h"
#include "morvik/version.h"
#include "tests/apps/service/https_client.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::Answer;
using test::conversionPayload;
using test::crashReport;
using test::HttpsClient;
using test::kKeys;
using test::postConversion;
using test::postTracking;
using test::TemporaryFolder;
using test::trackingPayload;

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    replaceFile(folder_.path("keys"),
                "app-key=" + kKeys.app_key + "\nhash-key=" + kKeys.hash_key + "\ntracking-key=" + kKeys.tracking_key,
                kPrivateMode);
  }

  std::vector<std::string> usualArguments() const {
    return {"--store", folder_.path("store"), "--make-cert", folder_.path("tls"), "--keys", folder_.path("keys")};
  }

  // Runs the program with more arguments; `meanwhile` gets the service's address, and the program ends when it returns.
  int run(const std::vector<std::string>& more, const std::function<void(const std::string& url)>& meanwhile) {
    std::vector<std::string> arguments = usualArguments();
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runProgram(arguments, {output_, errors_, [&] {
                                    const std::string url = Json::parse(output_.str())["listening"];
                                    meanwhile(url.substr(0, url.size() - 1));
                                  }});
  }
  std::string complaint(const std::vector<std::string>& arguments) {
    EXPECT_EQ(2, runProgram(arguments, {output_, errors_, [] { ADD_FAILURE() << "it serves"; }}));
    return errors_.str();
  }
  std::string authority() const { return folder_.path("tls/ca.pem"); }

  TemporaryFolder folder_;
  std::ostringstream output_;
  std::ostringstream errors_;
};

TEST_F(ProgramTest, ADeviceIsServedOverTlsFromStartToEnd) {
  const int status = run({"--port-file", folder_.path("port")}, [&](const std::string& url) {
    EXPECT_EQ(url, "https://127.0.0.1:" + std::to_string(std::stoi(readSmallFile(folder_.path("port")))));
    HttpsClient client(url, authority());
    const Answer told = client.post("/v1/conversion", postConversion(conversionPayload()).body);
    EXPECT_EQ(200, told.status);
    EXPECT_EQ(1001, Json::parse(told.body)["Data"]["referralKey"]);
    EXPECT_EQ(200, client.post("/v1/tracking", postTracking(trackingPayload({"a", "b"})).body).status);
    const Json events = Json::parse(client.get("/inspect/events?limit=1").body);
    EXPECT_EQ(2, events["distinct"]);
    EXPECT_EQ(1U, events["events"].size());
    EXPECT_EQ("a", events["events"][0]["event_id"]);
  });
  EXPECT_EQ(0, status);
  const std::string lines = errors_.str();
  EXPECT_EQ(2, std::count(lines.begin(), lines.end(), '\n')) << lines;
  EXPECT_NE(std::string::npos, lines.find(" -> 200; 2 new events, 0 seen before, 0 impressions\n"));
}

TEST_F(ProgramTest, EveryMisbehaviourReachesTheWire) {
  run({"--quiet"}, [&](const std::string& url) {
    const std::string batch = postTracking(trackingPayload({"a"})).body;
    const auto send = [&](const std::string& kind) {
      HttpsClient client(url, authority());
      EXPECT_EQ(200, client
                         .post("/inspect/behaviour", R"({"endpoint":"tracking","kind":)" + kind + "}",
                               {"Content-Type: application/json"})
                         .status);
      // A separate connection: a client may silently repeat a request on a persistent one that was closed.
      return HttpsClient(url, authority()).post("/v1/tracking", batch);
    };
    EXPECT_EQ(503, send(R"("status","status":503)").status);
    EXPECT_EQ(200, send(R"("delay","milliseconds":1)").status);
    EXPECT_NE(CURLE_OK, send(R"("close_before")").result);
    EXPECT_NE(CURLE_OK, send(R"("close_after")").result);
    EXPECT_FALSE(Json::accept(send(R"("garbage")").body));
    EXPECT_FALSE(Json::accept(send(R"("truncated_json")").body));
    EXPECT_TRUE(Json::parse(send(R"("not_object")").body).is_array());
    EXPECT_GT(send(R"("huge_body")").body.size(), std::size_t{4} * 1024 * 1024);
    EXPECT_EQ("null", send(R"("json","json":null)").body);
    HttpsClient client(url, authority());
    EXPECT_EQ(7, Json::parse(client.get("/inspect/events").body)["arrivals"]);
    EXPECT_EQ(9U, Json::parse(client.get("/inspect/requests").body)["requests"].size());
    EXPECT_EQ("{\"behaviours\":[]}", client.remove("/inspect/behaviour").body);
  });
  EXPECT_EQ("", errors_.str());
}

TEST_F(ProgramTest, ABodyBeyondTheLimitIsAnswered) {
  run({"--quiet"}, [&](const std::string& url) {
    const Answer answer = HttpsClient(url, authority()).post("/v1/tracking", std::string(kMaxBodyBytes + 1, 'x'));
    EXPECT_EQ(413, answer.status);
    EXPECT_EQ("the body is larger than 16777216 bytes", Json::parse(answer.body)["error"]);
  });
}

TEST_F(ProgramTest, WhatWasStoredIsThereAfterARestart) {
  const std::string batch = postTracking(trackingPayload({"a"})).body;
  for (int arrivals = 1; arrivals <= 2; ++arrivals) {
    output_.str("");
    run({"--quiet"}, [&](const std::string& url) {
      HttpsClient client(url, authority());
      EXPECT_EQ(200, client.post("/v1/tracking", batch).status);
      EXPECT_EQ(arrivals, Json::parse(client.get("/inspect/events").body)["arrivals"]);
    });
  }
}

TEST_F(ProgramTest, AttributionIsGivenAsJsonOrAsAFile) {
  replaceFile(folder_.path("attribution"), "{\"deeplink\":\"my://file\"}", kPublicMode);
  const std::vector<std::pair<std::string, std::string>> both = {{"{\"deeplink\":\"my://json\"}", "my://json"},
                                                                 {folder_.path("attribution"), "my://file"}};
  for (const auto& [option, deeplink] : both) {
    output_.str("");
    run({"--quiet", "--attribution", option}, [&, link = deeplink](const std::string& url) {
      const Answer told =
          HttpsClient(url, authority()).post("/v1/conversion", postConversion(conversionPayload()).body);
      EXPECT_EQ(link, Json::parse(told.body)["Data"]["deeplink"]);
    });
  }
}

TEST_F(ProgramTest, PremiumPostbacksAreSwitchedByAnOption) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> both = {
      {{"--quiet"}, "false"}, {{"--quiet", "--premium-postback", "yes"}, "true"}};
  for (const auto& [more, expected] : both) {
    output_.str("");
    run(more, [&, text = expected](const std::string& url) {
      const Answer told = HttpsClient(url, authority()).get("/app-1/config.json");
      EXPECT_EQ(text, Json::parse(told.body)["commerce"]["premium_postback"]);
    });
  }
}

TEST_F(ProgramTest, AScheduleFileMayChangeWhileTheServiceRuns) {
  const std::string file = folder_.path("schedule");
  replaceFile(file, R"({"plan":1})", kPublicMode);
  run({"--quiet", "--schedule", file}, [&](const std::string& url) {
    HttpsClient client(url, authority());
    const auto ask = [&](const std::string& check_sum) {
      return Json::parse(client.post("/v2/schedule", "k=app-1&language=ko&checksum=" + check_sum).body);
    };
    const Json first = ask("init");
    EXPECT_EQ(1, first["Data"]["plan"]);
    EXPECT_EQ(1001, ask(first["Data"]["CheckSum"])["ResultCode"]);
    replaceFile(file, R"({"plan":2})", kPublicMode);
    EXPECT_EQ(2, ask(first["Data"]["CheckSum"])["Data"]["plan"]);
  });
}

TEST_F(ProgramTest, ManyCrashReportsFitIntoOneBody) {
  const std::string report = jsonText(crashReport(std::string(10000, 'x')));
  std::string reports = "[" + report;
  for (int i = 1; i < 1000; ++i)
    reports += "," + report;
  run({}, [&](const std::string& url) {
    const Answer answer =
        HttpsClient(url, authority()).post("/v1/crash", reports + "]", {"Content-Type: application/json"});
    EXPECT_EQ(200, answer.status);
    EXPECT_EQ(R"({"code":0})", answer.body);
  });
  EXPECT_NE(std::string::npos,
            errors_.str().find(" POST /v1/crash " + std::to_string(reports.size() + 1) + " bytes -> 200"));
}

TEST_F(ProgramTest, TheLinesMayGoToAFile) {
  run({"--log", folder_.path("log")}, [&](const std::string& url) { HttpsClient(url, authority()).get("/nothing"); });
  EXPECT_EQ("", errors_.str());
  EXPECT_NE(std::string::npos, readSmallFile(folder_.path("log")).find("GET /nothing 0 bytes -> 404; refused: "));
}

TEST_F(ProgramTest, WhatCannotBeUsedIsSaidInOneLine) {
  struct Case {
    std::vector<std::string> more;
    std::string complaint;
  };
  const std::vector<Case> cases = {
      {{"--bind", "0.0.0.0"},
       "morvik-service: --bind 0.0.0.0 can be reached from other machines; add --allow-remote if that is meant, or "
       "bind 127.0.0.1\n"},
      {{"--bind", "here"},
       "morvik-service: --bind here is not a numeric address; give 127.0.0.1, ::1 or another address of this machine\n"},
      {{"--attribution", "{"},
       "morvik-service: --attribution: not JSON: byte 2 cannot be read; send one JSON document in UTF-8\n"},
      {{"--attribution", "/nowhere/at/all"},
       "morvik-service: cannot open /nowhere/at/all: No such file or directory\n"},
      {{"--schedule", "/nowhere/at/all"}, "morvik-service: cannot open /nowhere/at/all: No such file or directory\n"},
      {{"--log", "/nowhere/at/all"},
       "morvik-service: cannot append to /nowhere/at/all; choose another file with --log\n"},
  };
  for (const Case& each : cases) {
    errors_.str("");
    std::vector<std::string> arguments = usualArguments();
    arguments.insert(arguments.end(), each.more.begin(), each.more.end());
    EXPECT_EQ(each.complaint, complaint(arguments));
  }
  EXPECT_EQ("", output_.str());
}

TEST_F(ProgramTest, KeysAreNeeded) {
  EXPECT_EQ("morvik-service: the app key and the hash key are needed: give --keys FILE, or --app-key and --hash-key\n",
            complaint({"--store", folder_.path("store"), "--make-cert", folder_.path("tls"), "--app-key", "a"}));
}

TEST_F(ProgramTest, ASecondStartKeepsTheAuthorityThatClientsTrust) {
  run({"--quiet"}, [](const std::string&) {});
  const std::string authority_text = readSmallFile(authority());
  output_.str("");
  run({"--quiet"}, [](const std::string&) {});
  EXPECT_EQ(authority_text, readSmallFile(authority()));
  EXPECT_EQ("", errors_.str());
  replaceFile(authority(), "garbage", kPublicMode);
  output_.str("");
  run({"--quiet"}, [](const std::string&) {});
  EXPECT_EQ("morvik-service: " + authority() +
                " holds no certificate, so there is a new authority; give this file to the clients again\n",
            errors_.str());
}

TEST_F(ProgramTest, CertificatesMayBeGiven) {
  run({"--quiet"}, [](const std::string&) {});
  output_.str("");
  const int status = runProgram({"--store", folder_.path("store"), "--cert", folder_.path("tls/cert.pem"), "--key",
                                 folder_.path("tls/key.pem"), "--keys", folder_.path("keys"), "--quiet"},
                                {output_, errors_, [&] {
                                   const std::string url = Json::parse(output_.str())["listening"];
                                   EXPECT_EQ(404, HttpsClient(url, authority()).get("nothing").status);
                                 }});
  EXPECT_EQ(0, status);
}

TEST_F(ProgramTest, EachSubcommandShowsItsOwnHelpOnly) {
  const auto help = [&](const std::vector<std::string>& arguments) {
    output_.str("");
    EXPECT_EQ(0, runProgram(arguments, {output_, errors_, [] { ADD_FAILURE() << "it serves"; }}));
    return output_.str();
  };
  const std::string all = help({"--help"});
  for (const char* name : {"\n  serve ", "\n  expect ", "\n  completion "})
    EXPECT_NE(std::string::npos, all.find(name)) << all;
  EXPECT_EQ(std::string::npos, all.find("--port"));
  const std::string serve = help({"serve", "--help"});
  for (const char* option : {"--port", "--bind", "--allow-remote", "--cert", "--key", "--make-cert", "--store",
                             "--app-key", "--hash-key", "--tracking-key", "--keys", "--port-file", "--log", "--quiet",
                             "--attribution", "--premium-postback", "--schedule"})
    EXPECT_NE(std::string::npos, serve.find(option)) << option;
  EXPECT_EQ(std::string::npos, serve.find("--within"));
  const std::string expect = help({"expect", "--help"});
  EXPECT_NE(std::string::npos, expect.find("--within"));
  EXPECT_EQ(std::string::npos, expect.find("--keep-mib"));
  EXPECT_EQ("morvik-service " + std::string(morvik::kVersion) + "\n", help({"--version"}));
  EXPECT_EQ("", errors_.str());
}

TEST_F(ProgramTest, ServeMayBeNamedOrLeftOut) {
  bool was_served = false;
  std::vector<std::string> arguments = usualArguments();
  arguments.insert(arguments.begin(), "serve");
  EXPECT_EQ(0, runProgram(arguments, {output_, errors_, [&] { was_served = true; }}));
  EXPECT_TRUE(was_served);
  EXPECT_EQ("morvik-service: --store is required; see morvik-service serve --help\n",
            complaint({"--make-cert", "tls"}));
  errors_.str("");
  EXPECT_EQ("morvik-service: there is no subcommand \"expct\"; did you mean expect? See morvik-service --help\n",
            complaint({"expct", "refused"}));
}

}  // namespace
}  // namespace morvik_service
