#include "runtime/life/process_bound_core.h"

#include <utility>

#include "runtime/life/kept_for_good.h"

namespace morvik::runtime {

ProcessBoundCore::ProcessBoundCore(std::unique_ptr<Instance> instance, const OwnProcess& process)
    : instance_(std::move(instance)), process_(process) {}

/// In a fork the instance's memory stays as it is: a condition variable, for example, is only destroyed once every
/// waiting thread has woken, and those threads do not exist here.
ProcessBoundCore::~ProcessBoundCore() {
  if (!process_.isHere())
    KeptForGood<Instance>::add(*instance_.release());
}

bool ProcessBoundCore::isHere() const {
  if (process_.isHere())
    return true;
  if (!is_told_.exchange(true))
    instance_->tellThatItIsForked();
  return false;
}

void ProcessBoundCore::applicationDidBecomeActive() {
  if (isHere())
    instance_->applicationDidBecomeActive();
}

void ProcessBoundCore::applicationDidEnterBackground() {
  if (isHere())
    instance_->applicationDidEnterBackground();
}

Recorded ProcessBoundCore::addActivity(std::string_view group, std::string_view name,
                                       std::optional<std::string_view> param) {
  return isHere() ? instance_->addActivity(group, name, param) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::addImpression(const Impression& impression) {
  return isHere() ? instance_->addImpression(impression) : Recorded::kRefusedNotRunning;
}

void ProcessBoundCore::pushTracking() {
  if (isHere())
    instance_->pushTracking();
}

void ProcessBoundCore::flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) {
  if (isHere())
    instance_->flush(std::move(done), timeout);
}

FlushResult ProcessBoundCore::waitUntilDelivered(std::chrono::milliseconds timeout) {
  return isHere() ? instance_->waitUntilDelivered(timeout) : FlushResult{.reason = FlushReason::kStopped};
}

void ProcessBoundCore::setSendingEnabled(bool enabled) {
  if (isHere())
    instance_->setSendingEnabled(enabled);
}

Recorded ProcessBoundCore::passOpenURL(std::string_view url) {
  return isHere() ? instance_->passOpenURL(url) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setReferralUrlForFacebook(std::string_view url) {
  return isHere() ? instance_->setReferralUrlForFacebook(url) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::thirdPartyConversion() {
  return isHere() ? instance_->thirdPartyConversion() : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setAge(int32_t age) {
  return isHere() ? instance_->setAge(age) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setGender(int32_t gender) {
  return isHere() ? instance_->setGender(gender) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setUserId(std::string_view user_id) {
  return isHere() ? instance_->setUserId(user_id) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::clearUserId() {
  return isHere() ? instance_->clearUserId() : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::gdprForgetMe(bool forget_me) {
  return isHere() ? instance_->gdprForgetMe(forget_me) : Recorded::kRefusedNotRunning;
}

bool ProcessBoundCore::isGdprForgetMe() const {
  return !isHere() || instance_->isGdprForgetMe();
}

void ProcessBoundCore::setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) {
  if (isHere())
    instance_->setDelegate(std::move(delegate));
}

void ProcessBoundCore::setLogLevel(int level) {
  if (isHere())
    instance_->setLogLevel(level);
}

Ledger ProcessBoundCore::ledger() {
  return isHere() ? instance_->ledger() : Ledger{};
}

Explanation ProcessBoundCore::explain(std::string_view event_id) {
  return isHere() ? instance_->explain(event_id) : Explanation{};
}

Status ProcessBoundCore::status() {
  return isHere() ? instance_->status() : Status{};
}

bool ProcessBoundCore::eraseLocalData() {
  return isHere() && instance_->eraseLocalData();
}

void ProcessBoundCore::perform(std::function<void()> block) {
  if (isHere())
    instance_->perform(std::move(block));
}

int ProcessBoundCore::pollDescriptor() const {
  return isHere() ? instance_->pollDescriptor() : -1;
}

int ProcessBoundCore::pollTimeoutMilliseconds() const {
  return isHere() ? instance_->pollTimeoutMilliseconds() : -1;
}

void ProcessBoundCore::dispatch() {
  if (isHere())
    instance_->dispatch();
}

void ProcessBoundCore::stop() {
  if (isHere())
    instance_->stop();
}

void ProcessBoundCore::stop(std::chrono::milliseconds drain) {
  if (isHere())
    instance_->stop(drain);
}

}  // namespace morvik::runtime
