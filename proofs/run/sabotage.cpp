#include "proofs/run/sabotage.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "proofs/oracle/payload_values.h"
#include "proofs/run/power_cut_loss.h"
#include "proofs/run/stored_keys.h"
#include "proofs/run/wish_file.h"
#include "testing/service_endpoint.h"

namespace morvik::proofs {
namespace {

using kit::Value;
using simulation::DiskCall;
using simulation::SimulatedDisk;
using testing::ServiceEndpoint;

constexpr size_t kForgottenEvery = 20;
constexpr uint64_t kDroppedWriteEvery = 50;
constexpr int64_t kTooMany = 10;
constexpr size_t kGarbledBytes = 2048;

bool goesTo(ServiceEndpoint endpoint, const kit::Request& request) {
  return testing::endpointOf(request.url) == endpoint;
}

Value withStranger(const Value& impressions) {
  kit::MutableArray more(impressions);
  more.append(kit::Dictionary{{"campaignKey", 7}, {"spaceKey", "strange"}, {"createdAt", kit::Value(kit::Date{})}});
  return Value(std::move(more));
}

Value doubled(const Value& list) {
  kit::MutableArray twice(list);
  for (const Value& each : list.array())
    twice.append(each);
  return Value(std::move(twice));
}

Value raised(const Value& counts) {
  kit::MutableArray raised;
  for (const Value& count : counts.array())
    raised.append(
        kit::Dictionary{{"conversion_key", conversionKeyOf(count)}, {"failure_cnt", failuresOf(count) + kTooMany}});
  return Value(std::move(raised));
}

}  // namespace

const char* nameOf(Sabotage sabotage) {
  static constexpr std::array<const char*, kSabotages> kNames = {
      "none",
      "syncs nothing",
      "drops a write",
      "keeps nothing",
      "forgets the last session",
      "garbles the file",
      "syncs too late",
      "ignores the version",
      "loses the wish file",
      "holds back",
      "forgets an activity",
      "stores strangers",
      "stores clicks twice",
      "counts too far",
      "loses the wish",
      "is another device",
      "forgets the account",
      "forgets to delete",
      "sends batches twice",
      "loses handlers",
      "spoils demographics",
      "lets out what waits",
      "retries twice",
      "says strange things",
      "forgets at the end",
      "forgets the excused",
      "loses the neighbours",
      "keeps no memory",
      "says it is kept",
      "takes what is too large",
      "asks for the forgotten",
      "throws",
  };
  return kNames[static_cast<size_t>(sabotage)];
}

size_t RunSabotage::copiesOf(const kit::Request& request) {
  if (goesTo(ServiceEndpoint::kSchedule, request))
    schedule_request_ = request;
  return is(Sabotage::kSendsBatchesTwice) && goesTo(ServiceEndpoint::kTracking, request) ? 2 : 1;
}

bool RunSabotage::losesHandlerOf(const kit::Request& request) {
  return is(Sabotage::kLosesHandlers) && goesTo(ServiceEndpoint::kTracking, request);
}

bool RunSabotage::spoilsAnswerTo(const kit::Request& request) {
  return is(Sabotage::kSpoilsDemographics) && goesTo(ServiceEndpoint::kDemographics, request);
}

size_t RunSabotage::timesPutOff(double delay_seconds) {
  return is(Sabotage::kRetriesTwice) && delay_seconds > 1 ? 2 : 1;
}

Value RunSabotage::stored(std::string_view key, Value value) {
  switch (sabotage_) {
    case Sabotage::kForgetsAnActivity:
      return key == "fendoActivityInfos" ? withoutLast(value) : value;
    case Sabotage::kForgetsToDelete:
      return key == "fendoActivityInfos" ? theLonger(value) : value;
    case Sabotage::kStoresStrangers:
      return key == "fendoImpressionInfos" ? withStranger(value) : value;
    case Sabotage::kStoresClicksTwice:
      return key == "reEngagementInfos" ? doubled(value) : value;
    case Sabotage::kCountsTooFar:
      return key == "reEngagementConversionFailedCnt" ? raised(value) : value;
    case Sabotage::kLosesTheWish:
      return key == "MorvikCoreUserInfo_isGDPRForgetMe" ? Value(false) : value;
    case Sabotage::kIsAnotherDevice:
      return key == kInstallIdKey ? Value() : value;
    case Sabotage::kForgetsTheAccount:
      return key == kLedgerKey ? Value("no account") : value;
    default:
      return value;
  }
}

std::optional<HeldWrite> RunSabotage::heldBack(const HeldWrite& last) {
  if (!is(Sabotage::kHoldsBack))
    return std::nullopt;
  return std::exchange(held_, last);
}

std::string RunSabotage::logged(std::string_view line) {
  return (is(Sabotage::kSaysStrangeThings) ? "strange: " : "") + std::string(line);
}

/// Each 20th time that it grew.
Value RunSabotage::withoutLast(const Value& list) {
  const bool grew = list.size() > std::exchange(last_size_, list.size());
  if (!grew || ++grown_ % kForgottenEvery != 0)
    return list;
  kit::MutableArray shorter;
  const kit::Array records = list.array();
  for (size_t i = 0; i + 1 < records.size(); ++i)
    shorter.append(records[i]);
  return Value(std::move(shorter));
}

Value RunSabotage::theLonger(const Value& list) {
  if (list.size() >= longest_.size())
    longest_ = list;
  return longest_;
}

int RunSabotage::diskAnswer(const DiskCall& call) {
  const bool is_sync = call.kind == DiskCall::Kind::kSync || call.kind == DiskCall::Kind::kSyncFolder;
  const bool is_log_write = call.kind == DiskCall::Kind::kWrite && call.path.ends_with("-wal");
  const bool is_dropped = (is(Sabotage::kSyncsNothing) && is_sync) ||
                          (is(Sabotage::kDropsAWrite) && is_log_write && ++log_writes_ % kDroppedWriteEvery == 0);
  return is_dropped ? SimulatedDisk::kDropped : SQLITE_OK;
}

double RunSabotage::syncSeconds(double seconds) const {
  return is(Sabotage::kSyncsTooLate) && seconds > 0 ? kTooSlowSyncSeconds : seconds;
}

void RunSabotage::processStarts(SimulatedDisk& disk) {
  held_ = {};
  if (is(Sabotage::kKeepsNothing))
    rememberTheDisk(disk);
}

void RunSabotage::sessionStarts(SimulatedDisk& disk) {
  if (is(Sabotage::kForgetsTheLastSession))
    rememberTheDisk(disk);
}

/// For a store that forgets: what the disk held before.
void RunSabotage::rememberTheDisk(SimulatedDisk& disk) {
  for (const std::string& each : disk.paths())
    earlier_[each] = disk.bytesOf(each);
}

void RunSabotage::processDied(SimulatedDisk& disk) const {
  const std::string path = disk.place().path();
  if (is(Sabotage::kGarblesTheFile))
    disk.put(path, std::string(kGarbledBytes, 'x'));
  // No change of the disk's: one that it is cut off at would leave no process to die of it.
  if (is(Sabotage::kKeepsNothing))
    disk.remove(wishFileNextTo(disk.place()));
  if (!is(Sabotage::kKeepsNothing) && !is(Sabotage::kForgetsTheLastSession))
    return;
  for (const std::string& each : {path, path + "-wal"}) {
    const auto found = earlier_.find(each);
    disk.put(each, found == earlier_.end() ? "" : found->second);
  }
}

void RunSabotage::storeIsLeft(SimulatedDisk& disk) const {
  if (is(Sabotage::kLosesTheWishFile))
    disk.put(wishFileNextTo(disk.place()), wishFileOfARememberedUser());
}

bool RunSabotage::losesRecord(const RecordingMoment& moment) const {
  switch (sabotage_) {
    case Sabotage::kForgetsAtTheEnd:
      return moment.is_healthy_end && moment.kind == RecordKind::kActivities;
    case Sabotage::kForgetsTheExcused:
      return moment.is_excused;
    case Sabotage::kLosesTheNeighbours:
      return moment.is_next_to_refused;
    case Sabotage::kKeepsNoMemory:
      return !moment.is_writable;
    default:
      return false;
  }
}

Recorded RunSabotage::told(Recorded answer) const {
  const bool is_made_wrong = (is(Sabotage::kSaysItIsKept) && answer == Recorded::kKeptInMemory) ||
                             (is(Sabotage::kTakesWhatIsTooLarge) && answer == Recorded::kRefusedTooLarge);
  return is_made_wrong ? Recorded::kKept : answer;
}

std::optional<kit::Request> RunSabotage::requestOfForgotten() const {
  return is(Sabotage::kAsksForTheForgotten) ? schedule_request_ : std::nullopt;
}

void RunSabotage::healthyEndStarts() const {
  if (is(Sabotage::kThrows))
    throw std::runtime_error("it was to end badly");
}

}  // namespace morvik::proofs
