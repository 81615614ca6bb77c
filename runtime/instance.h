// The host: the kit on a real machine, as an app sees it (morvik::MorvikCore) and as the programs of this tree do.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/crash.h"
#include "kit/error.h"
#include "kit/queues.h"
#include "kit/value.h"
#include "morvik/morvik.h"
#include "runtime/handed_over.h"
#include "services/MorvikGVUserDefaults.h"

namespace morvik {
class MorvikCoreLib;
}

namespace morvik::runtime {

/// Calls from other threads that wait for the main queue. Past this many a call is refused, with a line in the log: an
/// app that calls faster than the main queue runs would otherwise use up its memory.
inline constexpr size_t kMaxPostedCalls = 65'536;
/// What is still under way.
struct Pending {
  size_t requests = 0;            ///< started, and their handler has not begun
  size_t main_blocks = 0;         ///< due, and waiting for their turn
  size_t background_blocks = 0;   ///< waiting or running
  size_t session_end_blocks = 0;  ///< put off by a session end, for half a second
  // These do not keep the host from being settled.
  size_t background_tasks = 0;
  size_t retries = 0;  ///< put off for longer

  bool isSettled() const { return requests + main_blocks + background_blocks + session_end_blocks == 0; }
};

struct InstanceParts;
class InstanceEnding;

/// Made by makeInstance(). Threads as morvik::MorvikCore says. Not for a forked child: see ProcessBoundCore.
class Instance final : public morvik::MorvikCore {
 public:
  explicit Instance(std::shared_ptr<InstanceParts> parts);
  /// Stops, as morvik::MorvikCore says; within a callback it leaves: see InstanceEnding::stopOrLeave().
  ~Instance() override;
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  /// Lets the main queue run. Once, by makeInstance().
  std::optional<kit::Error> open();
  /// In a line of the log. Once, by makeInstance().
  void tellThatItStarted();

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

  /// How it ends, for the end of the process.
  const std::shared_ptr<InstanceEnding>& ending() const { return ending_; }
  /// A line that says why nothing happens in a forked child. Waits for no lock.
  void tellThatItIsForked() const;

  /// Of KeptForGood.
  Instance* kept_before = nullptr;

  // What the programs of this tree need beside.

  kit::MainQueue& mainQueue();
  /// Runs `block` once what the running turn wrote is committed. From within a turn only.
  void afterThisTurn(kit::Block block);
  /// The stored properties, and the two plain entries by their keys. Any thread.
  services::MorvikGVUserDefaults properties();
  kit::Value storedValue(std::string_view key);
  /// Keeps a URL for the next session start, as StartOptions::opened_url does. Any thread.
  void storeOpenedUrl(std::string_view url);
  /// All that is stored, by name, the host's own values included. Any thread.
  std::vector<std::pair<std::string, kit::Value>> allStored() const;
  /// Of the services object; held weakly. Any thread.
  void setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate);
  /// An exception that nobody caught becomes a crash report, if it concerns the kit. The crash hook does this itself;
  /// for machines on which nothing really crashes. Any thread; waits for no lock.
  void reportUncaughtException(const kit::UncaughtException& exception);
  /// Whether this thread could record at this moment without waiting for itself: not while it lets something in. For
  /// machines on which one thread stands for several.
  bool mayRecordHere() const;
  /// Any thread; what it counts may change while it counts, unless it is called within a turn.
  Pending pending() const;
  /// Calls `done` once, at the end of the first turn after which nothing is pending, or when the limit is up: then with
  /// false. From within a turn, and `done` is called within one, the present one included; what it stores is committed
  /// with the next. One can wait at a time.
  void settle(double limit_seconds, std::function<void(bool settled)> done);

 private:
  /// Counts it, and says so the first time.
  Recorded refuseNotRunning();
  template <class Record>
  Recorded recordNow(Record record);
  template <class Set>
  Recorded setNow(Set set);
  template <class Set>
  Recorded setAndCommit(Set set);
  Recorded setTwice(const char* pending, const char* complete, const kit::Value& wanted,
                    const std::function<void(MorvikCoreLib&)>& set);
  Recorded setUserIdTo(const std::optional<std::string>& user_id);
  /// As services::guarded(): nothing that an operation throws, for want of memory, reaches the app.
  template <class Call>
  auto guardedCall(const char* operation, Call call) const;
  Recorded refuseNoMemory();
  Recorded handOver(HandedOver::Kind kind, std::string_view text, const char* operation);
  /// Whether what is called now, on this thread, takes place: once the end has begun, within the kit's own blocks
  /// alone.
  bool takesPlace() const;
  /// Runs it at once on the main thread, posts it from another.
  void callOnMain(const char* operation, kit::Block block);
  void post(const char* operation, kit::Block block);

  /// Of eraseLocalData().
  struct Erasing {
    std::mutex mutex;  // guards what follows
    std::condition_variable ended;
    bool is_under_way = false;
    bool was_erased = false;
  };
  static bool erase(InstanceParts& parts, InstanceEnding& ending);

  // An operation that lets callbacks run on its thread shares these: one of them may destroy the host.
  const std::shared_ptr<InstanceParts> parts_;
  const std::shared_ptr<InstanceEnding> ending_;
  const std::shared_ptr<Erasing> erasing_;
  std::atomic<bool> is_not_running_told_{false};
};

}  // namespace morvik::runtime
