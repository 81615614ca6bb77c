// A kit of one process: a child that was forked from it can do no harm with its copy.
#pragma once

#include <atomic>
#include <memory>

#include "morvik/morvik.h"
#include "runtime/instance.h"
#include "runtime/life/own_process.h"

namespace morvik::runtime {

/// Hands every operation on to the host. In a forked child each does nothing instead, and the first one says so in a
/// line of the log: locks may be held there by threads that are not, and the store, the connections and the event loop
/// are the parent's. There the destructor leaves the host's memory as it is, for the same reason.
class ProcessBoundCore final : public morvik::MorvikCore {
 public:
  ProcessBoundCore(std::unique_ptr<Instance> instance, const OwnProcess& process);
  ~ProcessBoundCore() override;
  ProcessBoundCore(const ProcessBoundCore&) = delete;
  ProcessBoundCore& operator=(const ProcessBoundCore&) = delete;

  void applicationDidBecomeActive() override;
  void applicationDidEnterBackground() override;
  Recorded addActivity(std::string_view group, std::string_view name, std::optional<std::string_view> param) override;
  Recorded addImpression(const Impression& impression) override;
  void pushTracking() override;
  void flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) override;
  FlushResult waitUntilDelivered(std::chrono::milliseconds timeout) override;
  void setSendingEnabled(bool enabled) override;
  Recorded passOpenURL(std::string_view url) override;
  Recorded setReferralUrlForFacebook(std::string_view url) override;
  Recorded thirdPartyConversion() override;
  Recorded setAge(int32_t age) override;
  Recorded setGender(int32_t gender) override;
  Recorded setUserId(std::string_view user_id) override;
  Recorded clearUserId() override;
  Recorded gdprForgetMe(bool forget_me) override;
  /// In a forked child true: nothing may leave it.
  bool isGdprForgetMe() const override;
  void setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) override;
  void setLogLevel(int level) override;
  Ledger ledger() override;
  Status status() override;
  bool eraseLocalData() override;
  void perform(std::function<void()> block) override;
  int pollDescriptor() const override;
  int pollTimeoutMilliseconds() const override;
  void dispatch() override;
  void stop() override;
  void stop(std::chrono::milliseconds drain) override;

 private:
  /// Whether the host may be touched; tells, once, when it may not.
  bool isHere() const;

  std::unique_ptr<Instance> instance_;
  const OwnProcess process_;
  mutable std::atomic<bool> is_told_{false};
};

}  // namespace morvik::runtime
