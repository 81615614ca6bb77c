// What happens to records on a full disk, above all to a wish to be forgotten.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>

#include "runtime/loop/commit_retry.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/endpoints.h"
#include "simulation/simulated_disk.h"
#include "simulation/virtual_machine.h"

namespace morvik::simulation {
namespace {

using ::testing::SizeIs;

class FullDisk : public ::testing::Test {
 protected:
  FullDisk() : machine_({.disk = &disk_}) {
    machine_.transport.on("").always(::morvik::testing::Answer::body(200, "{}"));
    phone_ = machine_.start(simulatedApp());
    machine_.loop.advance(60);
  }

  void fill() {
    disk_.decide([](const DiskCall& call) {
      // The wish file is overwritten in place and needs no more room.
      const bool wants_room = call.kind == DiskCall::Kind::kWrite && !call.path.ends_with(".wish");
      return wants_room ? SQLITE_FULL : SQLITE_OK;
    });
  }
  void makeRoom() { disk_.decide({}); }
  void wishToBeForgotten() {
    phone_->gdprForgetMe(true);
    machine_.loop.advance(1);
  }
  void dieAndStart() {
    machine_.kill(std::move(phone_));
    phone_ = machine_.start(simulatedApp());
  }

  SimulatedDisk disk_;
  VirtualMachine machine_;
  std::unique_ptr<runtime::Instance> phone_;
};

// A request waits for the commit of its turn, but not for one that cannot be made: on a full disk the device would
// otherwise send nothing more, and a wish that only reaches the server is better than one that reaches nobody.
TEST_F(FullDisk, DoesNotKeepAWishToBeForgottenFromTheServer) {
  fill();
  wishToBeForgotten();
  EXPECT_THAT(machine_.transport.requests(services::kGdprReqUrlPath), SizeIs(1));
  EXPECT_TRUE(phone_->isGdprForgetMe());
}

TEST_F(FullDisk, KeepsTheWishAlthoughNoRoomIsEverFound) {
  fill();
  wishToBeForgotten();
  makeRoom();
  dieAndStart();
  EXPECT_TRUE(phone_->isGdprForgetMe());
}

TEST_F(FullDisk, KeepsTheWishAsSoonAsThereIsRoomAlthoughNothingElseHappens) {
  fill();
  wishToBeForgotten();
  machine_.loop.advance(5 * runtime::kCommitRetrySeconds);
  makeRoom();
  machine_.loop.advance(runtime::kCommitRetrySeconds);
  dieAndStart();
  EXPECT_TRUE(phone_->isGdprForgetMe());
  EXPECT_TRUE(phone_->properties().MorvikCoreUserInfo_isGDPRForgetMeServerSynced());
}

TEST_F(FullDisk, IsToldToWhoeverRecordsOrSetsMeanwhileAndNotAfterwards) {
  EXPECT_EQ(phone_->setAge(27), Recorded::kKept);
  const size_t stored = phone_->properties().fendoActivityInfos().size();
  fill();
  EXPECT_EQ(phone_->setAge(28), Recorded::kKeptInMemory);
  EXPECT_EQ(phone_->setUserId("user-7"), Recorded::kKeptInMemory);
  EXPECT_EQ(phone_->clearUserId(), Recorded::kKeptInMemory);
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kKeptInMemory);
  EXPECT_EQ(phone_->passOpenURL("app://x?cid=shoe"), Recorded::kKeptInMemory);
  makeRoom();
  EXPECT_EQ(phone_->setAge(29), Recorded::kKept);
  dieAndStart();
  EXPECT_EQ(phone_->properties().fendoUserDemoInfo_age(), 29);
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), stored + 1);
  EXPECT_EQ(phone_->storedValue("host.handedOver").size(), 1U);
}

TEST_F(FullDisk, IsNotToldOfWhereTheSecondTryOfACallFindsRoom) {
  const size_t stored = phone_->properties().fendoActivityInfos().size();
  int failures = 1;
  disk_.decide([&failures](const DiskCall& call) {
    return call.kind == DiskCall::Kind::kWrite && failures-- > 0 ? SQLITE_FULL : SQLITE_OK;
  });
  EXPECT_EQ(phone_->addActivity("shop", "look", std::nullopt), Recorded::kKept);
  EXPECT_LE(failures, 0);
  dieAndStart();
  EXPECT_EQ(phone_->properties().fendoActivityInfos().size(), stored + 1);
}

TEST_F(FullDisk, DoesNotUndoThatAllIsToBeErasedAndTheNextStartWithRoomGoesOn) {
  phone_->addActivity("shop", "look", std::nullopt);
  phone_->gdprForgetMe(true);
  machine_.loop.advance(60);
  const kit::Value before = phone_->storedValue(runtime::kInstallIdKey);
  fill();
  EXPECT_FALSE(phone_->eraseLocalData());
  EXPECT_FALSE(phone_->status().is_running);
  makeRoom();
  dieAndStart();
  EXPECT_NE(phone_->storedValue(runtime::kInstallIdKey), before);
  EXPECT_THAT(phone_->properties().fendoActivityInfos(), SizeIs(0));
  EXPECT_TRUE(phone_->isGdprForgetMe());
}

TEST_F(FullDisk, IsTriedOnceInEveryTenSecondsAndNoMoreWhenAllIsKept) {
  size_t tries = 0;
  disk_.decide([&tries](const DiskCall& call) {
    if (call.kind != DiskCall::Kind::kWrite)
      return SQLITE_OK;
    ++tries;
    return SQLITE_FULL;
  });
  phone_->addActivity("shop", "purchase", std::nullopt);
  machine_.loop.runUntilIdle();
  phone_->addActivity("shop", "purchase", std::nullopt);
  machine_.loop.runUntilIdle();
  const size_t tries_of_their_turns = tries;
  machine_.loop.advance(100 * runtime::kCommitRetrySeconds);
  EXPECT_GE(tries_of_their_turns, 2U);
  EXPECT_EQ(tries, tries_of_their_turns + 100);
  makeRoom();
  machine_.loop.advance(runtime::kCommitRetrySeconds);
  const uint64_t changes = disk_.changes();
  machine_.loop.advance(100 * runtime::kCommitRetrySeconds);
  EXPECT_LE(disk_.changes() - changes, 1U) << "the sync that follows a commit, and nothing else";
}

}  // namespace
}  // namespace morvik::simulation
