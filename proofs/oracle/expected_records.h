// What an app recorded, kept apart from the kit and without knowledge of the kit's own ledger: each record told
// apart by its name, each arrival noted, and for each what the rules allow to become of it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/value.h"
#include "proofs/oracle/removal_rules.h"
#include "testing/service_endpoint.h"

namespace morvik::proofs {

/// The group of the activities that the kit records itself.
inline constexpr std::string_view kSessionGroup = "session";

inline constexpr double kNever = std::numeric_limits<double>::infinity();

/// Bits, one for each RemovalReason.
using RemovalReasons = uint32_t;
constexpr RemovalReasons bitOf(RemovalReason reason) {
  return RemovalReasons{1} << static_cast<unsigned>(reason);
}

/// Whether there is a rule that gives records of this kind up for this reason.
bool mayGo(RecordKind kind, RemovalReason reason);
/// Where records of this kind are sent.
testing::ServiceEndpoint endpointTaking(RecordKind kind);

struct ExpectedRecord {
  RecordKind kind = RecordKind::kActivities;
  std::string name;
  int64_t key = 0;  ///< of a click
  double recorded_at = 0;
  double kept_from = kNever;     ///< virtual time from which on it must outlive a kill
  double trimmed_from = kNever;  ///< virtual time from which on it is known to be accepted and must not be sent again
  RemovalReasons may_go = 0;     ///< the rules that may let it go, by what was seen
  size_t under_way = 0;          ///< requests that carry it
  bool is_stored = false;
  bool was_stored = false;           ///< while a list is compared with the one before
  uint64_t times_stored = 0;         ///< so often it came into its list: a click may be struck off and kept again
  bool has_arrived = false;          ///< the service has it
  bool is_in_doubt = false;          ///< a death may have undone it
  bool is_undone = false;            ///< one did, or it is neither there nor needed: it arrived, or a rule let it go
  double settled_at = -kNever;       ///< when it was taken for undone
  bool waits_outside_store = false;  ///< not recorded yet: a crash report that waits for the store

  bool isGone() const { return !is_stored && !has_arrived && under_way == 0 && !is_undone && !waits_outside_store; }
};

/// Place of a record among the expected ones.
using RecordNumber = size_t;

/// Of one kind, what may be said of the device's own account.
struct ExpectedCounts {
  uint64_t recorded_least = 0;
  uint64_t recorded_most = 0;
  uint64_t recorded_again = 0;  ///< maybe, ever: what arrived may have arrived once more
  uint64_t stored = 0;
  uint64_t arrived = 0;           ///< each once, also those that a death undid
  uint64_t arrived_for_good = 0;  ///< but for those
  uint64_t gone = 0;
};

class ExpectedRecords {
 public:
  /// `key`: of a click. The name is a new one among its kind.
  RecordNumber record(RecordKind kind, std::string name, double now, int64_t key = 0);
  /// What a death undid comes again: a URL that was kept, say.
  void recordAgain(RecordNumber number, double now);
  /// A death undid it, or may have.
  bool mayBeUndone(RecordNumber number) const { return records_[number].is_undone || records_[number].is_in_doubt; }
  std::optional<RecordNumber> find(RecordKind kind, std::string_view name) const;
  ExpectedRecord& operator[](RecordNumber number) { return records_[number]; }
  const ExpectedRecord& operator[](RecordNumber number) const { return records_[number]; }
  const std::vector<ExpectedRecord>& all() const { return records_; }

  /// From now on it outlives a kill.
  void keep(RecordNumber number, double now);
  /// Its acceptance is kept from now on.
  void trim(RecordNumber number, double now) { records_[number].trimmed_from = now; }
  /// What was held in memory since then, the disk having no room, is written only now.
  void writeLate(double since, double now);
  void permit(RecordNumber number, RemovalReason reason) { records_[number].may_go |= bitOf(reason); }
  void permitStored(RecordKind kind, RemovalReason reason);
  void arrives(RecordNumber number);
  /// These, and no others, are stored of their kind. Those that nobody recorded are told by `unknown`, those
  /// that stand there twice by `doubled`.
  struct Unexpected {
    std::vector<std::string> unknown;
    std::vector<std::string> doubled;
  };
  Unexpected setStored(RecordKind kind, const std::vector<std::string>& names);
  /// Of these the ones that are not stored wait for the store elsewhere, safe from any death; of their kind no others.
  void waitOutsideTheStore(RecordKind kind, const std::vector<std::string>& names);
  /// One that waited is in the store now.
  void takeIn(RecordNumber number);
  const std::vector<RecordNumber>& stored(RecordKind kind) const { return stored_[indexOf(kind)]; }
  /// A click that was recorded may be recorded once more.
  void mayBeRecordedAgain(RecordKind kind) {
    ++again_[indexOf(kind)];
    ++again_ever_[indexOf(kind)];
  }

  /// What was not kept before `undone_from` may be undone. Nothing is stored nor under way until the next start. When
  /// the power was lost, what an earlier death undid may be there after all: of a write that was cut off some sectors
  /// stood on the disk, and the others come with another write that is cut off.
  void die(double undone_from, bool power_lost);
  /// The next process knows what it holds: what is in doubt and neither there nor arrived is undone. `recorded`: by
  /// kind, what the device's account says; what it may say is told by counts() until then.
  void settle(const std::array<uint64_t, kRecordKinds>& recorded, double now);

  ExpectedCounts counts(RecordKind kind) const;
  /// How many may go, or might have gone, for this reason; what came back counts as often as it was stored.
  uint64_t permitted(RecordKind kind, RemovalReason reason) const;
  /// Those that are gone, and that nothing explains.
  std::vector<RecordNumber> lost() const;

 private:
  std::vector<ExpectedRecord> records_;
  std::array<std::map<std::string, RecordNumber, std::less<>>, kRecordKinds> by_name_;
  std::array<std::vector<RecordNumber>, kRecordKinds> of_kind_;
  std::array<std::vector<RecordNumber>, kRecordKinds> stored_;
  std::array<uint64_t, kRecordKinds> expected_{};  ///< recorded, as the device should count them
  std::array<uint64_t, kRecordKinds> doubtful_{};  ///< of these, undone by the latest deaths maybe
  std::array<uint64_t, kRecordKinds> back_{};      ///< undone earlier, and there after all maybe
  std::array<uint64_t, kRecordKinds> again_{};     ///< and besides these, recorded once more maybe
  bool is_in_doubt_ = false;                       ///< since the latest death
  std::array<uint64_t, kRecordKinds> again_ever_{};
};

/// A stored list or value of the ledger's kinds. Nothing for any other key.
std::optional<RecordKind> kindStoredUnder(std::string_view key);
/// So many records a value holds that is stored under the key of that kind.
size_t recordsIn(RecordKind kind, const kit::Value& stored);
/// The name of a stored record; of a demographic value "age=17".
std::string nameOfStored(RecordKind kind, std::string_view key, const kit::Value& record);
/// Names of what a payload carries, each with its kind.
struct CarriedRecord {
  RecordKind kind;
  std::string name;
  int64_t key = 0;
};
std::vector<CarriedRecord> carriedBy(testing::ServiceEndpoint endpoint, const kit::Value& payload);

}  // namespace morvik::proofs
