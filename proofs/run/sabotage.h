// What is made wrong on purpose in a run, to see that it is found out: in the machine, on its disk or in the app, never
// in the kit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "morvik/recorded.h"
#include "proofs/oracle/removal_rules.h"
#include "proofs/run/watched_machine.h"
#include "simulation/simulated_disk.h"

namespace morvik::proofs {

enum class Sabotage : uint8_t {
  kNone,
  // The disk and the machine around it.
  kSyncsNothing,           ///< no sync reaches the disk
  kDropsAWrite,            ///< every 50th write to the log never reaches it
  kKeepsNothing,           ///< what a process wrote is gone with it
  kForgetsTheLastSession,  ///< what was written since the latest session began is gone with its process
  kGarblesTheFile,         ///< what is left of the store's file after a death is no store
  kSyncsTooLate,           ///< a slow disk takes a minute to sync, and counts as much faster
  kIgnoresTheVersion,      ///< a store of a newer version is used as any other
  kLosesTheWishFile,       ///< next to a store of a newer version nothing knows of the wish
  // The store.
  kHoldsBack,          ///< of what is to survive together the last is written with the next such
  kForgetsAnActivity,  ///< every 20th activity that is stored never reaches the store
  kStoresStrangers,    ///< an impression that nobody recorded stands next to each that was
  kStoresClicksTwice,  ///< the stored list of clicks holds each twice
  kCountsTooFar,       ///< failure counts are ten too high
  kLosesTheWish,       ///< the wish to be forgotten is never stored
  kIsAnotherDevice,    ///< the identifier of the install is never stored
  kForgetsTheAccount,  ///< the stored account is no account
  kForgetsToDelete,    ///< what an accepted batch deletes of the activities stays
  // The network, the main queue and the log.
  kSendsBatchesTwice,   ///< each batch starts twice
  kLosesHandlers,       ///< the handler of a batch never runs
  kSpoilsDemographics,  ///< no answer to demographics ever arrives
  kLetsOutWhatWaits,    ///< what waits leaves although the user has asked to be forgotten meanwhile
  kRetriesTwice,        ///< each conversion that is put off is put off twice
  kSaysStrangeThings,   ///< lines of the log are not those of the kit
  // Between the app and the kit.
  kForgetsAtTheEnd,      ///< the app's events in the healthy end never reach the kit
  kForgetsTheExcused,    ///< what is recorded while a rule may let it go never reaches the kit
  kLosesTheNeighbours,   ///< what is recorded next to a value over the limit never reaches the kit
  kKeepsNoMemory,        ///< what a store cannot take is forgotten at once, and not stored later either
  kSaysItIsKept,         ///< the app is told that what it recorded is kept, whatever became of it
  kTakesWhatIsTooLarge,  ///< the app is told that a value over the limit was recorded
  kAsksForTheForgotten,  ///< after the wish to be forgotten a schedule is asked for
  kThrows,               ///< something is thrown in the middle of the run
};
inline constexpr size_t kSabotages = 32;
const char* nameOf(Sabotage sabotage);

/// What the app is about to record, and when.
struct RecordingMoment {
  RecordKind kind = RecordKind::kActivities;
  bool is_healthy_end = false;
  bool is_excused = false;          ///< a rule may let it go
  bool is_next_to_refused = false;  ///< next to a value over a limit
  bool is_writable = true;          ///< the store is
};

/// The chosen one of them at work; with kNone none is. A run asks it at each place where something can be made wrong,
/// and names none of them itself.
class RunSabotage final : public MachineSabotage {
 public:
  explicit RunSabotage(Sabotage sabotage) : sabotage_(sabotage) {}

  // The machine.
  size_t copiesOf(const kit::Request& request) override;
  bool losesHandlerOf(const kit::Request& request) override;
  bool losesTheWishWhileRequestsWait() override { return is(Sabotage::kLetsOutWhatWaits); }
  bool spoilsAnswerTo(const kit::Request& request) override;
  size_t timesPutOff(double delay_seconds) override;
  kit::Value stored(std::string_view key, kit::Value value) override;
  std::optional<HeldWrite> heldBack(const HeldWrite& last) override;
  std::string logged(std::string_view line) override;

  // The disk.
  /// What the disk answers to a call in good order: SQLITE_OK, or SimulatedDisk::kDropped.
  int diskAnswer(const simulation::DiskCall& call);
  /// How long it really takes when the run counts with `seconds`.
  double syncSeconds(double seconds) const;
  void processStarts(simulation::SimulatedDisk& disk);
  void sessionStarts(simulation::SimulatedDisk& disk);
  void processDied(simulation::SimulatedDisk& disk) const;
  bool ignoresTheVersion() const { return is(Sabotage::kIgnoresTheVersion); }
  /// The store is left to a newer program.
  void storeIsLeft(simulation::SimulatedDisk& disk) const;

  // The app.
  bool losesRecord(const RecordingMoment& moment) const;
  /// What the app is told in the place of the answer.
  Recorded told(Recorded answer) const;
  /// A request for a schedule that leaves although the user is forgotten; nothing: there is none.
  std::optional<kit::Request> requestOfForgotten() const;
  /// std::runtime_error, or nothing.
  void healthyEndStarts() const;

 private:
  bool is(Sabotage sabotage) const { return sabotage_ == sabotage; }
  kit::Value withoutLast(const kit::Value& list);
  kit::Value theLonger(const kit::Value& list);
  void rememberTheDisk(simulation::SimulatedDisk& disk);

  const Sabotage sabotage_;
  size_t last_size_ = 0;
  size_t grown_ = 0;
  kit::Value longest_;
  HeldWrite held_;
  uint64_t log_writes_ = 0;
  std::optional<kit::Request> schedule_request_;
  std::map<std::string, std::string> earlier_;  ///< bytes by path
};

}  // namespace morvik::proofs
