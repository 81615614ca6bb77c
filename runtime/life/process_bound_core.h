// A kit bound to its process: a forked child can do no harm with its copy.
#pragma once

#include <atomic>
#include <memory>

#include "morvik/morvik.h"
#include "runtime/instance.h"
#include "runtime/life/own_process.h"

namespace morvik::runtime {

/// Forwards every operation to the instance. In a forked child each operation does nothing, and the first one logs a
/// line: locks may be held by threads that do not exist there, and the store, the connections and the event loop are
/// the parent's. For the same reason the destructor leaves the instance's memory as it is there.
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
  /// True in a forked child: nothing may leave it.
  bool isGdprForgetMe() const override;
  void setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) override;
  void setLogLevel(int level) override;
  Ledger ledger() override;
  Explanation explain(std::string_view event_id) override;
  Status status() override;
  bool eraseLocalData() override;
  void perform(std::function<void()> block) override;
  int pollDescriptor() const override;
  int pollTimeoutMilliseconds() const override;
  void dispatch() override;
  void stop() override;
  void stop(std::chrono::milliseconds drain) override;

 private:
  /// Whether the instance may be used; logs a line, once, when it may not.
  bool isHere() const;

  std::unique_ptr<Instance> instance_;
  const OwnProcess process_;
  mutable std::atomic<bool> is_told_{false};
};

}  // namespace morvik::runtime
