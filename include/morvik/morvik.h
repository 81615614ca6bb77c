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
// Threads. Every operation may be called from any thread, unless it says otherwise. What records something (activities,
// impressions, demographics, opened URLs, the wish to be forgotten) does so on the calling thread: when the call
// returns, the record outlives the process, in both modes of the main queue. Everything else takes place on one serial
// main queue, on a thread of the kit's own or pumped from the app's loop (HostOptions::main_queue): called on the main
// queue (from a callback, from perform(), or, pumped, on the thread that pumps) it is done when it returns; called from
// any other thread it is posted, in order, and returns before it is done. Nothing here waits for the network, nor for
// the disk but as addActivity() says; nothing throws. Where the process has no memory left an operation does nothing
// and says so in the log; one that answers says it too (Recorded::kRefusedNoMemory, FlushReason::kOutOfMemory, an empty
// Ledger or Status). In a forked child of the process every operation does nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "morvik/host_options.h"
#include "morvik/ledger.h"
#include "morvik/params.h"
#include "morvik/recorded.h"
#include "morvik/status.h"
#include "morvik/version.h"

namespace morvik {

/// What the kit tells the app. Every slot is optional; all are called on the main queue, the last four each in a turn
/// of its own, behind the one that it tells of. What a slot throws is caught and logged.
struct MorvikCoreDelegate {
  /// The link that a new user followed before the app was installed.
  std::function<void(const std::string& deeplink)> didReceiveDeeplink;
  /// The install's attribution was stored: the keys of the campaign that brought it (0: none did).
  std::function<void(int64_t conversion_key, const std::string& sub_referral_key)> didSaveConversionKey;
  /// The service accepted a batch of so many activities. What else it accepts, the ledger counts.
  std::function<void(size_t activities)> didDeliver;
  /// A request failed, or was refused: a conversion, a batch, clicks, crash reports or demographics. Not those that
  /// deliver nothing (app configuration, campaign schedule), and not an erasure.
  std::function<void(const DeliveryFailure& failure)> didFailToDeliver;
  /// An event of the app was refused, for this reason. Of each reason 16 refusals wait to be told at most; past that an
  /// event is refused without a call. Not called by a kit that does not run.
  std::function<void(Recorded reason)> didRefuseEvent;
  /// The erasure service answered the user's wish, or there was no answer (false). False also where the request named
  /// another device than this has turned out to be, or may turn out to be, since its store could not be read: nothing
  /// of this one was erased, and gdprForgetMe(true) tells the wish once more when the store can be read. Not called
  /// where nothing was sent: without a network, or when the service knows already.
  std::function<void(bool accepted)> didAnswerErasure;
};

/// An advertisement that was shown.
struct Impression {
  int64_t campaign_key = 0;
  std::string space_key;  ///< where it was shown
  int64_t resource_key = 0;
  int64_t conversion_key = 0;
  bool is_first_time = false;
};

// What MorvikCore::setGender() knows by name.
inline constexpr int32_t kGenderFemale = 1;
inline constexpr int32_t kGenderMale = 2;

/// Group, name and parameter of an activity, in bytes together.
inline constexpr size_t kMaxEventBytes = size_t{1} << 20;
inline constexpr size_t kMaxUserIdBytes = size_t{64} << 10;
/// A URL that is handed over, and how many may wait to be handled.
inline constexpr size_t kMaxHandedOverBytes = size_t{64} << 10;
inline constexpr size_t kMaxHandedOver = 1000;

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
  /// that cannot be read, a store folder used by another process, an erasing that an earlier process began and that
  /// cannot be finished (eraseLocalData()). A store that cannot be read or written is no error:
  /// the kit logs it and goes on, keeping what can be kept.
  static StartResult start(const HostOptions& options);

  /// Stops, as stop() does; within a callback it commits, sends and calls nothing more, and keeps its memory.
  virtual ~MorvikCore() = default;

  /// The app came to the foreground: a session starts. To be told each time, the first time included. Where the store
  /// could not be opened at the start, the first session starts up to two seconds after the start, on its own.
  virtual void applicationDidBecomeActive() = 0;
  /// The app left the foreground: the session ends, and what is pending is sent within the next seconds; the main queue
  /// should go on running that long.
  virtual void applicationDidEnterBackground() = 0;

  /// Records an event of the app: a group, a name within it, and a parameter if there is one (morvik::Params makes a
  /// structured one). Texts are UTF-8; bytes that are not are replaced (U+FFFD), with a line in the log. The time is
  /// that of the call. On the calling thread, in microseconds, however many are stored. Waits for what others commit,
  /// and for the disk at a session's end or where it syncs within some ms (docs/performance.md). Refused, with a line
  /// at level 3: once the user asked to be forgotten, without group or name, over kMaxEventBytes together.
  /// Refused by a kit that does not run, too: once its end has begun, with one line for all of them if the log is still
  /// open, and in a forked child. The ledger counts what is refused, but for a forked child, which has none; what comes
  /// after stop() has returned is counted in memory alone, and the next start does not know of it.
  virtual Recorded addActivity(std::string_view group, std::string_view name,
                               std::optional<std::string_view> param = std::nullopt) = 0;

  /// Records that an advertisement was shown; sent with the next batch of activities. As addActivity() otherwise.
  virtual Recorded addImpression(const Impression& impression) = 0;

  /// Sends what is stored now, instead of with the next session start or end or at ten stored events. Without effect
  /// until the install is attributed, or while a batch is on its way.
  virtual void pushTracking() = 0;

  /// As pushTracking(), for the activities and impressions recorded so far, and tells how it ended: `done` is called
  /// once, on the main queue, when all of them are delivered, when it is clear that they will not be by now, or when
  /// the time is up, counted from the call; before stop() returns at the latest. Delivered are those that the service
  /// has accepted; one that the answer to another batch took out of the store waits for the answer to its own
  /// (FlushResult). None is as long as the store could not be opened. An empty `done` is allowed. Where there is
  /// nothing to wait for it is called on the calling thread, before flush() returns: kTooMany when kMaxFlushes wait
  /// already, kStopped once the end of the kit has begun, kOutOfMemory without memory. A stop that the main queue does
  /// not answer within two seconds calls it, with kStopped, on the stopping thread. From within a `done`, on whatever
  /// thread, stop() does nothing, and a further flush is answered in a later turn, or, once the end of the kit has
  /// begun, not at all. It is not called in a forked child, nor when the kit is destroyed within a callback.
  virtual void flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) = 0;
  /// flush(), waited for: for tools and tests, not for an app's user interface. On the thread that pumps it pumps.
  /// Returns within the time; only a turn that runs there then, a callback of the app's say, is waited for. Inside a
  /// callback it returns at once, with a line in the log.
  virtual FlushResult waitUntilDelivered(std::chrono::milliseconds timeout) = 0;

  /// Whether the kit may send. Off: nothing leaves but an erasure; everything is recorded; opened URLs wait; requests
  /// that have left run to their end, and those that have not wait, or are made anew. On again, with a session open,
  /// what a session start asks for and sends is asked for and sent. Not stored: HostOptions::sending says how a start
  /// begins. At once, on any thread; what follows is posted.
  virtual void setSendingEnabled(bool enabled) = 0;

  /// A URL opened the app: to be told of each, whatever is in it. By its query it is a campaign's re-engagement click,
  /// a commerce click, both, or none of the kit's business. Any bytes will do, up to kMaxHandedOverBytes; at most
  /// kMaxHandedOver wait. Kept on the calling thread and handled on the main queue, in order; what a process could not
  /// handle before its end, the next start does. A URL that comes before the kit is started goes into
  /// HostOptions::opened_url.
  virtual Recorded passOpenURL(std::string_view url) = 0;

  /// A referral URL that the app obtained from Facebook: reported as a third party conversion, unless the list that the
  /// server sent last names its key ("ck"). Kept and handled as an opened URL is. Without effect under forget-me.
  virtual Recorded setReferralUrlForFacebook(std::string_view url) = 0;

  /// Reports the install to the conversion service as a third party conversion. Kept and handled as an opened URL is;
  /// its request is never retried.
  virtual Recorded thirdPartyConversion() = 0;

  // What the app knows of its user. Sent, sealed with the tracking key, at the next session start or end, until the
  // service has it; the latest value counts. Kept also while the user is marked as forgotten, and not sent then. On the
  // calling thread, as addActivity().
  /// In years. Any number is taken, but for -1, which takes an age back that was not sent yet.
  virtual Recorded setAge(int32_t age) = 0;
  /// kGenderFemale or kGenderMale; any other number is sent as it is, but for -1, as above.
  virtual Recorded setGender(int32_t gender) = 0;
  /// The app's own name for its user, UTF-8, at most kMaxUserIdBytes.
  virtual Recorded setUserId(std::string_view user_id) = 0;
  /// Takes the user id back: what was not sent yet, and the copy that is kept. Nothing is sent.
  virtual Recorded clearUserId() = 0;

  /// The user asks to be forgotten (true) or takes that back (false). The wish is stored when the call returns, which
  /// waits 0.1 s at most for another process: from then on, also after a restart, nothing leaves but this wish,
  /// and events are refused. What waits to leave, or connects, is not sent; what is being sent runs to its end. In a
  /// later turn the wish goes to the erasure service if there is a network; without one, or if it is not accepted, the
  /// app calls again later (the kit does not). A repeated call does nothing once accepted. An accepted wish marks the
  /// user as forgotten, so does a withdrawal. One that is kept in memory only is tried again; a restart may forget it.
  virtual Recorded gdprForgetMe(bool forget_me) = 0;
  /// Whether the user is marked as forgotten, as of now; in a forked child true. At once, on any thread.
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

  /// How things stand. At once, on any thread; some microseconds. After stop() as it stood then, but
  /// without what lies in the store when that was still busy after two seconds.
  virtual Status status() = 0;

  /// Removes what the kit keeps on this device: cancels what is under way, stops the kit, and deletes the store, what
  /// lies beside it and what was set aside. The wish to be forgotten, and whether the service knows of it, stay. A
  /// death in between is made up for by the next start on the folder; every next start is a new install. Takes as long
  /// as stop() does, and what the disk needs to delete the files. On any thread; several may: one erases, the others
  /// wait and answer the same. Not from within a callback, where it writes a line and does nothing (false). Where not
  /// even an empty file can be made that notes what is to go (no permission to write in the folder, no inode left),
  /// nothing is erased and the kit runs on: false, and a line says so; call again once that is mended. False also when
  /// something could not be deleted yet; the log says what, and the next start goes on. status().is_running tells the
  /// two apart. After stop() it does nothing (false, and no line, since the log is closed).
  virtual bool eraseLocalData() = 0;

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

  /// Ends the work. What was posted before runs; then what is in flight is cancelled, threads are joined, nothing runs
  /// afterwards, no callback comes and the log gets no further line, wherever it goes. What was recorded is kept and
  /// goes out next time. Takes two seconds at most: what could not run in that time is counted in a line of the log,
  /// and a thread that is still in a system call or in a callback of the app's then ends by itself and keeps the store
  /// folder in use until it does. A stop that runs out of memory says so, and a further one goes on; the destructor
  /// tries twice, and then keeps the kit's memory and folder. Calls that come later do nothing. On any thread; several
  /// may: one stops, the others return when it is stopped. Pumped: on the pumping thread. Not from within a callback or
  /// a performed block, on whatever queue: there it writes a line in the log and does nothing.
  virtual void stop() = 0;
  /// The same, and before it flush(), waited for at most so long. Returns after that and two seconds at most.
  virtual void stop(std::chrono::milliseconds drain) = 0;
};

}  // namespace morvik
