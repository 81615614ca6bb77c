// Morvik Core, as an app uses it:
//
//   morvik::HostOptions options;
//   options.store_folder = "analytics";
//   options.app_key = "my-app";
//   options.hash_key = morvik::Key::inFile("morvik.keys", "hash-key");
//   options.tracking_key = morvik::Key::inFile("morvik.keys", "tracking-key");
//   morvik::StartResult started = morvik::MorvikCore::start(options);
//   if (!started)
//     return fail(started.error);
//   started.core->applicationDidBecomeActive();
//   started.core->addActivity("shop", "purchase", "sku-42");
//
// From then on sessions and events are kept on the device and delivered.
//
// Threads. All work takes place on one serial main queue: on a thread of the kit's own, or pumped from the app's loop
// (HostOptions::main_queue). Every operation below may be called from any thread, unless it says otherwise. Called on
// the main queue (from a callback, from perform(), or, pumped, on the thread that pumps), it is done, and what it
// stored outlives the process, when it returns. Called from any other thread it is posted to the main queue, in order,
// and returns before it is done. Nothing here waits for the network or for the disk; nothing throws.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "morvik/host_options.h"
#include "morvik/ledger.h"
#include "morvik/version.h"

namespace morvik {

/// What the kit tells the app. Every slot is optional; all are called on the main queue. What a slot throws is caught
/// and logged.
struct MorvikCoreDelegate {
  /// The link that a new user followed before the app was installed.
  std::function<void(const std::string& deeplink)> didReceiveDeeplink;
  /// The install's attribution was stored: the keys of the campaign that brought it (0: none did).
  std::function<void(int64_t conversion_key, const std::string& sub_referral_key)> didSaveConversionKey;
};

// What MorvikCore::setGender() knows by name.
inline constexpr int32_t kGenderFemale = 1;
inline constexpr int32_t kGenderMale = 2;

class MorvikCore;

/// A running kit, or why there is none.
struct StartResult {
  std::unique_ptr<MorvikCore> core;  ///< null when the start failed
  std::string error;                 ///< what is wrong, where, and how to mend it; "" when it runs
  explicit operator bool() const { return core != nullptr; }
};

/// One kit on one store folder. Several may run in one process, each on a folder of its own. Pure interface, so that an
/// app may put its own double in its tests.
class MorvikCore {
 public:
  /// Checks the options, opens the store and makes the kit ready. Reads the store (some milliseconds for ten thousand
  /// stored events) and nothing else: no network, no certificates. Errors: an option that is missing or wrong, a key
  /// that cannot be read, a store folder used by another process. A store that cannot be read or written is no error:
  /// the kit logs it and goes on, keeping what can be kept.
  static StartResult start(const HostOptions& options);

  /// Stops, as stop() does; where stop() cannot, the kit goes on running and is never freed.
  virtual ~MorvikCore() = default;

  /// The app came to the foreground: a session starts. To be told each time, the first time included.
  virtual void applicationDidBecomeActive() = 0;
  /// The app left the foreground: the session ends, and what is pending is sent within the next seconds; the main queue
  /// should go on running that long.
  virtual void applicationDidEnterBackground() = 0;

  /// Records an event of the app: a group, a name within it, and a parameter if there is one. Texts are UTF-8; bytes
  /// that are not are replaced (U+FFFD), with a line in the log. The time is that of the call. Refused, with a line in
  /// the log at level 3, once the user asked to be forgotten. A few microseconds, however many are stored.
  virtual void addActivity(std::string_view group, std::string_view name,
                           std::optional<std::string_view> param = std::nullopt) = 0;

  /// Sends what is stored now, instead of with the next session start or end or at ten stored events. Without effect
  /// until the install is attributed, or while a batch is on its way.
  virtual void pushTracking() = 0;

  /// A URL opened the app: to be told of each, whatever is in it. By its query it is a campaign's re-engagement click,
  /// a commerce click, both, or none of the kit's business. Any bytes will do. A URL that comes before the kit is
  /// started goes into HostOptions::opened_url.
  virtual void passOpenURL(std::string_view url) = 0;

  /// A referral URL that the app obtained from Facebook: reported as a third party conversion, once for each conversion
  /// key ("ck" in its query). Without effect once the user asked to be forgotten.
  virtual void setReferralUrlForFacebook(std::string_view url) = 0;

  /// Reports the install to the conversion service as a third party conversion, now. Never retried.
  virtual void thirdPartyConversion() = 0;

  // What the app knows of its user. Sent, sealed with the tracking key, at the next session start or end, until the
  // service has it; the latest value counts. Kept also while the user is marked as forgotten, and not sent then.
  /// In years. Any number is taken, but for -1, which takes an age back that was not sent yet.
  virtual void setAge(int32_t age) = 0;
  /// kGenderFemale or kGenderMale; any other number is sent as it is, but for -1, as above.
  virtual void setGender(int32_t gender) = 0;
  /// The app's own name for its user, UTF-8.
  virtual void setUserId(std::string_view user_id) = 0;

  /// The user asks to be forgotten (true) or takes that back (false). The wish is stored at once: from then on, and
  /// after every restart, the kit sends nothing but this wish, and events of the app are refused. It goes to the
  /// erasure service if there is a network; without one, or when the service does not accept it, the app calls again
  /// later (the kit does not). A call that repeats what the service has accepted does nothing. An accepted wish marks
  /// the user as forgotten, also one that takes an accepted erasure back.
  virtual void gdprForgetMe(bool forget_me) = 0;
  /// Whether the user is marked as forgotten, as of now: a call of gdprForgetMe() that was posted from another thread
  /// shows once it has run. At once, on any thread.
  virtual bool isGdprForgetMe() const = 0;

  /// Sets who is told. Held weakly: keep the delegate alive as long as it wants to hear; an empty pointer unsets. At
  /// once, on any thread.
  virtual void setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) = 0;

  /// 0 off to 6 trace; other numbers count as the nearer of these. At once, on any thread.
  virtual void setLogLevel(int level) = 0;

  /// What became of all that this device ever recorded: see morvik/ledger.h. The account is kept in the store, in the
  /// same transactions as what it counts, so it outlives restarts and kills, and always balances. At once, on any
  /// thread; some microseconds, however much is stored.
  virtual Ledger ledger() = 0;

  /// Runs `block` on the main queue, in a later turn, also when called there. What it throws is caught and logged.
  virtual void perform(std::function<void()> block) = 0;

  // The app's own loop. Only for MainQueueMode::kPumped, and only on the thread that started the kit; with a thread of
  // the kit's own they answer -1 and do nothing.
  /// A file descriptor that becomes readable when there is something to dispatch. Owned by the kit; the same until
  /// stop().
  virtual int pollDescriptor() const = 0;
  /// How long the app's loop may wait for the descriptor before it calls dispatch() anyway: milliseconds, 0 for not at
  /// all, -1 for any time. To be asked anew each time the loop goes to wait.
  virtual int pollTimeoutMilliseconds() const = 0;
  /// Runs what is due, and returns. Does not wait. Not to be called from within a callback (it does nothing there).
  virtual void dispatch() = 0;

  /// Ends the work: what is in flight is cancelled, threads are joined, nothing runs afterwards, and no callback comes.
  /// What was stored is kept and goes out next time. Blocks for some milliseconds as a rule and for two seconds at
  /// most, not counting a callback of the app's that is running and does not return. Calls that come later do nothing.
  /// On any thread; pumped: on the pumping thread. Not from within a callback or a performed block: there it does
  /// nothing but write a line in the log.
  virtual void stop() = 0;
};

}  // namespace morvik
