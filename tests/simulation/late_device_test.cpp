// A device whose store cannot be read at the start, and recovers while the process runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/json/simdjson_codec.h"
#include "proofs/run/newer_program.h"
#include "runtime/handed_over.h"
#include "runtime/life/start_hold.h"
#include "runtime/loop/commit_retry.h"
#include "services/endpoints.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"
#include "simulation/virtual_service.h"

namespace morvik::simulation {
namespace {

using ::morvik::testing::ServedRequest;
using ::morvik::testing::ServiceEndpoint;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LateDevice : public ::testing::Test {
 protected:
  LateDevice() {
    machine_.transport.on("").alwaysBy([this, reply = service_->reply()](const kit::Request& request) {
      return reply(request).after(answer_seconds_);
    });
  }
  ~LateDevice() override { machine_.kill(std::move(phone_)); }

  void start() {
    phone_ = machine_.start(app_);
    machine_.loop.runUntilIdle();
  }
  void restartUnavailable() {
    if (phone_)
      machine_.kill(std::move(phone_));
    disk_.decide([](const DiskCall& call) { return isReadOfStore(call) ? SQLITE_IOERR_READ : SQLITE_OK; });
    start();
  }
  /// Only the store's own files; the wish file next to it stays readable.
  static bool isReadOfStore(const DiskCall& call) {
    return call.kind == DiskCall::Kind::kRead && !call.path.ends_with(".wish");
  }
  /// The store's own thread opens the file; its content is visible after the next commit.
  void showDisk() {
    disk_.decide({});
    phone_->properties().synchronize();
    machine_.loop.advance(1);
  }
  void liveASession() {
    phone_->applicationDidBecomeActive();
    machine_.loop.advance(70);
    phone_->applicationDidEnterBackground();
    machine_.loop.advance(70);
  }
  /// Number of session starts waiting in the store.
  size_t sessionStarts() const {
    size_t starts = 0;
    for (const kit::Value& activity : phone_->properties().fendoActivityInfos().array())
      starts += activity["activityName"].string() == "start" ? 1U : 0U;
    return starts;
  }
  void reportTheInstall() {
    phone_->thirdPartyConversion();
    machine_.loop.advance(1);
  }
  /// Keys of the handled referral URLs, in the order of their requests.
  std::vector<int64_t> handledUrls() const {
    std::vector<int64_t> keys;
    for (const ServedRequest& served : service_->requests(ServiceEndpoint::kThirdPartyConversion))
      keys.push_back(served.payload["deeplink_info"]["conversion_key"].integer());
    return keys;
  }
  /// Advertising ids, in the order of the erasures.
  std::vector<std::string> erased() const {
    std::vector<std::string> ids;
    const host::SimdjsonCodec json;
    for (const kit::Request& request : machine_.transport.requests(services::kGdprReqUrlPath)) {
      const auto body = json.read(request.body);
      ids.emplace_back(std::get<kit::Value>(body)["subject_identities"].array()[0]["identity_value"].string());
    }
    return ids;
  }
  /// Collects what the app is told about answers to erasures.
  void listenTo(std::vector<bool>& answers) {
    delegate_->didAnswerErasure = [&answers](bool accepted) { answers.push_back(accepted); };
    phone_->setDelegate(delegate_);
  }
  bool isWishAccepted() const { return phone_->properties().MorvikCoreUserInfo_isGDPRForgetMeServerSynced(); }
  void flush(std::chrono::milliseconds timeout) {
    phone_->flush([this](const FlushResult& result) { flushed_ = result; }, timeout);
  }
  void crash(const char* reason) {
    phone_->reportUncaughtException({.reason = reason, .call_stack_symbols = {}, .moment = std::nullopt});
    machine_.kill(std::move(phone_));
  }
  /// Reasons of the reports in the store.
  std::vector<std::string> reports() const {
    std::vector<std::string> reasons;
    for (const kit::Value& report : phone_->properties().MorvikCoreUserInfo_Crash().array())
      reasons.emplace_back(report["exception_reason"].string());
    return reasons;
  }
  /// An identifying field of each report of the install.
  std::vector<std::string> names(const char* field) const {
    std::vector<std::string> names;
    for (const ServedRequest& served : service_->requests(ServiceEndpoint::kThirdPartyConversion))
      names.emplace_back(served.payload[field].string());
    return names;
  }

  StartOptions app_ = simulatedApp();
  SimulatedDisk disk_;
  VirtualMachine machine_{{.disk = &disk_}};
  VirtualService service_{[this] { return machine_.loop.now(); }};
  double answer_seconds_ = 0;
  std::unique_ptr<runtime::Instance> phone_;
  std::optional<FlushResult> flushed_;
  const std::shared_ptr<MorvikCoreDelegate> delegate_ = std::make_shared<MorvikCoreDelegate>();
};

TEST_F(LateDevice, IsTheOneThatTheFileKnowsFromThenOn) {
  start();
  reportTheInstall();
  restartUnavailable();
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.loop.runUntilIdle();
  reportTheInstall();
  EXPECT_EQ(service_->installs(), 1U);
  for (const char* const field : {"install_id", "idfa", "puid"}) {
    const std::vector<std::string> told = names(field);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_FALSE(told[0].empty());
    EXPECT_EQ(told[0], told[1]) << field;
  }
}

TEST_F(LateDevice, KeepsTheImpressionsOfItsFileThatABatchWhileUnavailableDidNotCarry) {
  start();
  EXPECT_EQ(phone_->addImpression({.campaign_key = 7, .space_key = "of the file"}), Recorded::kKept);
  restartUnavailable();
  EXPECT_EQ(phone_->addImpression({.campaign_key = 7, .space_key = "while unavailable"}), Recorded::kKeptInMemory);
  answer_seconds_ = 5;
  phone_->applicationDidBecomeActive();
  const auto has_sent = [this] { return !machine_.transport.requests(services::kTrackingPath).empty(); };
  ASSERT_TRUE(machine_.loop.advanceUntil(has_sent, runtime::kStartHoldSeconds + 10));
  showDisk();
  const auto stored = [this] { return phone_->properties().fendoImpressionInfos().array(); };
  ASSERT_EQ(stored().size(), 2U);
  machine_.loop.advance(5);
  ASSERT_EQ(stored().size(), 1U);
  EXPECT_EQ(stored()[0]["spaceKey"], kit::Value("of the file"));
}

TEST_F(LateDevice, KeepsTheCommerceClicksOfItsFileThatAnUploadWhileUnavailableDidNotCarry) {
  start();
  machine_.transport.goOffline();
  phone_->passOpenURL("app://x?cid=file");
  machine_.loop.advance(1);
  machine_.transport.goOnline();
  const auto stored = [this] { return phone_->properties().commerceConversionInfos().array(); };
  ASSERT_EQ(stored().size(), 1U);
  restartUnavailable();
  answer_seconds_ = 5;
  phone_->passOpenURL("app://x?cid=unavailable");
  const auto has_sent = [this] { return machine_.transport.requests(services::kCommerceConversionPath).size() == 2; };
  ASSERT_TRUE(machine_.loop.advanceUntil(has_sent, runtime::kStartHoldSeconds + 10));
  showDisk();
  ASSERT_EQ(stored().size(), 2U);
  machine_.loop.advance(5);
  ASSERT_EQ(stored().size(), 1U);
  EXPECT_EQ(stored()[0]["clickId"], kit::Value("file"));
  EXPECT_TRUE(phone_->ledger().isSound());
}

TEST_F(LateDevice, KeepsTheDemographicsOfItsFileThatAnUploadWhileUnavailableDidNotCarry) {
  start();
  phone_->setSendingEnabled(false);
  phone_->setAge(27);
  machine_.loop.runUntilIdle();
  restartUnavailable();
  answer_seconds_ = 5;
  phone_->setUserId("while unavailable");
  phone_->applicationDidBecomeActive();
  const auto has_sent = [this] { return !machine_.transport.requests(services::kSetDemographicPath).empty(); };
  ASSERT_TRUE(machine_.loop.advanceUntil(has_sent, runtime::kStartHoldSeconds + 20));
  showDisk();
  EXPECT_EQ(phone_->properties().fendoUserDemoInfo_age(), 27);
  machine_.loop.advance(5);
  EXPECT_EQ(phone_->properties().fendoUserDemoInfo_age(), 27);
  EXPECT_FALSE(phone_->properties().fendoUserDemoInfo_userId()) << "the service has the user id";
  EXPECT_TRUE(phone_->ledger().isSound());
}

TEST_F(LateDevice, IsTheOneThatTheFileKnowsInTheVeryTurnInWhichItIsRead) {
  start();
  reportTheInstall();
  restartUnavailable();
  showDisk();
  phone_->mainQueue().async([this] {
    phone_->addActivity("shop", "look", std::nullopt);
    phone_->thirdPartyConversion();
  });
  machine_.loop.advance(1);
  EXPECT_EQ(service_->installs(), 1U);
}

TEST_F(LateDevice, KeepsItsUserNumberAndCountsItsLaunchesOn) {
  start();
  for (int session = 0; session < 2; ++session)
    liveASession();
  const int64_t user = phone_->properties().fendoUserInfo_fendoUserNo();
  ASSERT_NE(user, -1);
  const int64_t launches = phone_->properties().integerForKey("com.morvik.core.appLaunchCount");
  ASSERT_EQ(launches, 2);
  restartUnavailable();
  machine_.loop.advance(runtime::kStartHoldSeconds);
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(1);
  EXPECT_NE(phone_->properties().fendoUserInfo_fendoUserNo(), user) << "the service counts it as another install";
  ASSERT_NE(phone_->properties().fendoUserInfo_fendoUserNo(), -1);
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.loop.advance(1);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), user);
  EXPECT_EQ(phone_->properties().integerForKey("com.morvik.core.appLaunchCount"), launches + 1);
}

TEST_F(LateDevice, StartsNoSessionAsAnotherOneWhileItsFileMayRecover) {
  start();
  liveASession();
  const int64_t user = phone_->properties().fendoUserInfo_fendoUserNo();
  ASSERT_NE(user, -1);
  restartUnavailable();
  const size_t requests = service_->requests().size();
  phone_->applicationDidBecomeActive();
  EXPECT_EQ(phone_->thirdPartyConversion(), Recorded::kKeptInMemory);
  machine_.loop.advance(runtime::kStartHoldSeconds / 2);
  EXPECT_EQ(service_->requests().size(), requests);
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kKeptInMemory) << "recording does not wait";
  disk_.decide({});
  machine_.loop.advance(2 * runtime::kStartHoldTrySeconds + 1);
  EXPECT_GT(service_->requests().size(), requests);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), user);
  EXPECT_EQ(service_->installs(), 1U);
}

TEST_F(LateDevice, StartsItsSessionAsAnotherOneWhenItsFileStaysUnavailable) {
  start();
  liveASession();
  restartUnavailable();
  phone_->applicationDidBecomeActive();
  phone_->applicationDidBecomeActive();
  EXPECT_EQ(phone_->thirdPartyConversion(), Recorded::kKeptInMemory);
  machine_.loop.advance(runtime::kStartHoldSeconds - runtime::kStartHoldTrySeconds);
  EXPECT_EQ(sessionStarts(), 0U);
  machine_.loop.advance(runtime::kStartHoldTrySeconds + 1);
  EXPECT_EQ(service_->installs(), 2U);
  EXPECT_EQ(phone_->storedValue(runtime::kHandedOverKey).size(), 0U);
}

TEST_F(LateDevice, KeepsTheRecordOfItsFileWhenAConversionWhileUnavailableIsAnsweredLater) {
  start();
  liveASession();
  const int64_t user = phone_->properties().fendoUserInfo_fendoUserNo();
  ASSERT_NE(user, -1);
  restartUnavailable();
  answer_seconds_ = 5;
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  ASSERT_EQ(service_->installs(), 2U) << "its answer is under way";
  disk_.decide({});
  machine_.loop.advance(70);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), user);
}

TEST_F(LateDevice, StartsTheSessionThatWaitsForItsFileBeforeItEndsIt) {
  start();
  liveASession();
  restartUnavailable();
  phone_->setSendingEnabled(false);
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(runtime::kStartHoldSeconds / 2);
  phone_->applicationDidEnterBackground();
  machine_.loop.advance(runtime::kStartHoldSeconds / 4);
  EXPECT_EQ(sessionStarts(), 0U);
  machine_.loop.advance(runtime::kStartHoldSeconds);
  EXPECT_EQ(sessionStarts(), 1U);
  EXPECT_FALSE(phone_->status().is_session_open);
}

TEST_F(LateDevice, IsNoNewInstallWhenItsAppIsLeftBeforeItsFileRecovers) {
  start();
  liveASession();
  const int64_t user = phone_->properties().fendoUserInfo_fendoUserNo();
  restartUnavailable();
  const size_t requests = service_->requests().size();
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(runtime::kStartHoldSeconds / 4);
  phone_->applicationDidEnterBackground();
  machine_.loop.advance(runtime::kStartHoldSeconds / 4);
  EXPECT_EQ(service_->requests().size(), requests);
  disk_.decide({});
  machine_.loop.advance(70);
  EXPECT_GT(service_->requests().size(), requests);
  EXPECT_EQ(service_->installs(), 1U);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), user);
  EXPECT_FALSE(phone_->status().is_session_open);
}

TEST_F(LateDevice, HasItsFileAgainSoonAfterTheHoldAlthoughNothingHappensOnIt) {
  start();
  liveASession();
  const int64_t user = phone_->properties().fendoUserInfo_fendoUserNo();
  ASSERT_NE(user, -1);
  restartUnavailable();
  machine_.loop.advance(runtime::kStartHoldSeconds + 7.3);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), -1);
  disk_.decide({});
  machine_.loop.advance(runtime::kStoreReopenSeconds + runtime::kStartHoldTrySeconds);
  EXPECT_EQ(phone_->properties().fendoUserInfo_fendoUserNo(), user);
}

TEST_F(LateDevice, HandlesOnceWhatItsFileAndItsOwnProcessWereHandedOver) {
  start();
  phone_->setSendingEnabled(false);
  phone_->setReferralUrlForFacebook("https://f.example/?ck=12");
  machine_.loop.runUntilIdle();
  restartUnavailable();
  EXPECT_EQ(phone_->setReferralUrlForFacebook("https://f.example/?ck=13"), Recorded::kKeptInMemory);
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  EXPECT_THAT(handledUrls(), ElementsAre(13));
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.loop.advance(1);
  EXPECT_THAT(handledUrls(), ElementsAre(13, 12));
  EXPECT_EQ(phone_->storedValue(runtime::kHandedOverKey).size(), 0U);
  machine_.kill(std::move(phone_));
  start();
  machine_.loop.advance(1);
  EXPECT_THAT(handledUrls(), ElementsAre(13, 12));
}

TEST_F(LateDevice, HandlesEachUrlOnceWhenItsFileRecoversWhileOneIsHandled) {
  std::vector<std::string> opened;
  app_.modules["FendoLib"].resetRetainedConversionCache = [&](const std::map<std::string, std::string>& query) {
    opened.push_back(query.at("ck"));
    disk_.decide({});
    phone_->properties().synchronize();
  };
  start();
  phone_->setSendingEnabled(false);
  phone_->passOpenURL("app://x?ck=12");
  machine_.loop.runUntilIdle();
  restartUnavailable();
  EXPECT_EQ(phone_->passOpenURL("app://x?ck=13"), Recorded::kKeptInMemory);
  machine_.loop.advance(1 + runtime::kCommitRetrySeconds);
  EXPECT_THAT(opened, ElementsAre("13", "12"));
  EXPECT_EQ(phone_->storedValue(runtime::kHandedOverKey).size(), 0U);
  machine_.kill(std::move(phone_));
  start();
  machine_.loop.advance(1);
  EXPECT_THAT(opened, ElementsAre("13", "12"));
}

TEST_F(LateDevice, RecordsAndSendsNothingOfAForgottenUserBeforeNorAfterItsFileRecovers) {
  start();
  phone_->gdprForgetMe(true);
  machine_.loop.runUntilIdle();
  restartUnavailable();
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
  showDisk();
  machine_.loop.runUntilIdle();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
  machine_.transport.clearRequests();
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(60);
  EXPECT_THAT(machine_.transport.requests(), IsEmpty());
}

TEST_F(LateDevice, KeepsAWishOfItsOwnThatIsMadeWhileItsFileRecovers) {
  start();
  restartUnavailable();
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.setOffline(true);  // so that no answer of the service confirms the wish
  EXPECT_EQ(phone_->gdprForgetMe(true), Recorded::kKept) << "before the main queue has looked at the file";
  machine_.loop.runUntilIdle();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
}

TEST_F(LateDevice, HasTheDeviceOfItsFileErasedWhenTheWishIsMadeWhileUnavailable) {
  start();
  reportTheInstall();
  restartUnavailable();
  EXPECT_EQ(phone_->gdprForgetMe(true), Recorded::kKept);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  machine_.loop.advance(runtime::kStartHoldSeconds / 2);
  EXPECT_THAT(erased(), IsEmpty());
  disk_.decide({});
  machine_.loop.advance(2 * runtime::kStartHoldTrySeconds + 1);
  EXPECT_THAT(erased(), ElementsAre(names("idfa").at(0)));
  EXPECT_TRUE(isWishAccepted());
}

TEST_F(LateDevice, TellsTheWishWhileUnavailableWhenItsFileStaysThereAndOnceMoreWhenItsAppSaysSo) {
  start();
  reportTheInstall();
  restartUnavailable();
  std::vector<bool> answers;
  listenTo(answers);
  phone_->gdprForgetMe(true);
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  ASSERT_EQ(erased().size(), 1U);
  EXPECT_NE(erased()[0], names("idfa").at(0)) << "nobody knows it yet";
  EXPECT_THAT(answers, ElementsAre(false));
  EXPECT_TRUE(isWishAccepted());
  disk_.decide({});
  machine_.loop.advance(runtime::kStoreReopenSeconds + 1);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_FALSE(isWishAccepted());
  EXPECT_EQ(erased().size(), 1U) << "the kit does not repeat it";
  phone_->gdprForgetMe(true);
  machine_.loop.advance(1);
  ASSERT_EQ(erased().size(), 2U);
  EXPECT_EQ(erased()[1], names("idfa").at(0));
  EXPECT_TRUE(isWishAccepted());
  EXPECT_THAT(answers, ElementsAre(false, true));
}

TEST_F(LateDevice, TakesNoAnswerToAnErasureOfAnotherDeviceForItsOwn) {
  start();
  reportTheInstall();
  restartUnavailable();
  answer_seconds_ = 5;
  std::vector<bool> answers;
  listenTo(answers);
  phone_->gdprForgetMe(true);
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  disk_.decide({});
  machine_.loop.advance(10);
  EXPECT_EQ(erased().size(), 1U);
  EXPECT_THAT(answers, ElementsAre(false));
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_FALSE(isWishAccepted());
}

TEST_F(LateDevice, LeavesAWishUntoldThatIsMadeWhileUnavailableWithoutANetwork) {
  start();
  restartUnavailable();
  phone_->gdprForgetMe(true);
  machine_.loop.runUntilIdle();
  machine_.setOffline(true);
  phone_->gdprForgetMe(false);
  machine_.loop.runUntilIdle();
  machine_.setOffline(false);
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  EXPECT_THAT(erased(), IsEmpty());
  EXPECT_FALSE(phone_->isGdprForgetMe());
}

TEST_F(LateDevice, TellsAWishAndItsWithdrawalInTheirOrderOnceItsFileHasRecovered) {
  start();
  reportTheInstall();
  restartUnavailable();
  phone_->gdprForgetMe(true);
  phone_->gdprForgetMe(false);
  machine_.loop.advance(runtime::kStartHoldSeconds / 2);
  EXPECT_THAT(erased(), IsEmpty());
  disk_.decide({});
  machine_.loop.advance(2 * runtime::kStartHoldTrySeconds + 1);
  EXPECT_EQ(erased().size(), 2U);
}

TEST_F(LateDevice, IsFlushedOfWhatItsFileHasOnceThatHasRecovered) {
  start();
  liveASession();
  phone_->setSendingEnabled(false);
  for (int event = 0; event < 5; ++event)
    phone_->addActivity("shop", "look", std::nullopt);
  restartUnavailable();
  flush(std::chrono::seconds(10));
  machine_.loop.advance(runtime::kStartHoldSeconds / 2);
  EXPECT_FALSE(flushed_);
  disk_.decide({});
  machine_.loop.advance(1);
  ASSERT_TRUE(flushed_);
  EXPECT_TRUE(flushed_->is_delivered) << toText(flushed_->reason);
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), 0U);
}

TEST_F(LateDevice, IsNeverFlushedWhileItsFileIsUnavailable) {
  start();
  liveASession();
  restartUnavailable();
  phone_->applicationDidBecomeActive();
  phone_->addActivity("shop", "look", std::nullopt);
  flush(std::chrono::seconds(10));
  machine_.loop.advance(runtime::kStartHoldSeconds + 5);
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), 0U) << "everything known to this process is delivered";
  EXPECT_FALSE(flushed_);
  machine_.loop.advance(5);
  ASSERT_TRUE(flushed_);
  EXPECT_FALSE(flushed_->is_delivered);
  EXPECT_EQ(flushed_->waiting, 0U);
  EXPECT_EQ(flushed_->reason, FlushReason::kTimeout);
}

TEST_F(LateDevice, LeavesAFileAloneThatTurnsOutToBeOfANewerVersion) {
  start();
  liveASession();
  machine_.kill(std::move(phone_));
  ASSERT_TRUE(proofs::useWithNewerProgram(disk_, proofs::kNewerStoreVersion));
  const auto left = proofs::storeFilesOn(disk_);
  restartUnavailable();
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  disk_.decide({});
  machine_.loop.advance(2 * runtime::kStoreReopenSeconds);
  const uint64_t reads = disk_.count(DiskCall::Kind::kRead);
  phone_->addActivity("shop", "look", std::nullopt);
  flush(std::chrono::seconds(10));
  machine_.loop.advance(20);
  EXPECT_EQ(disk_.count(DiskCall::Kind::kRead), reads) << "no further read";
  ASSERT_TRUE(flushed_);
  EXPECT_TRUE(flushed_->is_delivered) << toText(flushed_->reason);
  EXPECT_EQ(proofs::storeFilesOn(disk_), left);
}

TEST_F(LateDevice, IsFlushedOnceItsFileTurnsOutToBeOfANewerVersion) {
  start();
  machine_.kill(std::move(phone_));
  ASSERT_TRUE(proofs::useWithNewerProgram(disk_, proofs::kNewerStoreVersion));
  restartUnavailable();
  phone_->applicationDidBecomeActive();
  phone_->addActivity("shop", "look", std::nullopt);
  flush(std::chrono::seconds(10));
  machine_.loop.advance(runtime::kStartHoldSeconds + 1);
  EXPECT_FALSE(flushed_);
  disk_.decide({});
  machine_.loop.advance(2 * runtime::kStoreReopenSeconds);
  ASSERT_TRUE(flushed_);
  EXPECT_TRUE(flushed_->is_delivered) << toText(flushed_->reason);
}

TEST_F(LateDevice, SaysWhyItIsNotFlushedWhileUnavailable) {
  restartUnavailable();
  flush(std::chrono::seconds(1));
  machine_.loop.advance(1);
  ASSERT_TRUE(flushed_);
  EXPECT_EQ(flushed_->reason, FlushReason::kTimeout) << "the flush waits for the file";
  flushed_.reset();
  flush(std::chrono::seconds(10));
  machine_.loop.advance(runtime::kStartHoldSeconds);
  phone_->addActivity("shop", "look", std::nullopt);
  flush(std::chrono::seconds(10));
  machine_.loop.advance(1);
  ASSERT_TRUE(flushed_);
  EXPECT_FALSE(flushed_->is_delivered);
  EXPECT_EQ(flushed_->reason, FlushReason::kNotAttributed);
}

TEST_F(LateDevice, KeepsTheCrashReportsOfItsFileWhileAnotherWaitsNextToIt) {
  start();
  crash("fendo of the file");
  restartUnavailable();
  crash("fendo next to the file");
  restartUnavailable();
  EXPECT_THAT(reports(), IsEmpty());
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.loop.runUntilIdle();
  EXPECT_THAT(reports(), ElementsAre("fendo of the file"));
  machine_.kill(std::move(phone_));
  start();
  EXPECT_THAT(reports(), ElementsAre("fendo of the file", "fendo next to the file"));
}

TEST_F(LateDevice, KeepsTheCrashReportsOfItsFileWhereThereIsNoRoomForAnother) {
  start();
  crash("fendo of the file");
  restartUnavailable();
  crash("fendo next to the file");
  // The file can be read at the second attempt, but not written.
  constexpr int kReadsOfTheFirstTry = 3;
  disk_.decide([reads = 0](const DiskCall& call) mutable {
    if (call.kind == DiskCall::Kind::kWrite)
      return SQLITE_FULL;
    return isReadOfStore(call) && ++reads <= kReadsOfTheFirstTry ? SQLITE_IOERR_READ : SQLITE_OK;
  });
  start();
  machine_.loop.advance(1 + runtime::kCommitRetrySeconds);
  EXPECT_THAT(reports(), ElementsAre("fendo of the file"));
  showDisk();
  phone_->addActivity("shop", "look", std::nullopt);
  machine_.loop.runUntilIdle();
  machine_.kill(std::move(phone_));
  start();
  EXPECT_THAT(reports(), ElementsAre("fendo of the file", "fendo next to the file"));
}

}  // namespace
}  // namespace morvik::simulation
