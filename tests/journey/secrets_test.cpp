// A run with everything in it, searched for what must not be visible: the keys, anywhere; what the user does, in the
// log of a shipped app.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "services/json_writer.h"
#include "simulation/virtual_machine.h"
#include "testing/simulated_service.h"

namespace morvik {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kHashKey = "never-shown-hash-key";
constexpr const char* kTrackingKey = "never-shown-tracking-key";
/// Part of everything that the user does.
constexpr const char* kPlain = "plain-text-of-the-user";
constexpr double kDaySeconds = 86'400;

class Secrets : public ::testing::Test {
 protected:
  /// Sessions with events, clicks, a crash and demographics, and with what the kit warns of. The service first fails,
  /// then answers. Finally the wish to be forgotten, and an event that comes too late.
  void live(int log_level) {
    log_level_ = log_level;
    machine_.transport.on("").times(12, testing::Answer::body(500, "out of order")).alwaysBy(service_.reply());
    for (int day = 0; day < 4; ++day) {
      liveOneDay();
      machine_.kill(std::move(phone_));
    }
    phone_ = machine_.start(options());
    phone_->gdprForgetMe(true);
    phone_->addActivity(kPlain, kPlain, kPlain);
    machine_.loop.advance(60);
  }

  std::string stored() const {
    std::string all;
    for (const auto& [name, value] : machine_.store.contents()) {
      all += name + ": ";
      services::appendJsonDescription(value, all);
    }
    return all;
  }

  /// As it is on the wire.
  std::string sent() const {
    std::string all;
    for (const kit::Request& request : machine_.transport.requests()) {
      all += request.method + " " + request.url + "\n" + request.body + "\n";
      for (const kit::HttpHeader& header : request.headers)
        all += header.name + ": " + header.value + "\n";
    }
    return all;
  }

  /// The opened content of sent bodies, by the endpoint's name: a sealed body's content cannot be found in the text as
  /// sent.
  std::map<std::string, std::string> opened() {
    std::map<std::string, std::string> all;
    for (const kit::Request& request : machine_.transport.requests()) {
      const testing::ServedRequest served = service_.receive(request, testing::SimulatedService::Counting::kNo);
      EXPECT_EQ(served.refusal, std::nullopt) << request.url;
      if (!served.refusal)
        services::appendJsonDescription(served.payload, all[std::string(nameOf(*served.endpoint))]);
    }
    return all;
  }

  std::vector<std::string> lines_;
  simulation::VirtualMachine machine_;

 private:
  StartOptions options() {
    StartOptions options = simulation::simulatedApp();
    options.app_key = "shown-app-key";
    options.hash_key = kHashKey;
    options.tracking_key = kTrackingKey;
    options.log_level = log_level_;
    options.log_sink = [this](std::string_view line) { lines_.emplace_back(line); };
    return options;
  }

  void liveOneDay() {
    const std::string plain = kPlain;
    StartOptions woken = options();
    woken.opened_url = "app://open?first=" + plain;
    phone_ = machine_.start(woken);
    phone_->storeOpenedUrl("app://open?second=" + plain);
    phone_->applicationDidBecomeActive();
    machine_.loop.advance(5);
    phone_->addActivity(plain, plain, plain);
    phone_->addActivity(plain, plain, plain + '\xFF');
    phone_->setUserId(plain);
    phone_->passOpenURL("app://open?ck=7&sn=8&mrvk_eng=1&cid=" + plain);
    phone_->setReferralUrlForFacebook("app://open?ck=9&sub_referral=" + plain);
    phone_->reportUncaughtException({.reason = "fendo " + plain, .call_stack_symbols = {plain}, .moment = {}});
    machine_.loop.advance(90);
    phone_->applicationDidEnterBackground();
    machine_.loop.advance(kDaySeconds);
  }

  int log_level_ = 0;
  host::OpensslCipher cipher_;
  host::ZlibCompressor compressor_;
  testing::SeededRandom random_;
  testing::SimulatedService service_{{cipher_, compressor_, random_},
                                     {"shown-app-key", kHashKey, kTrackingKey},
                                     [this] { return machine_.loop.now(); }};
  std::unique_ptr<runtime::Instance> phone_;
};

TEST_F(Secrets, KeysAreNeitherStoredNorSent) {
  live(kit::lcl_vTrace);
  EXPECT_THAT(stored(), HasSubstr(kPlain)) << "a life in which something is stored";
  EXPECT_THAT(stored(), Not(HasSubstr("never-shown")));
  EXPECT_THAT(sent(), HasSubstr("v1/tracking")) << "a life in which something is sent";
  EXPECT_THAT(sent(), Not(HasSubstr("never-shown")));
  const std::map<std::string, std::string> opened = this->opened();
  for (const char* endpoint : {"tracking", "reengagement-conversion", "commerce-conversion", "thirdparty-conversion",
                               "crash", "demographics"}) {
    ASSERT_EQ(opened.count(endpoint), 1U) << endpoint;
    EXPECT_THAT(opened.at(endpoint), HasSubstr(kPlain)) << endpoint << ": a body that was really opened";
  }
  for (const auto& [endpoint, payloads] : opened)
    EXPECT_THAT(payloads, Not(HasSubstr("never-shown"))) << endpoint;
}

TEST_F(Secrets, TheHashKeyStandsInTheStartUpLineOfTheDebugLevelAloneAndTheTrackingKeyInNone) {
  live(kit::lcl_vTrace);
  size_t with_key = 0;
  for (const std::string& line : lines_) {
    EXPECT_THAT(line, Not(HasSubstr(kTrackingKey)));
    if (line.find(kHashKey) == std::string::npos)
      continue;
    ++with_key;
    EXPECT_THAT(line, HasSubstr("MRVK_QA-MorvikCore.framework Version : "));
    EXPECT_THAT(line, HasSubstr("DEBUG"));
  }
  EXPECT_EQ(with_key, 5U) << "one for each start";
}

TEST_F(Secrets, WhatTheUserDoesIsLoggedAtTheTwoLevelsOfDevelopersOnly) {
  live(kit::lcl_vInfo);
  EXPECT_THAT(lines_, Not(::testing::IsEmpty())) << "failures have been logged";
  EXPECT_THAT(lines_, Each(Not(HasSubstr(kPlain))));
  EXPECT_THAT(lines_, Each(Not(HasSubstr("never-shown"))));
}

TEST_F(Secrets, TheKitsOwnLinesSayAtNoLevelWhatTheUserDoes) {
  live(kit::lcl_vTrace);
  std::vector<std::string> of_the_host;
  std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(of_the_host),
               [](const std::string& line) { return line.find("Morvik host: ") != std::string::npos; });
  for (const char* warning : {"was never handled", "not UTF-8", "the user asked to be forgotten"})
    EXPECT_THAT(of_the_host, Contains(HasSubstr(warning)));
  EXPECT_THAT(of_the_host, Each(Not(HasSubstr(kPlain))));
}

TEST_F(Secrets, EventsAndClicksLeaveSealed) {
  live(kit::lcl_vOff);
  for (const char* path :
       {"v1/tracking", "v1/conversion", "v1/reengagement-conversion", "v1/thirdparty-conversion", "v1/demographics"}) {
    const auto requests = machine_.transport.requests(path);
    EXPECT_THAT(requests, Not(::testing::IsEmpty())) << path;
    for (const kit::Request& request : requests)
      EXPECT_THAT(request.body, Not(HasSubstr(kPlain))) << path;
  }
}

}  // namespace
}  // namespace morvik
