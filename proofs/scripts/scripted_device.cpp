#include "proofs/scripts/scripted_device.h"

#include <optional>
#include <stdexcept>

#include "host/store/store_files.h"
#include "simulation/durations.h"

namespace morvik::proofs {
namespace {

using simulation::DiskCall;
using simulation::DiskCut;
using simulation::PowerLoss;
using testing::ServiceEndpoint;

constexpr uint64_t kWrittenBackCallsPerEvent = 5;

RunEnd endOf(const DiskCut& cut) {
  if (!cut.power_lost)
    return RunEnd::kKilled;
  switch (cut.loss) {
    case PowerLoss::kTorn:
      return RunEnd::kPowerLostTorn;
    case PowerLoss::kScattered:
      return RunEnd::kPowerLostScattered;
    case PowerLoss::kNothingUnsynced:
      break;
  }
  return RunEnd::kPowerLost;
}

}  // namespace

std::string ScriptedDevice::nextName(const char* what) {
  return std::string(what) + "-" + std::to_string(++last_name_);
}

void ScriptedDevice::runTurns() {
  if (!isCut())
    machine_.loop.runUntilIdle();
  checkIfAlive();
}

void ScriptedDevice::pass(double seconds) {
  advance(seconds);
  checkIfAlive();
}

void ScriptedDevice::checkIfAlive() {
  ++figures_.steps;
  if (!isCut())
    check();
}

void ScriptedDevice::openSession() {
  if (is_active_ && process_)
    return;
  app_does_.enterForeground();
  runTurns();
  is_active_ = true;
  pass(3);
}

void ScriptedDevice::leaveSession() {
  app_does_.leaveForeground();
  runTurns();
  is_active_ = false;
  pass(simulation::kGrantSeconds);
}

void ScriptedDevice::startBatch() {
  app_does_.push();
  runTurns();
}

void ScriptedDevice::pushTracking() {
  startBatch();
  pass(2);
}

void ScriptedDevice::record(int count, size_t padding) {
  for (int i = 0; i < count; ++i) {
    recordEvent(padding);
    pass(1.5);
  }
}

void ScriptedDevice::recordEvent(size_t padding) {
  app_does_.recordEvent(nextName("event"), "sku" + std::string(padding, '.'));
  runTurns();
}

void ScriptedDevice::offerTooMuch() {
  for (size_t call = 0; call < kLimitedCalls; ++call) {
    app_does_.offerTooLarge(static_cast<LimitedCall>(call));
    runTurns();
  }
}

void ScriptedDevice::addImpression() {
  app_does_.addImpression(nextName("impression"));
  runTurns();
  pass(1);
}

void ScriptedDevice::openReEngagementLink(double then_pass_seconds) {
  const std::string name = nextName("click");
  app_does_.openUrl("shop://offer?id=" + name + "&ck=" + std::to_string(5000 + last_name_) + "&sn=9001&mrvk_eng=1");
  runTurns();
  pass(then_pass_seconds);
}

void ScriptedDevice::openCommerceLink(double then_pass_seconds) {
  app_does_.openCommerceUrl("shop://offer?cid=", nextName("click"));
  runTurns();
  pass(then_pass_seconds);
}

void ScriptedDevice::setUserId() {
  app_does_.setUserId(nextName("user"));
  runTurns();
  pass(1);
}

void ScriptedDevice::reportCrash() {
  app_does_.reportCrash(nextName("fendo crash"), true);
  runTurns();
  is_dying_ = false;
}

void ScriptedDevice::wish(bool forget_me) {
  app_does_.wish(forget_me);
  runTurns();
}

void ScriptedDevice::withdraw() {
  app_does_.setOffline(true);
  wish(false);
  app_does_.setOffline(false);
  runTurns();
}

void ScriptedDevice::stop() {
  endInOrder();
}

void ScriptedDevice::die(const DiskCut& scripted) {
  const DiskCut& cut = isCut() ? cut_ : scripted;
  if (process_ || isCut())
    Driver::die(endOf(cut), cut);
}

void ScriptedDevice::endCutProcess() {
  if (isCut())
    die(cut_);
}

void ScriptedDevice::leaveTheStore() {
  letANewerProgramUseTheStore();
  if (!isCut() && !tracker_.facts.is_next_to_newer)
    throw std::runtime_error("a run that came this far has a store");
}

Treatment ScriptedDevice::treatmentOf(const kit::Request& request) {
  const std::optional<ServiceEndpoint> endpoint = testing::endpointOf(request.url);
  const auto found = endpoint ? misbehaviours_.find(*endpoint) : misbehaviours_.end();
  return steadyTreatment(found == misbehaviours_.end() ? Misbehaviour::kNone : found->second);
}

double ScriptedDevice::drawSyncSeconds() {
  return slow_sync_seconds_;
}

void ScriptedDevice::diskCalled(const DiskCall& call) {
  const bool goes_on = isFirstSyncOfASlowDisk(call) || isWrittenBack(call);
  if (!goes_on || is_healthy_ || !process_ || process_->isGdprForgetMe() ||
      ++written_back_calls_ % kWrittenBackCallsPerEvent != 0)
    return;
  app_does_.recordMeanwhile(nextName("event"));
}

bool ScriptedDevice::isWrittenBack(const DiskCall& call) {
  return (call.kind == DiskCall::Kind::kSync || (call.kind == DiskCall::Kind::kWrite && call.offset > 0)) &&
         call.path == flaky_disk_.disk.place().path() &&
         machine_.loop.running() == testing::VirtualLoop::Running::kMainBlock;
}

bool ScriptedDevice::isFirstSyncOfASlowDisk(const DiskCall& call) {
  if (call.kind != DiskCall::Kind::kSync || !call.path.ends_with("-wal") || !isBeforeFirstSync())
    return false;
  noteFirstSync();
  return slow_sync_seconds_ > 0;
}

}  // namespace morvik::proofs
