// A device whose user asked to be forgotten, with its store in any state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/store/store_files.h"
#include "host/store/wish_file.h"
#include "host/store/wish_sectors.h"
#include "runtime/handed_over.h"
#include "runtime/life/start_hold.h"
#include "runtime/loop/commit_retry.h"
#include "runtime/privacy/erasure_hold.h"
#include "runtime/privacy/wish_rereading.h"
#include "runtime/privacy/wish_store.h"
#include "services/endpoints.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"
#include "testing/recording_log.h"

namespace morvik::simulation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Long enough for recorded data to be synced to the disk.
constexpr double kSyncedSeconds = 5;
constexpr const char* kClick = "https://shop.example/?ck=12&mrvk_eng=1&sn=3";
constexpr const char* kUnreadable = "which keeps the wish to be forgotten, cannot be read (";
/// Logged for a wish and for its withdrawal alike.
constexpr const char* kNotOnTheDisk =
    "Morvik host: what the user said about being forgotten did not reach the disk within 2 s (disk I/O error): the "
    "service is told all the same; make the store folder writable, or check the disk";
constexpr const char* kNotRead = "which keeps the wish to be forgotten, cannot be read at present (disk I/O error)";

class ForgottenDevice : public ::testing::Test {
 protected:
  ~ForgottenDevice() override { machine_.kill(std::move(phone_)); }

  void start() {
    StartOptions app = simulatedApp();
    app.log_level = kit::lcl_vError;
    app.log_sink = [this](std::string_view line) { log_.line(line); };
    phone_ = machine_.start(app);
  }
  void die(const DiskCut& cut = DiskCut::killed()) { machine_.kill(std::move(phone_), cut); }
  /// What a typical app does in one process.
  void live() {
    phone_->applicationDidBecomeActive();
    machine_.loop.advance(kSyncedSeconds);
    phone_->addActivity("shop", "look", std::nullopt);
    phone_->applicationDidEnterBackground();
    machine_.loop.advance(60);
  }
  void wish(bool is_forgotten) {
    phone_->gdprForgetMe(is_forgotten);
    machine_.loop.advance(kSyncedSeconds);
  }
  void liveWithAWish() {
    start();
    live();
    wish(true);
    die();
  }
  /// Requests since the last call, without erasures.
  size_t leaks() {
    const size_t all = machine_.transport.requests().size() - erasures();
    return all - std::exchange(leaked_before_, all);
  }
  size_t erasures() const { return machine_.transport.requests(services::kGdprReqUrlPath).size(); }
  std::string storePath() { return disk_.place().path(); }
  std::string wishPath() { return host::WishFile::pathFor(disk_.place()); }
  bool isOfTheStore(std::string_view path) { return path == storePath() || path == storePath() + "-wal"; }
  std::optional<host::WishSector> inTheFile() { return host::newestWishSector(disk_.bytesOf(wishPath())); }
  /// Changes the store's file between processes; the log has been written back.
  void changeStore(const std::function<void(std::string& bytes)>& change) {
    std::string bytes = disk_.bytesOf(storePath());
    change(bytes);
    disk_.put(storePath(), bytes);
    disk_.put(storePath() + "-wal", "");
  }
  void removeWishFile() {
    disk_.cutNow();
    disk_.restart(DiskCut::killed());
    ASSERT_FALSE(disk_.place().files->remove(wishPath()));
  }

  /// Has the install attributed in this process.
  void attribute() {
    start();
    machine_.edit("fendoUserInfo_fendoUserNo", 1001);
    machine_.edit("fendoUserInfo_referralKey", 7);
    machine_.loop.advance(kSyncedSeconds);
  }
  size_t clicks() const { return machine_.transport.requests(services::kReEngagementConversionPath).size(); }
  /// Until disk_.decide() is called again.
  void failToReadTheWish() {
    disk_.decide([this](const DiskCall& call) {
      return call.path == wishPath() && call.kind == DiskCall::Kind::kRead ? SQLITE_IOERR_READ : SQLITE_OK;
    });
  }
  /// The file has what an earlier process was told.
  void startWithAFileThatCannotBeRead(bool says_forgotten) {
    start();
    wish(says_forgotten);
    die();
    failToReadTheWish();
    start();
  }
  /// The file can be read from now on; waits until the device has noticed.
  void letTheWishBeRead() {
    disk_.decide({});
    machine_.loop.advance(runtime::kWishRereadSeconds + 1);
  }

  // States of a store, as the next process sees them.
  void makeNewer() {
    changeStore([](std::string& bytes) { bytes[63] = 2; });  // SQLite's user version
  }
  void spoil() {
    changeStore([](std::string& bytes) { bytes.assign(bytes.size(), 'x'); });
  }
  void forbidToWrite() {
    disk_.decide([this](const DiskCall& call) {
      return isOfTheStore(call.path) && call.kind == DiskCall::Kind::kWrite ? SQLITE_READONLY : SQLITE_OK;
    });
  }
  void holdByAnother() {
    disk_.decide([this](const DiskCall& call) { return isOfTheStore(call.path) ? SQLITE_BUSY : SQLITE_OK; });
  }
  /// Forgotten, which only the store knows; the store cannot be read until everything works again.
  void startUnavailable() {
    liveWithAWish();
    removeWishFile();
    holdByAnother();
    start();
    machine_.loop.advance(1);
  }
  /// On the store's own thread. The turn that takes over the content comes a little later.
  void openItsFileForTheNextCommit() {
    constexpr double kABitLater = runtime::kStartHoldTrySeconds / 5;
    machine_.loop.advance(runtime::kStartHoldSeconds + kABitLater);
    disk_.decide({});
    machine_.loop.advance(runtime::kStoreReopenSeconds);
  }

  SimulatedDisk disk_;
  VirtualMachine machine_{{.disk = &disk_}};
  testing::RecordingLog log_;
  std::unique_ptr<runtime::Instance> phone_;

 private:
  size_t leaked_before_ = 0;
};

// --------------------------------------------------------------------------------------------- states of the store

class ForgottenDeviceIn : public ForgottenDevice, public ::testing::WithParamInterface<const char*> {
 protected:
  void bringAbout() {
    const std::string_view state = GetParam();
    if (state == "NewerVersion")
      makeNewer();
    else if (state == "SetAside")
      spoil();
    else if (state == "NotWritable")
      forbidToWrite();
    else if (state == "HeldByAnother")
      holdByAnother();
  }
  /// If the store may become readable again, its flag counts as well, and it may say otherwise.
  static Recorded answerToAWithdrawal() {
    const std::string_view state = GetParam();
    return state == "NotWritable" || state == "HeldByAnother" ? Recorded::kKeptInMemory : Recorded::kKept;
  }
  /// What the log says of this state.
  static const char* line() {
    const std::string_view state = GetParam();
    if (state == "Good")
      return "";
    if (state == "NewerVersion")
      return "has version 2, this program knows versions up to 1";
    if (state == "SetAside")
      return "was set aside";
    return state == "NotWritable" ? "cannot be written" : "cannot be opened";
  }
};

INSTANTIATE_TEST_SUITE_P(AnyState, ForgottenDeviceIn,
                         ::testing::Values("Good", "NewerVersion", "SetAside", "NotWritable", "HeldByAnother"),
                         [](const auto& named) { return std::string(named.param); });

TEST_P(ForgottenDeviceIn, OfItsStoreStaysForgotten) {
  liveWithAWish();
  EXPECT_GT(leaks(), 0U);
  bringAbout();
  for (int process = 0; process < 2; ++process) {
    start();
    EXPECT_TRUE(phone_->isGdprForgetMe());
    live();
    EXPECT_EQ(leaks(), 0U);
    EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
    die();
  }
  EXPECT_TRUE(*line() == '\0' || log_.countContaining(line()) > 0);
}

TEST_P(ForgottenDeviceIn, OfItsStoreKeepsANewWishAndItsWithdrawal) {
  start();
  live();
  die();
  bringAbout();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->gdprForgetMe(true), Recorded::kKept);
  machine_.loop.advance(kSyncedSeconds);
  EXPECT_EQ(erasures(), 1U);
  die();
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->gdprForgetMe(false), answerToAWithdrawal());
  die();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
}

TEST_F(ForgottenDevice, IsKeptInMemoryAloneWhereNeitherFileNorStoreTakesTheWish) {
  start();
  live();
  disk_.decide([](const DiskCall& call) { return call.kind == DiskCall::Kind::kRead ? SQLITE_OK : SQLITE_FULL; });
  EXPECT_EQ(phone_->gdprForgetMe(true), Recorded::kKeptInMemory);
  disk_.decide({});
  EXPECT_EQ(phone_->gdprForgetMe(true), Recorded::kKept);
}

TEST_F(ForgottenDevice, ChangesTheFileNextToANewerStoreAndNotTheStore) {
  start();
  live();
  die();
  makeNewer();
  const std::string before = disk_.bytesOf(storePath());
  start();
  wish(true);
  die();
  EXPECT_EQ(inTheFile()->is_forgotten, true);
  EXPECT_EQ(disk_.bytesOf(storePath()), before);
  EXPECT_EQ(disk_.bytesOf(storePath() + "-wal"), "");
}

// -------------------------------------------------------------------------------------------------- states of the file

TEST_F(ForgottenDevice, CountsAsForgottenWhereTheFileSaysNothingUntilTheAppAsksTheUser) {
  start();
  live();
  die();
  leaks();
  const std::string damaged(host::kWishFileBytes, 'x');
  disk_.put(wishPath(), damaged);
  for (int process = 0; process < 2; ++process) {
    start();
    EXPECT_TRUE(phone_->isGdprForgetMe());
    EXPECT_EQ(phone_->status().wish_file, WishFileState::kUnreadable);
    live();
    EXPECT_EQ(leaks(), 0U);
    EXPECT_EQ(log_.countContaining(kUnreadable), 1U);
    EXPECT_EQ(disk_.bytesOf(wishPath()), damaged);
    log_.clear();
    die();
  }
  start();
  phone_->gdprForgetMe(false);
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
  die();
  log_.clear();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  EXPECT_EQ(log_.countContaining(kUnreadable), 0U);
  live();
  EXPECT_GT(leaks(), 0U);
}

TEST_F(ForgottenDevice, TakesAWishThatTheServiceHadAcceptedAgainWhereTheFileSaysNothing) {
  start();
  live();
  wish(true);
  phone_->properties().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
  live();
  die();
  disk_.put(wishPath(), std::string(host::kWishFileBytes, 'x'));
  start();
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kUnreadable);
  phone_->gdprForgetMe(true);
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
  EXPECT_EQ(inTheFile()->is_forgotten, true);
}

// ------------------------------------------------------------------------------- a file that cannot be read at present

TEST_F(ForgottenDevice, IsForgottenOnlyAsLongAsTheFileCannotBeRead) {
  start();
  live();
  die();
  leaks();
  failToReadTheWish();
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kNotRead);
  EXPECT_EQ(toText(phone_->status().wish_file), "not read");
  phone_->applicationDidBecomeActive();
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
  machine_.loop.advance(60);
  EXPECT_EQ(leaks(), 0U);
  EXPECT_EQ(log_.countContaining(kNotRead), 1U);

  letTheWishBeRead();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  EXPECT_FALSE(phone_->properties().MorvikCoreUserInfo_isGDPRForgetMe());
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kKept);
  EXPECT_TRUE(phone_->status().is_session_open) << "the app is active";
  EXPECT_GT(leaks(), 0U);
  phone_->applicationDidEnterBackground();
  machine_.loop.advance(60);
  EXPECT_FALSE(phone_->status().is_session_open);
  EXPECT_EQ(log_.countContaining(kUnreadable), 0U);
}

TEST_F(ForgottenDevice, ReadsTheFileAgainWithTheNextSyncOfTheStore) {
  start();
  live();
  die();
  failToReadTheWish();
  start();
  disk_.decide({});
  machine_.loop.advance(1);
  EXPECT_FALSE(phone_->isGdprForgetMe());
  leaks();
  live();
  EXPECT_GT(leaks(), 0U) << "the next session is a normal one";
}

TEST_F(ForgottenDevice, GoesOnWhereAFileThatCanBeReadAgainSaysForgotten) {
  liveWithAWish();
  spoil();
  leaks();
  failToReadTheWish();
  start();
  phone_->applicationDidBecomeActive();
  letTheWishBeRead();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
  EXPECT_EQ(leaks(), 0U);
  die();
  ASSERT_FALSE(disk_.place().files->remove(wishPath()));
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe()) << "the store has it as well";
}

TEST_F(ForgottenDevice, LivesOnWhereTheFileCanBeReadBeforeTheStore) {
  start();
  live();
  die();
  disk_.decide([this](const DiskCall& call) {
    return isOfTheStore(call.path) || call.path == wishPath() ? SQLITE_BUSY : SQLITE_OK;
  });
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  holdByAnother();
  machine_.loop.advance(runtime::kWishRereadSeconds + 1);
  EXPECT_FALSE(phone_->isGdprForgetMe());
  disk_.decide({});
  machine_.loop.advance(runtime::kWishRereadSeconds + 1);
  phone_->setAge(30);
  machine_.loop.advance(kSyncedSeconds);
  leaks();
  live();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  EXPECT_GT(leaks(), 0U);
}

TEST_F(ForgottenDevice, HandlesWhatItWasHandedOnceTheFileCanBeRead) {
  attribute();
  die();
  failToReadTheWish();
  start();
  phone_->applicationDidBecomeActive();
  EXPECT_EQ(phone_->passOpenURL(kClick), Recorded::kKept);
  machine_.loop.advance(60);
  EXPECT_EQ(clicks(), 0U);
  die();
  start();
  letTheWishBeRead();
  EXPECT_EQ(clicks(), 1U);
}

TEST_F(ForgottenDevice, HandlesWhatItWasHandedOnceItIsToldWhileTheFileCannotBeRead) {
  for (const bool is_forgotten : {false, true}) {
    attribute();
    die();
    failToReadTheWish();
    start();
    const size_t before = clicks();
    phone_->passOpenURL(kClick);
    machine_.loop.runUntilIdle();
    EXPECT_EQ(phone_->storedValue(runtime::kHandedOverKey).size(), 1U);
    phone_->gdprForgetMe(is_forgotten);
    machine_.loop.advance(1);
    EXPECT_EQ(phone_->storedValue(runtime::kHandedOverKey).size(), 0U);
    EXPECT_EQ(clicks() - before, is_forgotten ? 0U : 1U);
    die();
    disk_.decide({});
  }
}

TEST_F(ForgottenDevice, StaysForgottenWhereAFileThatCanBeReadAgainSaysNothing) {
  start();
  live();
  die();
  disk_.put(wishPath(), std::string(host::kWishFileBytes, 'x'));
  failToReadTheWish();
  start();
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kNotRead);
  letTheWishBeRead();
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kUnreadable);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(log_.countContaining(kUnreadable), 1U);
}

TEST_F(ForgottenDevice, HasItsFileMadeWhereItTurnsOutThatThereIsNone) {
  for (const bool is_forgotten : {true, false}) {
    startWithAFileThatCannotBeRead(is_forgotten);
    ASSERT_FALSE(disk_.place().files->remove(wishPath()));
    letTheWishBeRead();
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    die();
    ASSERT_TRUE(inTheFile().has_value());
    EXPECT_EQ(inTheFile()->is_forgotten, is_forgotten);
  }
}

TEST_F(ForgottenDevice, KeepsWhatItWasToldWhileTheFileCouldNotBeRead) {
  for (const bool is_forgotten : {true, false}) {
    startWithAFileThatCannotBeRead(!is_forgotten);
    phone_->gdprForgetMe(is_forgotten);
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    letTheWishBeRead();
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    die();
    EXPECT_EQ(inTheFile()->is_forgotten, is_forgotten);
  }
}

TEST_F(ForgottenDevice, KeepsWhatItIsToldWhileTheFileIsRead) {
  for (const bool is_forgotten : {true, false}) {
    startWithAFileThatCannotBeRead(!is_forgotten);
    disk_.decide([this, is_forgotten, is_told = false](const DiskCall& call) mutable {
      if (call.path == wishPath() && call.kind == DiskCall::Kind::kRead && !std::exchange(is_told, true))
        phone_->gdprForgetMe(is_forgotten);
      return SQLITE_OK;
    });
    machine_.loop.advance(kSyncedSeconds);
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    die();
    EXPECT_EQ(inTheFile()->is_forgotten, is_forgotten);
    disk_.decide({});
    start();
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    die();
  }
}

TEST_F(ForgottenDevice, IsNoneAfterAnErasingWhileTheFileCouldNotBeRead) {
  start();
  live();
  die();
  failToReadTheWish();
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_TRUE(phone_->eraseLocalData());
  die();
  disk_.decide({});
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe()) << "nobody has asked for it, and the file says so";
}

TEST_F(ForgottenDevice, TakesAFileOfOneGoodSectorAtItsWord) {
  liveWithAWish();
  std::string bytes = disk_.bytesOf(wishPath());
  const size_t older = inTheFile()->offset() == 0 ? host::kWishSectorBytes : 0;
  bytes.replace(older, host::kWishSectorBytes, host::kWishSectorBytes, 'x');
  disk_.put(wishPath(), bytes);
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
}

TEST_F(ForgottenDevice, HasItsFileMadeFromTheStoredFlagWhereThereIsNone) {
  for (const bool is_forgotten : {true, false}) {
    start();
    wish(is_forgotten);
    die();
    removeWishFile();
    start();
    EXPECT_EQ(phone_->isGdprForgetMe(), is_forgotten);
    machine_.loop.advance(1);
    die();
    ASSERT_TRUE(inTheFile().has_value());
    EXPECT_EQ(inTheFile()->is_forgotten, is_forgotten);
  }
}

TEST_F(ForgottenDevice, HasItsFileMadeFromAStoreThatRecoversLate) {
  liveWithAWish();
  removeWishFile();
  holdByAnother();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  machine_.loop.advance(1);
  EXPECT_FALSE(inTheFile().has_value()) << "the wish is not known yet";
  disk_.decide({});
  phone_->setAge(30);
  machine_.loop.advance(1 + runtime::kCommitRetrySeconds);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  die();
  ASSERT_TRUE(inTheFile().has_value());
  EXPECT_TRUE(inTheFile()->is_forgotten);
}

TEST_F(ForgottenDevice, SendsNothingInTheTurnInWhichItsStoreRecovers) {
  startUnavailable();
  openItsFileForTheNextCommit();
  leaks();
  bool has_begun = false;
  phone_->mainQueue().async([&] {
    phone_->applicationDidBecomeActive();
    static_cast<void>(phone_->setAge(30));
    has_begun = phone_->pending().requests > 0;
  });
  machine_.loop.advance(60);
  EXPECT_TRUE(has_begun);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(leaks(), 0U);
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kRefusedForgotten);
}

TEST_F(ForgottenDevice, IsOneInTheCommitInWhichItsStoreRecovers) {
  startUnavailable();
  openItsFileForTheNextCommit();
  bool was_known = true;
  bool is_known = false;
  phone_->mainQueue().async([&] {
    was_known = phone_->properties().MorvikCoreUserInfo_isGDPRForgetMe();
    static_cast<void>(phone_->setAge(30));
    is_known = phone_->isGdprForgetMe();
  });
  machine_.loop.advance(1);
  EXPECT_FALSE(was_known);
  EXPECT_TRUE(is_known);
}

TEST_F(ForgottenDevice, EndsWhatWaitsForAConnectionOnceItsStoreHasRecovered) {
  startUnavailable();
  machine_.transport.setDefaultAnswer(testing::Answer::silence());
  for (int click = 1; click <= 20; ++click)
    phone_->passOpenURL("https://shop.example/?mrvk_eng=1&sn=3&ck=" + std::to_string(click));
  phone_->applicationDidBecomeActive();
  machine_.loop.advance(runtime::kStartHoldSeconds + 0.5);
  leaks();
  ASSERT_GT(phone_->pending().requests, runtime::kMaxConnectionsPerHost);
  failToReadTheWish();  // the recovery reads it again, and success would end them too
  static_cast<void>(phone_->setAge(30));
  machine_.loop.advance(0.5);
  static_cast<void>(phone_->setAge(31));
  machine_.loop.advance(0.5);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_EQ(phone_->pending().requests, runtime::kMaxConnectionsPerHost) << "those that have left";
  EXPECT_EQ(leaks(), 0U);
}

TEST_F(ForgottenDevice, IsNoneWithoutAFileAndWithoutAReadableStore) {
  start();
  live();
  die();
  removeWishFile();
  spoil();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
}

// ------------------------------------------------------------------------------------- another process had the store

/// A machine on which another process uses the store until this one opens it, and writes its last wish just before.
class MachineOfTwo final : public VirtualMachine {
 public:
  explicit MachineOfTwo(SimulatedDisk& disk) : VirtualMachine({.disk = &disk}), disk_(disk) {}
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    if (last_wish)
      writeByAnother(disk_, *last_wish);
    return VirtualMachine::makeStore(folder, log);
  }
  static void writeByAnother(SimulatedDisk& disk, bool is_forgotten) {
    host::WishFile file(disk.place());
    file.goOnFrom(file.read());
    EXPECT_EQ(file.write(is_forgotten, runtime::MachineWishFile::Word::kNew, file.takeTurn(runtime::kMaxWishTurn)),
              std::nullopt);
  }
  std::optional<bool> last_wish;

 private:
  SimulatedDisk& disk_;
};

TEST(WishOfAnotherProcess, CountsUpToTheMomentThatItLetsGoOfTheStore) {
  SimulatedDisk disk;
  MachineOfTwo machine(disk);
  auto first = machine.start(simulatedApp());
  machine.loop.advance(kSyncedSeconds);
  machine.kill(std::move(first));
  for (const bool is_forgotten : {false, true}) {
    MachineOfTwo::writeByAnother(disk, !is_forgotten);
    machine.last_wish = is_forgotten;
    auto phone = machine.start(simulatedApp());
    EXPECT_EQ(phone->isGdprForgetMe(), is_forgotten);
    machine.kill(std::move(phone));
  }
}

TEST_F(ForgottenDevice, HearsOfTheWishOfAProcessThatHadTheStoreMeanwhile) {
  start();
  live();
  die();
  holdByAnother();
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  MachineOfTwo::writeByAnother(disk_, true);
  disk_.decide({});
  phone_->setAge(30);
  machine_.loop.advance(1 + runtime::kCommitRetrySeconds);
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_TRUE(phone_->properties().MorvikCoreUserInfo_isGDPRForgetMe());
  leaks();
  live();
  EXPECT_EQ(leaks(), 0U);
}

TEST_F(ForgottenDevice, KeepsWhatItWasToldWhileAnotherProcessHadTheStore) {
  liveWithAWish();
  holdByAnother();
  start();
  phone_->gdprForgetMe(false);
  MachineOfTwo::writeByAnother(disk_, true);
  disk_.decide({});
  phone_->setAge(30);
  machine_.loop.advance(1);
  EXPECT_FALSE(phone_->isGdprForgetMe()) << "the wish made here counts";
}

// ------------------------------------------------------------------------------------------------------------- orders

TEST_F(ForgottenDevice, HasTrueInTheFileBeforeTheStoreAndFalseAfterIt) {
  start();
  live();
  std::vector<std::string> order;
  disk_.decide([&](const DiskCall& call) {
    if (call.kind == DiskCall::Kind::kWrite && (order.empty() || order.back() != call.path))
      order.emplace_back(call.path);
    return SQLITE_OK;
  });
  phone_->gdprForgetMe(true);
  EXPECT_THAT(order, ElementsAre(wishPath(), storePath() + "-wal"));
  order.clear();
  phone_->gdprForgetMe(false);
  EXPECT_THAT(order, ElementsAre(storePath() + "-wal", wishPath()));
}

TEST_F(ForgottenDevice, HasItsWishInAFileThatWasRemovedMeanwhileAlsoAfterAPowerCut) {
  start();
  live();
  ASSERT_FALSE(disk_.place().files->remove(wishPath()));
  wish(true);
  die(DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1));
  EXPECT_EQ(disk_.bytesOf(wishPath()), host::wishFileBytes(true));
}

TEST_F(ForgottenDevice, GoesOnBehindTheLastNumberThatAFileCanHave) {
  start();
  live();
  die();
  const host::WishSector last{host::kLastWishSequence, false};
  disk_.put(wishPath(), host::wishSectorBytes({host::kLastWishSequence - 1, true}) + host::wishSectorBytes(last));
  start();
  EXPECT_FALSE(phone_->isGdprForgetMe());
  wish(true);
  die();
  EXPECT_EQ(disk_.bytesOf(wishPath()), host::wishFileBytes(true));
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  wish(false);
  die();
  EXPECT_EQ(inTheFile(), (host::WishSector{host::kFirstWishSequence + 1, false}));
}

TEST_F(ForgottenDevice, IsInTheFileWhoeverSetsTheFlag) {
  start();
  machine_.loop.advance(1);
  phone_->properties().setMorvikCoreUserInfo_isGDPRForgetMe(true);
  EXPECT_TRUE(inTheFile()->is_forgotten);
  phone_->properties().setMorvikCoreUserInfo_isGDPRForgetMe(false);
  machine_.loop.runUntilIdle();  // the disk is synced, but nothing had the store commit that
  EXPECT_TRUE(inTheFile()->is_forgotten);
  phone_->properties().synchronize();
  EXPECT_FALSE(inTheFile()->is_forgotten);
  machine_.edit("MorvikCoreUserInfo_isGDPRForgetMe", true);
  EXPECT_TRUE(inTheFile()->is_forgotten);
}

TEST_F(ForgottenDevice, TellsTheServiceAgainWhereTheFileAloneKnewOfTheWish) {
  machine_.transport.on(services::kGdprReqUrlPath).always(testing::Answer::json(kit::Dictionary{{"ok", true}}));
  liveWithAWish();
  EXPECT_EQ(erasures(), 1U);
  spoil();
  start();
  wish(true);
  EXPECT_EQ(erasures(), 2U) << "only the lost store knew that it was accepted";
}

// --------------------------------------------------------------------------------------------------------- the erasure

TEST_F(ForgottenDevice, SendsNoErasureBeforeTheWishIsOnTheDisk) {
  start();
  live();
  std::vector<size_t> erasures_at_sync;
  disk_.decide([&](const DiskCall& call) {
    if (call.kind == DiskCall::Kind::kSync && call.path == wishPath())
      erasures_at_sync.push_back(erasures());
    return SQLITE_OK;
  });
  phone_->gdprForgetMe(true);
  machine_.loop.advance(0.01);
  EXPECT_THAT(erasures_at_sync, ElementsAre(0U));
  EXPECT_EQ(erasures(), 1U) << "it waits for nothing else";
}

TEST_F(ForgottenDevice, SendsItsErasureAfterTwoSecondsWhereTheFileCannotBeSynced) {
  start();
  live();
  disk_.decide([&](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kSync && call.path == wishPath() ? SQLITE_IOERR_FSYNC : SQLITE_OK;
  });
  phone_->gdprForgetMe(true);
  machine_.loop.advance(runtime::kErasureHoldSeconds - 0.1);
  EXPECT_EQ(erasures(), 0U);
  EXPECT_EQ(phone_->pending().requests, 1U);
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kNotWritten);
  machine_.loop.advance(0.2);
  EXPECT_EQ(erasures(), 1U);
  EXPECT_EQ(log_.countContaining(kNotOnTheDisk), 1U);
  EXPECT_EQ(log_.countContaining("cannot be written (disk I/O error)"), 1U);
}

TEST_F(ForgottenDevice, SendsItsWithdrawalAfterTwoSecondsWhereTheFileCannotBeSynced) {
  liveWithAWish();
  start();
  machine_.loop.advance(kSyncedSeconds);
  disk_.decide([&](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kSync && call.path == wishPath() ? SQLITE_IOERR_FSYNC : SQLITE_OK;
  });
  const size_t before = erasures();
  phone_->gdprForgetMe(false);
  machine_.loop.advance(runtime::kErasureHoldSeconds + 0.1);
  EXPECT_EQ(erasures(), before + 1);
  EXPECT_EQ(log_.countContaining(kNotOnTheDisk), 1U);
}

TEST_F(ForgottenDevice, SendsItsErasureAfterTwoSecondsWhereTheDiskIsSlow) {
  start();
  live();
  machine_.sync_seconds = runtime::kErasureHoldSeconds + 1;
  phone_->gdprForgetMe(true);
  machine_.loop.advance(runtime::kErasureHoldSeconds - 0.1);
  EXPECT_EQ(erasures(), 0U);
  machine_.loop.advance(0.2);
  EXPECT_EQ(erasures(), 1U) << "before the current sync ends";
  EXPECT_EQ(log_.countContaining("did not reach the disk within 2 s (the disk is slow)"), 1U);
  machine_.loop.advance(kSyncedSeconds);
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
}

TEST_F(ForgottenDevice, SendsItsErasureAfterTwoSecondsWhereThereIsNoRoomForTheFile) {
  disk_.decide([&](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kCreate && call.path.starts_with(wishPath()) ? SQLITE_FULL : SQLITE_OK;
  });
  start();
  phone_->gdprForgetMe(true);
  machine_.loop.advance(runtime::kErasureHoldSeconds - 0.1);
  EXPECT_EQ(erasures(), 0U);
  machine_.loop.advance(0.2);
  EXPECT_EQ(erasures(), 1U);
  disk_.decide({});
  phone_->setAge(30);
  machine_.loop.advance(1);
  EXPECT_EQ(phone_->status().wish_file, WishFileState::kGood);
  EXPECT_TRUE(inTheFile()->is_forgotten);
}

TEST_F(ForgottenDevice, StaysForgottenWhereTheFileCouldNotTakeTheWishAndTheStoreCould) {
  start();
  live();
  disk_.decide([&](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kWrite && call.path == wishPath() ? SQLITE_IOERR_WRITE : SQLITE_OK;
  });
  wish(true);
  die();
  EXPECT_FALSE(inTheFile()->is_forgotten);
  disk_.decide({});
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  machine_.loop.advance(1);
  EXPECT_TRUE(inTheFile()->is_forgotten) << "the file follows";
}

TEST_F(ForgottenDevice, KeepsItsWishOnAFullDisk) {
  start();
  live();
  disk_.decide([&](const DiskCall& call) {
    const bool grows = call.kind == DiskCall::Kind::kCreate || call.kind == DiskCall::Kind::kWrite;
    return grows && call.path != wishPath() ? SQLITE_FULL : SQLITE_OK;  // the wish file's own sectors exist already
  });
  wish(true);
  EXPECT_EQ(erasures(), 1U);
  die();
  start();
  EXPECT_TRUE(phone_->isGdprForgetMe());
}

TEST_F(ForgottenDevice, SendsNoErasureAnyMoreOnceTheKitIsStopped) {
  start();
  live();
  disk_.decide([&](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kSync && call.path == wishPath() ? SQLITE_IOERR_FSYNC : SQLITE_OK;
  });
  phone_->gdprForgetMe(true);
  machine_.loop.advance(1);
  phone_->stop();
  machine_.loop.advance(10);
  EXPECT_EQ(erasures(), 0U);
}

// ------------------------------------------------------------------------------------------------------- at any moment

struct Death {
  const char* name;
  DiskCut cut;
};

std::vector<Death> deaths() {
  return {{"killed", DiskCut::killed()},
          {"power lost", DiskCut::powerLost(PowerLoss::kNothingUnsynced, 1)},
          {"power lost, torn", DiskCut::powerLost(PowerLoss::kTorn, 2)},
          {"power lost, scattered", DiskCut::powerLost(PowerLoss::kScattered, 3)}};
}

/// A device that is cut off before this change, if it gets that far.
class CutOff {
 public:
  explicit CutOff(uint64_t at) { disk_.cutAt(at); }
  ~CutOff() { machine_.kill(std::move(phone_)); }

  void start() { phone_ = machine_.start(simulatedApp()); }
  void restart(const DiskCut& cut) {
    machine_.kill(std::move(phone_), cut);
    start();
  }
  bool isCut() const { return disk_.isCut(); }
  runtime::Instance& phone() { return *phone_; }
  void advance(double seconds) { machine_.loop.advance(seconds); }

 private:
  SimulatedDisk disk_;
  VirtualMachine machine_{{.disk = &disk_}};
  std::unique_ptr<runtime::Instance> phone_;
};

TEST(CutOffAnywhere, ANewUserIsNeverForgotten) {
  for (const Death& death : deaths()) {
    bool is_cut = true;
    for (uint64_t at = 1; is_cut; ++at) {
      CutOff device(at);
      device.start();
      device.phone().addActivity("shop", "look", std::nullopt);
      device.advance(kSyncedSeconds);
      is_cut = device.isCut();
      device.restart(death.cut);
      EXPECT_FALSE(device.phone().isGdprForgetMe()) << death.name << " at change " << at;
      EXPECT_EQ(device.phone().status().wish_file, WishFileState::kGood) << death.name << " at change " << at;
    }
  }
}

TEST(CutOffAnywhere, AWishThatWasOnceOnTheDiskHoldsUntilItIsWithdrawn) {
  for (const Death& death : deaths()) {
    bool is_cut = true;
    for (uint64_t at = 1; is_cut; ++at) {
      CutOff device(at);
      device.start();
      device.phone().gdprForgetMe(true);
      const bool had_returned = !device.isCut();
      device.advance(kSyncedSeconds);
      const bool was_synced = !device.isCut();
      device.phone().gdprForgetMe(false);
      is_cut = device.isCut();
      device.restart(death.cut);
      const bool is_forgotten = device.phone().isGdprForgetMe();
      const bool is_killed = !death.cut.power_lost;
      if (is_killed && !is_cut) {
        EXPECT_FALSE(is_forgotten) << "withdrawn";
      }
      // If some unsynced data reached the disk, the withdrawal may have survived.
      if (is_cut && (is_killed ? had_returned : was_synced && death.cut.loss == PowerLoss::kNothingUnsynced)) {
        EXPECT_TRUE(is_forgotten) << death.name << " at change " << at;
      }
    }
  }
}

}  // namespace
}  // namespace morvik::simulation
