// Erases what the kit keeps, cut off at each change on the disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host/store/file_eraser.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/endpoints.h"
#include "simulation/test_device.h"
#include "simulation/virtual_machine.h"

namespace morvik::simulation {
namespace {

using std::chrono::seconds;
using ::testing::IsEmpty;

/// Long enough for recorded data to be synced to the disk.
constexpr double kSyncedSeconds = 5;
constexpr size_t kEvents = 3;

enum class Wish { kNone, kForgotten, kForgottenAndSynced, kWithdrawn };

struct Kept {
  std::string install_id;
  size_t events = 0;
  bool is_forgotten = false;
  bool is_synced = false;
};

Kept keptBy(runtime::Instance& process) {
  const auto properties = process.properties();
  return {.install_id = std::string(process.storedValue(runtime::kInstallIdKey).string()),
          .events = properties.fendoActivityInfos().size(),
          .is_forgotten = properties.MorvikCoreUserInfo_isGDPRForgetMe(),
          .is_synced = properties.MorvikCoreUserInfo_isGDPRForgetMeServerSynced()};
}

/// A device with recorded data, on a disk.
class Device {
 public:
  explicit Device(Wish wish) : machine_({.disk = &disk_}) {
    process_ = machine_.start(simulatedApp());
    for (size_t event = 0; event < kEvents; ++event)
      process_->addActivity("shop", "look", std::nullopt);
    machine_.loop.runUntilIdle();
    if (wish == Wish::kForgottenAndSynced)
      machine_.transport.on(services::kGdprReqUrlPath).always(testing::Answer::json(kit::Dictionary{{"ok", true}}));
    if (wish != Wish::kNone)
      process_->gdprForgetMe(true);
    machine_.loop.runUntilIdle();
    if (wish == Wish::kWithdrawn)
      process_->gdprForgetMe(false);
    machine_.loop.advance(kSyncedSeconds);
    before = keptBy(*process_);
  }

  /// Erases, cut off before this change, counted from now; false if there was no such change.
  bool eraseUntil(uint64_t change, const DiskCut& cut) {
    disk_.cutAt(disk_.changes() + change);
    const bool erased = process_->eraseLocalData();
    const bool was_cut = disk_.isCut();
    EXPECT_TRUE(erased);
    machine_.kill(std::move(process_), cut);
    return was_cut;
  }
  /// The next start, cut off in the same way.
  bool startUntil(uint64_t change, const DiskCut& cut) {
    disk_.cutAt(disk_.changes() + change);
    process_ = machine_.start(simulatedApp());
    const bool was_cut = disk_.isCut();
    machine_.kill(std::move(process_), cut);
    return was_cut;
  }
  Kept start() {
    process_ = machine_.start(simulatedApp());
    return keptBy(*process_);
  }
  bool isMarked() const { return !disk_.bytesOf("/disk/morvik.store.erasing").empty(); }

  Kept before;

 private:
  SimulatedDisk disk_;
  VirtualMachine machine_;
  std::unique_ptr<runtime::Instance> process_;
};

/// Either nothing was erased or everything; the wish is there in any case.
void expectWholeOrGone(Device& device, const std::string& where) {
  const Kept after = device.start();
  EXPECT_EQ(after.is_forgotten, device.before.is_forgotten) << where;
  EXPECT_EQ(after.is_synced, device.before.is_synced) << where;
  if (after.install_id == device.before.install_id)
    EXPECT_EQ(after.events, device.before.events) << where;
  else
    EXPECT_EQ(after.events, 0u) << where;
  EXPECT_FALSE(device.isMarked()) << where;
}

std::vector<DiskCut> cuts(uint64_t seed) {
  return {DiskCut::killed(), DiskCut::powerLost(PowerLoss::kNothingUnsynced, seed),
          DiskCut::powerLost(PowerLoss::kTorn, seed), DiskCut::powerLost(PowerLoss::kScattered, seed)};
}

class Erasing : public ::testing::TestWithParam<Wish> {};

TEST_P(Erasing, CutOffAnywhereIsFinishedByTheNextStartAndKeepsTheWish) {
  uint64_t points = 0;
  for (size_t mode = 0; mode < cuts(1).size(); ++mode) {
    for (uint64_t change = 1;; ++change) {
      Device device(GetParam());
      const bool was_cut = device.eraseUntil(change, cuts(change)[mode]);
      expectWholeOrGone(device, "mode " + std::to_string(mode) + ", change " + std::to_string(change));
      if (!was_cut)
        break;
      ++points;
    }
  }
  EXPECT_GT(points, 20u);
}

TEST_P(Erasing, CutOffAgainWhileItIsFinishedIsFinishedByTheStartAfterThat) {
  uint64_t points = 0;
  for (size_t mode = 0; mode < cuts(1).size(); ++mode) {
    for (uint64_t change = 1;; change += 3) {
      bool was_cut = false;
      for (uint64_t later = 1;; later += 5) {
        Device device(GetParam());
        was_cut = device.eraseUntil(change, cuts(change)[mode]);
        const bool was_cut_again = device.startUntil(later, cuts(later)[mode]);
        expectWholeOrGone(device, "mode " + std::to_string(mode) + ", changes " + std::to_string(change) + " and " +
                                      std::to_string(later));
        if (!was_cut_again)
          break;
        ++points;
      }
      if (!was_cut)
        break;
    }
  }
  EXPECT_GT(points, 40u);
}

INSTANTIATE_TEST_SUITE_P(Wishes, Erasing,
                         ::testing::Values(Wish::kNone, Wish::kForgotten, Wish::kForgottenAndSynced, Wish::kWithdrawn),
                         [](const auto& each) -> std::string {
                           switch (each.param) {
                             case Wish::kNone:
                               return "None";
                             case Wish::kForgotten:
                               return "Forgotten";
                             case Wish::kForgottenAndSynced:
                               return "ForgottenAndSynced";
                             case Wish::kWithdrawn:
                               return "Withdrawn";
                           }
                           return "";
                         });

TEST(ErasingNames, AreTheKitsOwn) {
  const host::StorePlace place{.folder = "/data"};
  EXPECT_THAT(host::FileEraser::namesOfTheKit(
                  place, {"morvik.store", "morvik.store-wal", "morvik.store-shm", "morvik.store-journal",
                          "morvik.store.unreadable-12", "morvik.store.unreadable-12-wal", "crash-signal",
                          "crash-signal.waiting", "crash-signal.unreadable", "crash-signal.tried", "crash-naming",
                          "crash-reports", "crash-reports.unreadable"}),
              ::testing::SizeIs(13));
  EXPECT_THAT(host::FileEraser::namesOfTheKit(
                  place, {"morvik.store.lock", "morvik.store.erasing", "morvik.store.unreadable-", "morvik.storeroom",
                          "morvik.store.unreadable-1x", "morvik.store.unreadable-wal", "amorvik.store", "notes.txt",
                          "crash-reports.txt", ""}),
              IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------- for an app

TEST(ErasedDevice, BeginsANewInstallAndDeliversAgain) {
  TestDevice device;
  device.open();
  device.kit().addActivity("shop", "purchase");
  device.settle();
  EXPECT_TRUE(device.kit().eraseLocalData());
  EXPECT_EQ(device.waiting("shop", "purchase"), 0u);
  device.restart();
  device.open();
  device.kit().addActivity("shop", "look");
  device.leave();
  EXPECT_EQ(device.delivered("shop", "look"), 1u);
  EXPECT_EQ(device.delivered("shop", "purchase"), 0u);
  EXPECT_EQ(device.service().installs(), 2u);
}

TEST(ErasedDevice, OfAForgottenUserStaysSilent) {
  TestDevice device;
  device.open();
  device.perform([&device] { device.kit().gdprForgetMe(true); });
  device.settle();
  EXPECT_TRUE(device.kit().eraseLocalData());
  device.restart();
  const size_t before = device.network().requests().size();
  device.open();
  device.advance(seconds(60));
  EXPECT_TRUE(device.kit().isGdprForgetMe());
  EXPECT_EQ(device.network().requests().size(), before);
}

}  // namespace
}  // namespace morvik::simulation
