#include "apps/service/expect/expect_program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <sstream>

#include "apps/service/base/files.h"
#include "apps/service/http/certificate.h"
#include "apps/service/http/http_server.h"
#include "apps/service/program.h"
#include "tests/apps/service/https_client.h"
#include "tests/apps/service/samples.h"

namespace morvik_service {
namespace {

using test::HttpsClient;
using test::kKeys;
using test::postTracking;
using test::TemporaryFolder;
using test::trackingPayload;

// A service runs while `meanwhile` does.
class ExpectProgramTest : public testing::Test {
 protected:
  void serve(const std::function<void()>& meanwhile) {
    std::ostringstream output;
    std::ostringstream errors;
    runProgram({"serve", "--store", folder_.path("store"), "--make-cert", tls_, "--app-key", kKeys.app_key,
                "--hash-key", kKeys.hash_key, "--tracking-key", kKeys.tracking_key, "--quiet"},
               {output, errors, [&] {
                  url_ = Json::parse(output.str())["listening"];
                  meanwhile();
                }});
  }
  void send(const std::vector<std::string>& event_ids) {
    HttpsClient client(url_, tls_ + "/ca.pem");
    EXPECT_EQ(200, client.post("v1/tracking", postTracking(trackingPayload(event_ids)).body).status);
  }
  int expect(std::vector<std::string> arguments) {
    output_.str("");
    errors_.str("");
    arguments.insert(arguments.begin(), "expect");
    arguments.insert(arguments.end(), {"--make-cert", tls_});
    return runProgram(arguments, {output_, errors_, [] { ADD_FAILURE() << "it serves"; }});
  }

  TemporaryFolder folder_;
  const std::string tls_ = folder_.path("tls");
  std::string url_;
  std::ostringstream output_;
  std::ostringstream errors_;
};

TEST_F(ExpectProgramTest, WhatHasArrivedIsMet) {
  serve([&] {
    send({"a", "b"});
    EXPECT_EQ(0, expect({"activity == 'view' and group == 'shop'", "--count", "2"}));
    EXPECT_EQ("met: 2 matched\n  request 1, event shop/view\n  request 1, event shop/view\n", output_.str());
  });
}

TEST_F(ExpectProgramTest, WhatArrivesLaterIsWaitedFor) {
  serve([&] {
    auto waiting = std::async(std::launch::async, [&] { return expect({"event_id == 'late'", "--within", "60s"}); });
    send({"early"});
    send({"late"});
    EXPECT_EQ(0, waiting.get());
    EXPECT_EQ("", errors_.str());
  });
}

TEST_F(ExpectProgramTest, WhatDoesNotArriveIsToldWithItsNearMisses) {
  serve([&] {
    send({"a"});
    EXPECT_EQ(1, expect({"activity == 'purchase' and group == 'shop'", "--within", "10ms"}));
    EXPECT_EQ(
        "not met within 10 ms: 0 of 1 matched, 1 looked at\n"
        "  close: request 1, event shop/view\n"
        "    activity is \"view\"; wanted activity == 'purchase'\n",
        errors_.str());
  });
}

TEST_F(ExpectProgramTest, NothingMayMatch) {
  serve([&] {
    send({"a"});
    EXPECT_EQ(0, expect({"refused", "--none", "--within", "1ms"}));
    EXPECT_EQ("met: nothing matched within 1 ms (1 looked at)\n", output_.str());
    EXPECT_EQ(1, expect({"group == 'shop'", "--none"}));
    EXPECT_EQ("not met: this matched, and nothing should have\n  request 1, event shop/view\n", errors_.str());
  });
}

TEST_F(ExpectProgramTest, WhatADeviceSentDoesNotSpeakToTheTerminal) {
  serve([&] {
    Json payload = trackingPayload({"a"});
    payload["activity_info"][0]["param"] = "\x1B[2J\xC2\x9B\nmet: 1 matched";
    HttpsClient client(url_, tls_ + "/ca.pem");
    EXPECT_EQ(200, client.post("v1/tracking", postTracking(payload).body).status);
    EXPECT_EQ(0, expect({"group == 'shop'"}));
    EXPECT_EQ("met: 1 matched\n  request 1, event shop/view (?[2J???met: 1 matched)\n", output_.str());
    EXPECT_EQ(1, expect({"group == 'shop'", "--none"}));
    EXPECT_EQ(errors_.str().find('\x1B'), std::string::npos);
    EXPECT_EQ(1, expect({"param == 'x'", "--within", "1ms"}));
    EXPECT_EQ(errors_.str().find('\x1B'), std::string::npos);
    EXPECT_EQ(errors_.str().find('\x9B'), std::string::npos);
    const std::string told = errors_.str();
    EXPECT_EQ(3, std::count(told.begin(), told.end(), '\n')) << told;
  });
}

TEST_F(ExpectProgramTest, WhatArrivedBeforeMayBeLeftOut) {
  serve([&] {
    send({"a"});
    EXPECT_EQ(1, expect({"group == 'shop'", "--from-now", "--within", "1ms"}));
    EXPECT_EQ(1, expect({"group == 'shop'", "--after", "1", "--within", "1ms"}));
    EXPECT_EQ(0, expect({"group == 'shop'", "--after", "0"}));
  });
}

TEST_F(ExpectProgramTest, ABadExpressionIsShownWithItsPlace) {
  serve([&] {
    EXPECT_EQ(2, expect({"activity = 'x'"}));
    EXPECT_EQ(
        "morvik-service: column 10: expected ==, found a single =\n"
        "  activity = 'x'\n"
        "           ^\n",
        errors_.str());
  });
}

TEST_F(ExpectProgramTest, ABadOptionIsSaidWithWhereHelpIs) {
  EXPECT_EQ(2, expect({"refused", "--withn", "5s"}));
  EXPECT_NE(std::string::npos, errors_.str().find("did you mean --within? See morvik-service expect --help\n"))
      << errors_.str();
}

TEST_F(ExpectProgramTest, AServiceThatIsNotThereIsSaid) {
  serve([] {});
  EXPECT_EQ(2, expect({"refused"}));
  EXPECT_EQ(0U, errors_.str().find("morvik-service: cannot ask the service at " + url_ + ": ")) << errors_.str();
}

TEST_F(ExpectProgramTest, AStrangerThatAnswersIsSaid) {
  const CertificateFiles files = makeCertificates(tls_);
  for (const char* answer : {"{}", R"({"requests":5})", R"({"requests":[7],"next_after":1})",
                             R"({"requests":[],"next_after":"x"})", R"({"requests":[{}],"next_after":1})"}) {
    Listener listener("127.0.0.1", 0);
    const std::string url = "https://localhost:" + std::to_string(listener.port());
    const HttpServer stranger(listener, {readSmallFile(files.certificate), readSmallFile(files.key)},
                              [answer](const HttpRequest&) {
                                return HttpReply{200, answer};
                              });
    EXPECT_EQ(2, expect({"refused", "--url", url})) << answer;
    EXPECT_EQ("morvik-service: what answers at " + url +
                  "/ is not a morvik-service of this version; name the right one with --url\n",
              errors_.str());
  }
}

}  // namespace
}  // namespace morvik_service
