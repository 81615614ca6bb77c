// One running kit, as an app sees it (morvik::MorvikCore) and as the programs of this tree do.
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

/// Calls from other threads that wait for the main queue. Beyond this a call is refused, with a log line: an app that
/// calls faster than the main queue runs would use up its memory.
inline constexpr size_t kMaxPostedCalls = 65'536;
/// What is still in progress.
struct Pending {
  size_t requests = 0;            ///< started, handler not begun
  size_t main_blocks = 0;         ///< due, waiting for their turn
  size_t background_blocks = 0;   ///< waiting or running
  size_t session_end_blocks = 0;  ///< delayed by a session end, for half a second
  // These do not keep the instance from being settled.
  size_t background_tasks = 0;
  size_t retries = 0;  ///< delayed for longer

  bool isSettled() const { return requests + main_blocks + background_blocks + session_end_blocks == 0; }
};

struct InstanceParts;
class InstanceEnding;

/// Made by makeInstance(). Threads as for morvik::MorvikCore. Not for a forked child: see ProcessBoundCore.
class Instance final : public morvik::MorvikCore {
 public:
  explicit Instance(std::shared_ptr<InstanceParts> parts);
  /// Stops, as morvik::MorvikCore says. Within a callback see InstanceEnding::stopOrLeave().
  ~Instance() override;
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  /// Lets the main queue run. Called once, by makeInstance().
  std::optional<kit::Error> open();
  /// Writes a line to the log. Called once, by makeInstance().
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
  Explanation explain(std::string_view event_id) override;
  Status status() override;
  bool eraseLocalData() override;
  void perform(std::function<void()> block) override;
  int pollDescriptor() const override;
  int pollTimeoutMilliseconds() const override;
  void dispatch() override;
  void stop() override;
  void stop(std::chrono::milliseconds drain) override;

  /// Stops the instance at the end of the process.
  const std::shared_ptr<InstanceEnding>& ending() const { return ending_; }
  /// Writes a line that says why nothing happens in a forked child. Takes no lock.
  void tellThatItIsForked() const;

  /// For KeptForGood.
  Instance* kept_before = nullptr;

  // What the programs of this tree also need.

  kit::MainQueue& mainQueue();
  /// Runs `block` once the running turn's writes are committed. From within a turn only.
  void afterThisTurn(kit::Block block);
  /// The stored properties, and the two plain entries by their keys. Any thread.
  services::MorvikGVUserDefaults properties();
  kit::Value storedValue(std::string_view key);
  /// Stores a URL for the next session start, as StartOptions::opened_url does. Any thread.
  void storeOpenedUrl(std::string_view url);
  /// Everything stored, by name, including the kit's own values. Any thread.
  std::vector<std::pair<std::string, kit::Value>> allStored() const;
  /// Of the services object; held weakly. Any thread.
  void setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate);
  /// Turns an uncaught exception that concerns the kit into a crash report. The crash hook does this itself; this is
  /// for machines on which nothing really crashes. Any thread; takes no lock.
  void reportUncaughtException(const kit::UncaughtException& exception);
  /// Whether this thread could record now without waiting for itself: false while it is admitting a record. For
  /// machines on which one thread stands for several.
  bool mayRecordHere() const;
  /// Any thread. The counts may change while they are taken, except within a turn.
  Pending pending() const;
  /// Calls `done` once: at the end of the first turn after which nothing is pending, or with false when the limit is
  /// up. Call it from within a turn. `done` runs within a turn, possibly this one; what it stores is committed with the
  /// next. Only one caller can wait at a time.
  void settle(double limit_seconds, std::function<void(bool settled)> done);

 private:
  /// Counts the refusal; the first one writes a line.
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
  /// As services::guarded(): no exception of an operation (no memory) reaches the app.
  template <class Call>
  auto guardedCall(const char* operation, Call call) const;
  Recorded refuseNoMemory();
  Recorded handOver(HandedOver::Kind kind, std::string_view text, const char* operation);
  /// Whether a call on this thread takes effect now. Once the end has begun, only calls within the kit's own blocks do.
  bool takesPlace() const;
  /// Runs it at once on the main thread; posts it from any other.
  void callOnMain(const char* operation, kit::Block block);
  void post(const char* operation, kit::Block block);

  /// For eraseLocalData().
  struct Erasing {
    std::mutex mutex;  // guards what follows
    std::condition_variable ended;
    bool is_under_way = false;
    bool was_erased = false;
  };
  static bool erase(InstanceParts& parts, InstanceEnding& ending);

  // Shared with operations that run callbacks on their thread: a callback may destroy the instance.
  const std::shared_ptr<InstanceParts> parts_;
  const std::shared_ptr<InstanceEnding> ending_;
  const std::shared_ptr<Erasing> erasing_;
  std::atomic<bool> is_not_running_told_{false};
};

}  // namespace morvik::runtime
