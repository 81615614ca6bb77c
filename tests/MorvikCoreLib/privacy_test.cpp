// The wish to be forgotten: recorded, sent, answered, taken back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/describe.h"
#include "testing/json_reader.h"
#include "testing/ports_with.h"
#include "testing/sealed_payload.h"
#include "tests/MorvikCoreLib/odd_values.h"
#include "tests/MorvikCoreLib/records.h"

namespace morvik {
namespace {

using kit::Array;
using kit::Dictionary;
using kit::Value;
using testing::Answer;
using ::testing::ElementsAre;
using testing::Fault;
using ::testing::IsEmpty;
using testing::TestWorld;
using testing::WorldOptions;

constexpr const char* kErasure = "v1/erasure";
constexpr const char* kHandler = "-[MorvikCoreLib gdprForgetMe:]_block_invoke";
constexpr const char* kAlreadyLine = "MRVK_QA-[MorvikCore GDPR] already Synced And Set. Return..";

/// Stored wish, stored acceptance, and their two mirrors.
struct Flags {
  bool wish;
  bool synced;
  bool wish_mirror;
  bool synced_mirror;
  friend bool operator==(const Flags&, const Flags&) = default;
};
void PrintTo(const Flags& flags, std::ostream* out) {
  *out << flags.wish << flags.synced << flags.wish_mirror << flags.synced_mirror;
}
constexpr Flags both(bool wish, bool synced) {
  return {wish, synced, wish, synced};
}

class ForgetMe : public ::testing::Test {
 protected:
  explicit ForgetMe(WorldOptions options = WorldOptions::attributed()) : world(std::move(options)) {
    world.transport.setDefaultAnswer(Answer::silence());
  }

  void wish(bool forget_me) {
    world.loop.perform([&] { world.core().gdprForgetMe(forget_me); });
  }
  void wishAndAnswer(bool forget_me, const Answer& answer) {
    world.transport.on(kErasure).then(answer);
    wish(forget_me);
  }
  Flags flags() {
    const auto stored = world.userDefaults();
    return {stored.MorvikCoreUserInfo_isGDPRForgetMe(), stored.MorvikCoreUserInfo_isGDPRForgetMeServerSynced(),
            world.services().isGDPRForgetMe(), world.services().isGDPRForgetMeServerSynced()};
  }
  size_t sent() { return world.requests(kErasure).size(); }

  TestWorld world;
};

const Answer kAccepted = Answer::json(Dictionary{{"status", "ok"}});

// ---------------------------------------------------------------------------------------------------------- the state

/// Looks around when a request is started, not when it leaves.
class WatchedStart final : public kit::Transport {
 public:
  WatchedStart(kit::Transport& transport, kit::Block look) : transport_(transport), look_(std::move(look)) {}
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    look_();
    transport_.start(std::move(request), std::move(handler));
  }

 private:
  kit::Transport& transport_;
  const kit::Block look_;
};

TEST_F(ForgetMe, IsNotAcceptedAnyMoreWhenItsRequestIsStarted) {
  std::vector<Flags> at_start;
  WatchedStart transport(world.transport, [&] { at_start.push_back(flags()); });
  const kit::Ports kit = testing::portsWith(world.ports(), {.transport = &transport});
  const auto core = MorvikCoreLib::make(kit);
  for (const bool forget_me : {true, false}) {
    world.loop.perform([&] {
      core->gdprForgetMe(forget_me);
      // The answer to an earlier one comes before this one is told.
      world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
      world.services().setIsGDPRForgetMeServerSynced(true);
    });
  }
  EXPECT_THAT(at_start, ElementsAre(both(true, false), both(false, false)));
}

TEST_F(ForgetMe, AskedForTwiceIsSentOnceWhenItWasAccepted) {
  wishAndAnswer(true, kAccepted);
  EXPECT_EQ(sent(), 1U);
  EXPECT_EQ(flags(), both(true, true));
  world.log.clear();
  wish(true);
  EXPECT_EQ(sent(), 1U);
  EXPECT_THAT(world.log.messages(), ElementsAre(kAlreadyLine));
  EXPECT_EQ(world.log.lines()[0].prefix->level, "WARNING");
}

TEST_F(ForgetMe, AskedForOfflineIsRecordedAndStopsEverythingElse) {
  world.util.setNetworkStatus("unknown");
  world.modules.add("QuintPush");
  wish(true);
  EXPECT_EQ(flags(), both(true, false));
  EXPECT_TRUE(world.core().isGdprForgetMe());
  world.loop.perform([&] {
    world.core().conversion(Dictionary{{"j", "x"}});
    world.core().tracking(Dictionary{{"j", "x"}});
    world.core().sendCrashInfos();
    world.core().getSchedule(Dictionary{});
    world.core().sendUserDemoInfos(Dictionary{{"j", "x"}});
  });
  EXPECT_THAT(world.requests(), IsEmpty());
  EXPECT_THAT(world.modules.calls(), IsEmpty());
}

TEST_F(ForgetMe, OfflineAfterASyncedOtherWishIsTakenForSyncedLater) {
  world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
  world.util.setNetworkStatus("unknown");
  wish(true);
  EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_isGDPRForgetMeServerSynced());
  world.util.setNetworkStatus("wifi");
  wish(true);
  EXPECT_EQ(sent(), 0U);
  EXPECT_TRUE(world.log.has(kAlreadyLine));
}

TEST_F(ForgetMe, TakenBackAfterAnAcceptedErasureEndsAsForgotten) {
  wishAndAnswer(true, kAccepted);
  world.transport.on(kErasure).then(Answer::json(Dictionary{}).after(1));
  wish(false);
  EXPECT_EQ(flags(), both(false, false));
  EXPECT_FALSE(world.core().isGdprForgetMe());
  world.loop.advance(2);
  EXPECT_EQ(sent(), 2U);
  EXPECT_EQ(flags(), both(true, true));
}

TEST_F(ForgetMe, TakenBackWithoutAWishEverIsSentToo) {
  wishAndAnswer(false, kAccepted);
  EXPECT_EQ(sent(), 1U);
  EXPECT_EQ(flags(), both(true, true));
}

struct StateCase {
  bool stored_wish;
  bool stored_synced;
  bool wish;
  bool online;
  Flags after_call;
  bool is_sent;
};

class ForgetMeStates : public ::testing::TestWithParam<StateCase> {};

TEST_P(ForgetMeStates, AreThoseOfTheTable) {
  const StateCase& given = GetParam();
  WorldOptions options = WorldOptions::attributed();
  options.store["MorvikCoreUserInfo_isGDPRForgetMe"] = given.stored_wish;
  options.store["MorvikCoreUserInfo_isGDPRForgetMeServerSynced"] = given.stored_synced;
  for (const bool is_accepted : {true, false}) {
    TestWorld world(options);
    const auto flags = [&world] {
      const auto stored = world.userDefaults();
      return Flags{stored.MorvikCoreUserInfo_isGDPRForgetMe(), stored.MorvikCoreUserInfo_isGDPRForgetMeServerSynced(),
                   world.services().isGDPRForgetMe(), world.services().isGDPRForgetMeServerSynced()};
    };
    world.util.setNetworkStatus(given.online ? "cellular" : "unknown");
    world.transport.on(kErasure).then((is_accepted ? kAccepted : Answer::json(409, Dictionary{})).after(1));
    world.loop.perform([&] { world.core().gdprForgetMe(given.wish); });
    EXPECT_EQ(flags(), given.after_call);
    EXPECT_EQ(world.requests(kErasure).size(), given.is_sent ? 1U : 0U);
    world.loop.advance(2);
    if (given.is_sent)
      EXPECT_EQ(flags(), is_accepted ? both(true, true) : both(given.wish, false));
    else
      EXPECT_EQ(flags(), given.after_call);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, ForgetMeStates,
                         ::testing::Values(StateCase{false, false, true, true, both(true, false), true},
                                           StateCase{false, false, false, true, both(false, false), true},
                                           StateCase{true, false, true, true, both(true, false), true},
                                           StateCase{true, false, false, true, both(false, false), true},
                                           StateCase{true, true, true, true, both(true, true), false},
                                           StateCase{true, true, false, true, both(false, false), true},
                                           StateCase{false, true, false, true, both(false, true), false},
                                           StateCase{false, true, true, true, both(true, false), true},
                                           StateCase{false, false, true, false, both(true, false), false},
                                           StateCase{true, true, true, false, both(true, true), false},
                                           StateCase{true, true, false, false, both(false, true), false},
                                           StateCase{true, false, false, false, both(false, false), false}));

TEST_F(ForgetMe, IsWrittenWithoutAFlush) {
  world.store.clearJournal();
  wishAndAnswer(true, kAccepted);
  EXPECT_THAT(world.store.journalTexts(), ElementsAre("MorvikCoreUserInfo_isGDPRForgetMe", "end of turn",
                                                      "MorvikCoreUserInfo_isGDPRForgetMeServerSynced", "end of turn",
                                                      "MorvikCoreUserInfo_isGDPRForgetMe",
                                                      "MorvikCoreUserInfo_isGDPRForgetMeServerSynced", "end of turn"));
}

TEST_F(ForgetMe, IsRecordedWhenTheCallReturnsAndToldInALaterTurn) {
  world.loop.perform([this] {
    world.core().gdprForgetMe(true);
    EXPECT_TRUE(world.core().isGdprForgetMe());
    EXPECT_TRUE(world.userDefaults().MorvikCoreUserInfo_isGDPRForgetMe());
  });
  world.loop.runUntilIdle();
  EXPECT_EQ(world.transport.requests().size(), 1U);
}

TEST_F(ForgetMe, OfOneThatWasRecordedBeforeTheAnswerToAnotherIsToldAllTheSame) {
  wishAndAnswer(true, kAccepted);
  world.transport.clearRequests();
  // Recorded as by another thread, in the middle of a turn: what stands is the opposite, and accepted.
  world.loop.perform([this] {
    world.core().gdprForgetMe(false);
    world.core().gdprForgetMe(true);
    world.core().gdprForgetMe(false);
  });
  world.loop.runUntilIdle();
  EXPECT_EQ(world.transport.requests().size(), 3U) << "each wish that was recorded is told, and none compares again";
}

TEST_F(ForgetMe, RecordedFasterThanItCanBeToldIsToldSoOftenAndAsItWasLast) {
  world.modules.add("QuintPush");
  for (size_t call = 0; call < 10 * kMaxUntoldWishes; ++call)
    world.core().gdprForgetMe(call % 2 == 0);
  world.core().gdprForgetMe(true);
  world.loop.runUntilIdle();
  EXPECT_EQ(world.modules.calls().size(), kMaxUntoldWishes);
  EXPECT_EQ(world.modules.calls().back(), "QuintPush setRemotePushEnable: 0");
  world.core().gdprForgetMe(false);
  world.loop.runUntilIdle();
  EXPECT_EQ(world.modules.calls().back(), "QuintPush setRemotePushEnable: 1");
}

TEST_F(ForgetMe, IsCommittedBeforeItsRequestLeaves) {
  Value committed;
  world.transport.setObserver([&](const kit::Request&) {
    const auto store = world.store.committed();
    const auto found = store.find("MorvikCoreUserInfo_isGDPRForgetMe");
    committed = found == store.end() ? Value() : found->second;
  });
  world.loop.perform([&] {
    world.core().gdprForgetMe(true);
    EXPECT_EQ(sent(), 0U) << "a process that dies here has told nobody";
  });
  EXPECT_EQ(sent(), 1U);
  EXPECT_EQ(committed, Value(true));
}

TEST_F(ForgetMe, SurvivesTheDeathOfTheProcessBeforeTheAnswerAndIsSentWhenAskedForAgain) {
  wish(true);
  world.restart();
  EXPECT_EQ(flags(), both(true, false));
  world.becomeActive();
  EXPECT_EQ(world.requests().size(), 1U) << "no session starts, nothing is retried";
  wishAndAnswer(true, kAccepted);
  EXPECT_EQ(sent(), 2U);
  EXPECT_EQ(flags(), both(true, true));
}

// ------------------------------------------------------------------------------------------------------- push module

TEST_F(ForgetMe, SwitchesRemotePushOffAndItsWithdrawalOn) {
  world.modules.add("QuintPush");
  wish(true);
  wish(false);
  EXPECT_THAT(world.modules.calls(),
              ElementsAre("QuintPush setRemotePushEnable: 0", "QuintPush setRemotePushEnable: 1"));
}

TEST_F(ForgetMe, IsSentAlsoWithoutAPushModuleOrOneThatResponds) {
  wish(true);
  EXPECT_EQ(sent(), 1U);
  world.modules.add("QuintPush").setRemotePushEnable = nullptr;
  wish(true);
  EXPECT_EQ(sent(), 2U);
}

// ------------------------------------------------------------------------------------------------------- the request

TEST_F(ForgetMe, IsSentAsPrettyJsonByteForByte) {
  world.services().setIntervalSinceServerDate(3600.5);
  wish(true);
  const kit::Request request = world.requests(kErasure).at(0);
  EXPECT_EQ(request.url, "https://erasure.morvik.example/v1/erasure");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.timeout_seconds, 15.0);
  EXPECT_EQ(request.headers, (std::vector<kit::HttpHeader>{{"Accept-Encoding", "application/json"},
                                                           {"Content-Type", "application/json"}}));
  const std::string id(testing::json(request.body)["subject_request_id"].string());
  ASSERT_EQ(id.size(), 36U);
  EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << id;
  EXPECT_EQ(id[14], '4');
  EXPECT_EQ(request.body,
            "{\n"
            "  \"subject_request_id\" : \"" +
                id +
                "\",\n"
                "  \"subject_request_type\" : \"erasure\",\n"
                "  \"submitted_time\" : \"2024-03-01T01:00:00Z\",\n"
                "  \"api_version\" : \"1.0\",\n"
                "  \"status_callback_urls\" : \"\",\n"
                "  \"subject_identities\" : [\n"
                "    {\n"
                "      \"identity_type\" : \"ios_advertising_id\",\n"
                "      \"identity_value\" : \"00000000-0000-4000-8000-0000000000AD\",\n"
                "      \"identity_format\" : \"raw\"\n"
                "    }\n"
                "  ],\n"
                "  \"extensions\" : {\n"
                "    \"erasure.morvik.example\" : {\n"
                "      \"appkey\" : \"test-app\",\n"
                "      \"type\" : \"classic\"\n"
                "    }\n"
                "  }\n"
                "}");
}

TEST_F(ForgetMe, HasANewIdForEachRequest) {
  wish(true);
  wish(true);
  EXPECT_NE(testing::json(world.requests(kErasure).at(0).body)["subject_request_id"],
            testing::json(world.requests(kErasure).at(1).body)["subject_request_id"]);
}

TEST_F(ForgetMe, WithoutAnAdvertisingIdentifierNamesItsTypeAlone) {
  world.util.setIDFA(std::nullopt);
  const Value body = world.core().makeGdprParameter(ErasureForm::kPlain);
  EXPECT_EQ(body["subject_identities"], Value(Array{Dictionary{{"identity_type", "ios_advertising_id"}}}));
}

TEST_F(ForgetMe, WithoutATimeOfSubmissionLacksWhatComesAfterIt) {
  world.util.setKnowsISODates(false);
  EXPECT_THAT(testing::keys(world.core().makeGdprParameter(ErasureForm::kPlain)),
              ElementsAre("subject_request_id", "subject_request_type", "subject_identities", "extensions"));
}

TEST_F(ForgetMe, IsSealedWithTheDoubledHashKeyWhenThatIsAskedFor) {
  world.log.clear();
  const Value parameters = world.core().makeGdprParameter(ErasureForm::kSealed);
  EXPECT_THAT(testing::keys(parameters), ElementsAre("k", "j"));
  EXPECT_THAT(world.log.lines(), IsEmpty());
  kit::Request request;
  request.url = "https://erasure.morvik.example/v1/erasure";
  request.body = services::formEncoded(parameters.dictionary());
  EXPECT_EQ(world.payload(request)["api_version"], Value("1.0"));
  EXPECT_TRUE(world.core().makeGdprParameter().isAbsent()) << "the property's field is another thing";
}

TEST_F(ForgetMe, WhoseBodyCannotBeWrittenIsNotSentAndFails) {
  world.log.clear();
  world.json.refuseToWrite("no JSON today");
  wish(true);
  EXPECT_EQ(sent(), 0U);
  EXPECT_EQ(flags(), both(true, false));
  EXPECT_THAT(world.log.messagesOf(kHandler), ElementsAre("MRVK_QA-[MorvikCore GDPR] Recieved an HTTP 0",
                                                          "MRVK_QA-[MorvikCore GDPR] The error was: no JSON today"));
}

TEST_F(ForgetMe, WhoseRequestFailedIsToldBeforeItCountsAsUnsynced) {
  wishAndAnswer(true, Answer::error("no network").after(5));
  world.faulty.key_value_store.faults.throwAlways("set", Fault::number(1));
  EXPECT_THROW(world.loop.advance(5), int);
  EXPECT_EQ(world.log.countContaining("MRVK_QA-[MorvikCore GDPR] The error was: no network"), 1U);
}

TEST_F(ForgetMe, IsStoredBeforeItIsMirrored) {
  world.faulty.key_value_store.faults.throwAlways("set", Fault::number(1));
  EXPECT_THROW(wish(true), int);
  EXPECT_FALSE(world.services().isGDPRForgetMe());
}

TEST_F(ForgetMe, ReturnsWhatItHadOfTheBodyWhenBuildingFails) {
  for (const Fault& fault : {Fault::exception("Name", "Reason"), Fault::number(5)}) {
    world.faulty.random.faults.throwAt("fill", 1, fault);
    EXPECT_TRUE(world.core().makeGdprParameter(ErasureForm::kPlain).isAbsent());
    world.faulty.util.faults.throwAt("IDFA", 1, fault);
    EXPECT_EQ(world.core().makeGdprParameter(ErasureForm::kPlain).size(), 5U);
    world.faultyServices().faults.throwAt("appKey", 1, fault);
    EXPECT_EQ(world.core().makeGdprParameter(ErasureForm::kPlain).size(), 6U);
    world.faultyServices().faults.throwAt("hashKey", 1, fault);
    EXPECT_EQ(world.core().makeGdprParameter(ErasureForm::kSealed).size(), 7U);
  }
  EXPECT_EQ(world.log.countContaining("Exception from makeConversionParameter!"), 8U);
}

TEST_F(ForgetMe, OfWhichNothingCouldBeBuiltIsNotSent) {
  world.faulty.random.faults.throwAlways("fill", Fault::number(5));
  wish(true);
  EXPECT_EQ(sent(), 0U);
  EXPECT_EQ(flags(), both(true, false));
}

// ------------------------------------------------------------------------------------------------------- the answers

TEST_F(ForgetMe, IsAcceptedByAnyStatusFrom200To299) {
  for (const int status : {200, 202, 299}) {
    TestWorld single(WorldOptions::attributed());
    single.transport.on(kErasure).then(Answer::json(status, Dictionary{}));
    single.loop.perform([&] { single.core().gdprForgetMe(true); });
    EXPECT_TRUE(single.userDefaults().MorvikCoreUserInfo_isGDPRForgetMeServerSynced()) << status;
    EXPECT_TRUE(single.log.has("MRVK_QA-[MorvikCore GDPR] Recieved an HTTP " + std::to_string(status)));
  }
}

TEST_F(ForgetMe, IsNotAcceptedByAnAnswerOfAnotherStatusOrWithoutAResponse) {
  const std::optional<kit::Response> responses[] = {std::nullopt, kit::Response{199, "", ""},
                                                    kit::Response{300, "", ""}, kit::Response{0, "", ""}};
  for (const auto& response : responses) {
    wish(true);
    world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
    world.services().setIsGDPRForgetMeServerSynced(true);
    world.log.clear();
    world.core().erasureDidAnswer(response, Dictionary{{"a", 1}});
    EXPECT_EQ(flags(), both(true, false));
    EXPECT_THAT(world.log.messages(), ElementsAre("MRVK_QA-[MorvikCore GDPR] {\"a\":1}"));
    world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMe(false);
  }
}

TEST_F(ForgetMe, CountsNoFailures) {
  for (const Answer& answer : {Answer::error("down"), Answer::json(500, Dictionary{}), kAccepted}) {
    wishAndAnswer(true, answer);
    EXPECT_EQ(world.core().failedGDPRCnt(), 0);
  }
}

TEST_F(ForgetMe, StaysUnsyncedAfterAFailureAndIsNotRetried) {
  for (const Answer& answer : {Answer::json(500, Dictionary{}), Answer::error("down"), Answer::body(200, "no JSON"),
                               Answer::body(200, "[]"), Answer::body(204, "")}) {
    TestWorld single(WorldOptions::attributed());
    single.transport.on(kErasure).then(answer);
    single.loop.perform([&] { single.core().gdprForgetMe(true); });
    single.loop.advance(100);
    EXPECT_EQ(single.requests(kErasure).size(), 1U);
    EXPECT_TRUE(single.services().isGDPRForgetMe());
    EXPECT_FALSE(single.services().isGDPRForgetMeServerSynced());
    EXPECT_EQ(single.log.countContaining("MRVK_QA-[MorvikCore GDPR] The error was: "), 1U);
  }
}

TEST_F(ForgetMe, TakesAnyAnswerWithoutAnException) {
  for (const Value& odd : testing::oddValues()) {
    world.userDefaults().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(false);
    wishAndAnswer(true, Answer::json(Dictionary{{"Result", odd}, {"status", odd}}));
    EXPECT_EQ(flags(), both(true, true)) << services::describe(odd);
  }
  EXPECT_EQ(world.log.countContaining("Exception"), 0U);
}

}  // namespace
}  // namespace morvik
