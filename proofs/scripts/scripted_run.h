// A scripted run of one device on a disk that can fail: everything that is recorded in some hours, with batches refused
// and lost, deaths and a wish to be forgotten, in virtual time; and the account of it. The same to the byte each time,
// up to the change of the disk at which a run is cut off.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "proofs/oracle/removal_rules.h"
#include "proofs/run/sabotage.h"
#include "simulation/simulated_disk.h"

namespace morvik::proofs {

/// An error that the disk answers with, to one call or to some in a row; then it is well again.
struct DiskFault {
  enum class At : uint8_t {
    kWrite,        ///< a write, a truncation or a new file: the disk is full
    kSync,         ///< the disk cannot be synced
    kReadAtStart,  ///< a read while a process starts fails
  };
  static constexpr size_t kPlaces = 3;
  At at = At::kWrite;
  uint64_t first = 1;  ///< of the calls of that kind, from 1
  uint64_t calls = 1;  ///< so many in a row
};

struct ScriptedRunOptions {
  /// The disk is cut off before the change with this number; 0: never, but where the run itself ends that way.
  uint64_t cut_before_change = 0;
  simulation::DiskCut cut;
  std::optional<DiskFault> fault;
  /// Draws what the script leaves open.
  uint64_t seed = 1;
  Sabotage sabotage = Sabotage::kNone;
};

/// What a run must never show.
enum class Complaint : uint8_t {
  kUnreadableStore,     ///< a store that was set aside, or with damaged records
  kLostAtKill,          ///< what was synchronized, and is gone with a killed process
  kLostAtPowerCut,      ///< what was recorded before the last second, and is gone with the power
  kLostOtherwise,       ///< gone, and nothing was cut
  kSentTwice,           ///< an event on the wire again, and nothing explains it
  kUnbalancedAccount,   ///< what the app recorded, the service has and the store holds, and the kit's account of it
  kForgottenWish,       ///< a wish to be forgotten, or its withdrawal, that did not outlive the process
  kRequestOfForgotten,  ///< a request but the erasure of a user who asked to be forgotten
  kUnsoundLedger,       ///< the kit's account in itself misses something, counts it twice, or gives it up by no rule
  kAnotherDevice,       ///< what makes the device this one was lost: it was installed again
  kTouchedNewerStore,   ///< a store of a newer version that was changed
  kWrongAnswer,         ///< the app was told something else than became of what it recorded
  kBroken               ///< something was thrown, or a host did not start: the run ended there, without an account
};
inline constexpr size_t kComplaints = 13;
const char* nameOf(Complaint complaint);

/// One account over all that was recorded: activities, impressions, clicks, crash reports and demographics.
struct ScriptedRunTotals {
  uint64_t recorded = 0;
  uint64_t delivered = 0;
  uint64_t stored = 0;
  /// By row of removalRules(). What several rules may have let go stands under the first of them.
  std::vector<uint64_t> given_up = std::vector<uint64_t>(removalRules().size());
  uint64_t not_kept_yet = 0;  ///< when the cut came: in the turn that it met, in the last second, or on a failing disk
  /// The app was told so, and the process ended before the store could take it.
  uint64_t kept_in_memory = 0;
  uint64_t givenUp() const;
  bool balances() const { return recorded == delivered + stored + givenUp() + not_kept_yet + kept_in_memory; }
  ScriptedRunTotals& operator+=(const ScriptedRunTotals& other);
};

/// What a run is to meet, to see that it does.
enum class Occasion : uint8_t {
  kNewerStore,      ///< processes next to a store of a newer version
  kUnwritable,      ///< answers "kept in memory only" of a store that can be read and not written
  kSlowSync,        ///< flushes of a slow disk
  kTooLarge,        ///< values over a limit that were refused
  kFullConnection,  ///< requests that waited for a connection at the wish to be forgotten
};
inline constexpr size_t kOccasions = 5;
const char* nameOf(Occasion occasion);

struct ScriptedRunResult {
  ScriptedRunTotals totals;
  uint64_t changes = 0;                                     ///< of the disk
  std::array<uint64_t, DiskFault::kPlaces> fault_points{};  ///< calls that a fault can meet
  uint64_t cuts = 0;
  uint64_t power_cuts = 0;          ///< of these
  uint64_t recorded_meanwhile = 0;  ///< while the log was being written back
  uint64_t installs = 0;            ///< that the service attributed, but for those next to a newer store
  uint64_t sent_twice = 0;          ///< events that went out again for a reason
  std::array<uint64_t, kOccasions> occasions{};
  std::array<uint64_t, kComplaints> complaints{};
  std::vector<std::string> texts;  ///< what was complained of

  uint64_t count(Complaint complaint) const { return complaints[static_cast<size_t>(complaint)]; }
  bool isFine() const { return texts.empty(); }
};

/// Plays it to its healthy end. What is thrown in it is complained of. Any thread; shares nothing with other runs.
ScriptedRunResult playScriptedRun(const ScriptedRunOptions& options);

}  // namespace morvik::proofs
