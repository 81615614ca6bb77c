// What an app recorded, tracked independently of the kit and of its ledger: each record identified by its name, each
// arrival recorded, and for each record what the rules allow to happen to it.
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
#include "morvik/recorded.h"
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

/// Whether a rule allows records of this kind to be removed for this reason.
bool mayGo(RecordKind kind, RemovalReason reason);
/// Where records of this kind are sent.
testing::ServiceEndpoint endpointTaking(RecordKind kind);

struct ExpectedRecord {
  RecordKind kind = RecordKind::kActivities;
  std::string name;
  int64_t key = 0;  ///< for clicks
  double recorded_at = 0;
  double kept_from = kNever;     ///< virtual time from which it must survive a kill
  double trimmed_from = kNever;  ///< virtual time from which it is known to be accepted and must not be sent again
  std::optional<Recorded> told;  ///< to the app, when it recorded it
  RemovalReasons may_go = 0;     ///< reasons that may have removed it, by what was seen
  uint64_t times_sent = 0;       ///< to where the service is, with or without arriving
  size_t under_way = 0;          ///< number of requests that carry it
  bool is_stored = false;
  bool was_stored = false;           ///< while a list is compared with the previous one
  uint64_t times_stored = 0;         ///< how often it entered its list: a click may be removed and stored again
  bool has_arrived = false;          ///< the service has it
  bool is_in_doubt = false;          ///< a death may have undone it
  bool is_undone = false;            ///< a death undid it, or it is gone for a reason: it arrived, or a rule removed it
  double settled_at = -kNever;       ///< when it was counted as undone
  bool waits_outside_store = false;  ///< not recorded yet: a crash report waiting for the store

  /// The first rule that may have removed it, as a row of removalRules().
  std::optional<size_t> firstRule() const;
  bool isGone() const { return !is_stored && !has_arrived && under_way == 0 && !is_undone && !waits_outside_store; }
};

/// A record's index among the expected ones.
using RecordNumber = size_t;

/// For one kind, what the device's own account may say.
struct ExpectedCounts {
  uint64_t recorded_least = 0;
  uint64_t recorded_most = 0;
  uint64_t recorded_again = 0;  ///< possibly, over the whole run: arrived records may have arrived once more
  uint64_t stored = 0;
  uint64_t arrived = 0;           ///< each once, including those that a death undid
  uint64_t arrived_for_good = 0;  ///< without those
  uint64_t gone = 0;
};

class ExpectedRecords {
 public:
  /// `key`: for clicks. The name must be new among its kind.
  RecordNumber record(RecordKind kind, std::string name, double now, int64_t key = 0);
  /// A record that a death undid comes again, such as a URL that was kept.
  void recordAgain(RecordNumber number, double now);
  /// A death undid it or may have undone it.
  bool mayBeUndone(RecordNumber number) const { return records_[number].is_undone || records_[number].is_in_doubt; }
  std::optional<RecordNumber> find(RecordKind kind, std::string_view name) const;
  ExpectedRecord& operator[](RecordNumber number) { return records_[number]; }
  const ExpectedRecord& operator[](RecordNumber number) const { return records_[number]; }
  const std::vector<ExpectedRecord>& all() const { return records_; }

  /// From now on it survives a kill.
  void keep(RecordNumber number, double now);
  /// From now on its acceptance survives a kill.
  void trim(RecordNumber number, double now) { records_[number].trimmed_from = now; }
  /// What was held in memory since `since`, because the disk was full, is written only now.
  void writeLate(double since, double now);
  void permit(RecordNumber number, RemovalReason reason) { records_[number].may_go |= bitOf(reason); }
  void permitStored(RecordKind kind, RemovalReason reason);
  void arrives(RecordNumber number);
  /// Exactly these are stored of their kind. Returns those that nobody recorded (`unknown`) and those stored twice
  /// (`doubled`).
  struct Unexpected {
    std::vector<std::string> unknown;
    std::vector<std::string> doubled;
  };
  Unexpected setStored(RecordKind kind, const std::vector<std::string>& names);
  /// Those of `names` that are not stored wait outside the store, where they survive any death; no others of that kind
  /// do.
  void waitOutsideTheStore(RecordKind kind, const std::vector<std::string>& names);
  /// A record that waited outside is in the store now.
  void takeIn(RecordNumber number);
  const std::vector<RecordNumber>& stored(RecordKind kind) const { return stored_[indexOf(kind)]; }
  /// A recorded click may be recorded once more.
  void mayBeRecordedAgain(RecordKind kind) {
    ++again_[indexOf(kind)];
    ++again_ever_[indexOf(kind)];
  }

  /// What was not kept before `undone_from` may be undone; `undone_from_of_kept` is that of records of which the app
  /// was told that they are kept: no trouble of the disk excuses them, only the power. Nothing is stored or under way
  /// until the next start. After a power loss, a record that an earlier death undid may be there after all: some
  /// sectors of an interrupted write were on the disk, and another interrupted write adds the rest.
  void die(double undone_from, double undone_from_of_kept, bool power_lost);
  /// The next process knows what it holds: a doubtful record that is not there and has not arrived is undone.
  /// `recorded`: the counts of the device's account, by kind; until then counts() says which are allowed.
  void settle(const std::array<uint64_t, kRecordKinds>& recorded, double now);

  ExpectedCounts counts(RecordKind kind) const;
  /// How many may be, or might have been, removed for this reason; a record that came back counts each time it was
  /// stored.
  uint64_t permitted(RecordKind kind, RemovalReason reason) const;
  /// Missing records without an explanation.
  std::vector<RecordNumber> lost() const;

 private:
  std::vector<ExpectedRecord> records_;
  std::array<std::map<std::string, RecordNumber, std::less<>>, kRecordKinds> by_name_;
  std::array<std::vector<RecordNumber>, kRecordKinds> of_kind_;
  std::array<std::vector<RecordNumber>, kRecordKinds> stored_;
  std::array<uint64_t, kRecordKinds> expected_{};  ///< recorded, as the device should count them
  std::array<uint64_t, kRecordKinds> doubtful_{};  ///< those of `expected_` that the latest deaths may have undone
  std::array<uint64_t, kRecordKinds> back_{};      ///< undone earlier, but possibly there after all
  std::array<uint64_t, kRecordKinds> again_{};     ///< in addition, possibly recorded once more
  bool is_in_doubt_ = false;                       ///< since the latest death
  std::array<uint64_t, kRecordKinds> again_ever_{};
};

/// The kind stored under the key; nothing for a key outside the ledger's kinds.
std::optional<RecordKind> kindStoredUnder(std::string_view key);
/// How many records of that kind the stored value holds.
size_t recordsIn(RecordKind kind, const kit::Value& stored);
/// The name of a stored record; for a demographic value "age=17".
std::string nameOfStored(RecordKind kind, std::string_view key, const kit::Value& record);
/// A record in a payload.
struct CarriedRecord {
  RecordKind kind;
  std::string name;
  int64_t key = 0;
};
std::vector<CarriedRecord> carriedBy(testing::ServiceEndpoint endpoint, const kit::Value& payload);

}  // namespace morvik::proofs
