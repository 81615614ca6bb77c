#include "runtime/life/process_bound_core.h"

#include <utility>

#include "runtime/life/kept_for_good.h"

namespace morvik::runtime {

ProcessBoundCore::ProcessBoundCore(std::unique_ptr<Host> host, const OwnProcess& process)
    : host_(std::move(host)), process_(process) {}

/// The host's memory stays as it is in a fork: a condition variable, say, waits when it goes until each thread that
/// waits for it has woken, and these are not there.
ProcessBoundCore::~ProcessBoundCore() {
  if (!process_.isHere())
    KeptForGood<Host>::add(*host_.release());
}

bool ProcessBoundCore::isHere() const {
  if (process_.isHere())
    return true;
  if (!is_told_.exchange(true))
    host_->tellThatItIsForked();
  return false;
}

void ProcessBoundCore::applicationDidBecomeActive() {
  if (isHere())
    host_->applicationDidBecomeActive();
}

void ProcessBoundCore::applicationDidEnterBackground() {
  if (isHere())
    host_->applicationDidEnterBackground();
}

Recorded ProcessBoundCore::addActivity(std::string_view group, std::string_view name,
                                       std::optional<std::string_view> param) {
  return isHere() ? host_->addActivity(group, name, param) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::addImpression(const Impression& impression) {
  return isHere() ? host_->addImpression(impression) : Recorded::kRefusedNotRunning;
}

void ProcessBoundCore::pushTracking() {
  if (isHere())
    host_->pushTracking();
}

void ProcessBoundCore::flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) {
  if (isHere())
    host_->flush(std::move(done), timeout);
}

FlushResult ProcessBoundCore::waitUntilDelivered(std::chrono::milliseconds timeout) {
  return isHere() ? host_->waitUntilDelivered(timeout) : FlushResult{.reason = FlushReason::kStopped};
}

void ProcessBoundCore::setSendingEnabled(bool enabled) {
  if (isHere())
    host_->setSendingEnabled(enabled);
}

Recorded ProcessBoundCore::passOpenURL(std::string_view url) {
  return isHere() ? host_->passOpenURL(url) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setReferralUrlForFacebook(std::string_view url) {
  return isHere() ? host_->setReferralUrlForFacebook(url) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::thirdPartyConversion() {
  return isHere() ? host_->thirdPartyConversion() : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setAge(int32_t age) {
  return isHere() ? host_->setAge(age) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setGender(int32_t gender) {
  return isHere() ? host_->setGender(gender) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::setUserId(std::string_view user_id) {
  return isHere() ? host_->setUserId(user_id) : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::clearUserId() {
  return isHere() ? host_->clearUserId() : Recorded::kRefusedNotRunning;
}

Recorded ProcessBoundCore::gdprForgetMe(bool forget_me) {
  return isHere() ? host_->gdprForgetMe(forget_me) : Recorded::kRefusedNotRunning;
}

bool ProcessBoundCore::isGdprForgetMe() const {
  return !isHere() || host_->isGdprForgetMe();
}

void ProcessBoundCore::setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) {
  if (isHere())
    host_->setDelegate(std::move(delegate));
}

void ProcessBoundCore::setLogLevel(int level) {
  if (isHere())
    host_->setLogLevel(level);
}

Ledger ProcessBoundCore::ledger() {
  return isHere() ? host_->ledger() : Ledger{};
}

Status ProcessBoundCore::status() {
  return isHere() ? host_->status() : Status{};
}

bool ProcessBoundCore::eraseLocalData() {
  return isHere() && host_->eraseLocalData();
}

void ProcessBoundCore::perform(std::function<void()> block) {
  if (isHere())
    host_->perform(std::move(block));
}

int ProcessBoundCore::pollDescriptor() const {
  return isHere() ? host_->pollDescriptor() : -1;
}

int ProcessBoundCore::pollTimeoutMilliseconds() const {
  return isHere() ? host_->pollTimeoutMilliseconds() : -1;
}

void ProcessBoundCore::dispatch() {
  if (isHere())
    host_->dispatch();
}

void ProcessBoundCore::stop() {
  if (isHere())
    host_->stop();
}

void ProcessBoundCore::stop(std::chrono::milliseconds drain) {
  if (isHere())
    host_->stop(drain);
}

}  // namespace morvik::runtime
