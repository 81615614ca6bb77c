// The API of Morvik Core for apps:
//
//   morvik::StartOptions options;
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
// Threads. Every operation may be called from any thread, unless it says otherwise. Operations that record something
// (activities, impressions, demographics, opened URLs, the wish to be forgotten) do so on the calling thread: when the
// call returns, the record outlives the process, in both modes of the main queue. Everything else runs on one serial
// main queue, on the kit's own thread or pumped from the app's loop (StartOptions::main_queue). Called on the main
// queue (from a callback, from perform(), or, pumped, on the pumping thread) an operation is done when it returns;
// called from any other thread it is posted, in order, and returns before it is done. No operation waits for the
// network unless it says so, nor for the disk except as addActivity() says; none throws. If memory runs out, an
// operation does nothing and logs it; one that returns a result says so there too (Recorded::kRefusedNoMemory,
// FlushReason::kOutOfMemory, an empty Ledger or Status). In a forked child of the process every operation does nothing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "morvik/explanation.h"
#include "morvik/ledger.h"
#include "morvik/params.h"
#include "morvik/recorded.h"
#include "morvik/start_options.h"
#include "morvik/status.h"
#include "morvik/version.h"

namespace morvik {

/// Callbacks from the kit to the app. Every slot is optional. All are called on the main queue, the last four each in a
/// turn of its own, after the turn that it reports on. Exceptions from a slot are caught and logged.
struct MorvikCoreDelegate {
  /// The link that a new user followed before the app was installed.
  std::function<void(const std::string& deeplink)> didReceiveDeeplink;
  /// The install's attribution was stored: the keys of the campaign that brought it (0: none).
  std::function<void(int64_t conversion_key, const std::string& sub_referral_key)> didSaveConversionKey;
  /// The service accepted a batch with this many activities. The ledger counts what else it accepts.
  std::function<void(size_t activities)> didDeliver;
  /// A request failed or was refused: a conversion, a batch, clicks, crash reports or demographics. Not called for
  /// requests that deliver nothing (app configuration, campaign schedule), nor for an erasure.
  std::function<void(const DeliveryFailure& failure)> didFailToDeliver;
  /// An event of the app was refused, for this reason. At most 16 refusals per reason wait to be reported; past that,
  /// events are refused without a call. Not called if the kit is not running.
  std::function<void(Recorded reason)> didRefuseEvent;
  /// The erasure service answered the user's wish, or there was no answer (false). Also false if the store could not be
  /// read, so that the request named another device, or may have: nothing of this one was erased, and
  /// gdprForgetMe(true) sends the wish again once the store can be read. Not called if nothing was sent: without a
  /// network, or if the service knows already.
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

// Named values for MorvikCore::setGender().
inline constexpr int32_t kGenderFemale = 1;
inline constexpr int32_t kGenderMale = 2;

/// Limit for group, name and parameter of an activity together, in bytes.
inline constexpr size_t kMaxEventBytes = size_t{1} << 20;
inline constexpr size_t kMaxUserIdBytes = size_t{64} << 10;
/// Limits for a URL that is handed over, and for how many may be pending.
inline constexpr size_t kMaxHandedOverBytes = size_t{64} << 10;
inline constexpr size_t kMaxHandedOver = 1000;

class MorvikCore;

/// A running kit, or the reason why there is none.
struct StartResult {
  std::unique_ptr<MorvikCore> core;  ///< null when the start failed
  std::string error;                 ///< what is wrong, where, and how to fix it; "" on success
  explicit operator bool() const { return core != nullptr; }
};

/// One kit on one store folder. Several may run in one process, each on its own folder. Pure interface, so that an app
/// can use a test double.
class MorvikCore {
 public:
  /// Checks the options, opens the store and starts the kit. Reads the store (some milliseconds for ten thousand stored
  /// events) and nothing else: no network, no certificates. Errors: an option that is missing or invalid, a key that
  /// cannot be read, a store folder used by another process, an eraseLocalData() of an earlier process that cannot be
  /// finished. A store that cannot be read or written is not an error: the kit logs it and goes on, keeping what can be
  /// kept.
  static StartResult start(const StartOptions& options);

  /// Stops, as stop() does. Within a callback it commits, sends and calls nothing more, and does not free the kit's
  /// memory.
  virtual ~MorvikCore() = default;

  /// The app came to the foreground: a session starts. Call it each time, including the first. If the store could not
  /// be opened at the start, the first session starts by itself, up to two seconds after the start.
  virtual void applicationDidBecomeActive() = 0;
  /// The app left the foreground: the session ends, and what is pending is sent within the next seconds. The main queue
  /// should keep running that long.
  virtual void applicationDidEnterBackground() = 0;

  /// Records an event of the app: a group, a name within it, and an optional parameter (morvik::Params builds a
  /// structured one). Texts are UTF-8; invalid bytes are replaced (U+FFFD), with a log line. The time is that of the
  /// call. Runs on the calling thread and takes microseconds, however many events are stored. Waits for commits of
  /// others, and for the disk at the end of a session or if the disk syncs within some ms (docs/performance.md).
  /// Refused, with a line at level 3: once the user asked to be forgotten, without group or name, over kMaxEventBytes
  /// in total. Also refused if the kit is not running: once its end has begun, with one line for all of them if the log
  /// is still open, and in a forked child. The ledger counts refusals, except in a forked child, which has none; those
  /// after stop() has returned are counted in memory only, and the next start does not know of them.
  virtual Recorded addActivity(std::string_view group, std::string_view name,
                               std::optional<std::string_view> param = std::nullopt) = 0;

  /// Records that an advertisement was shown; sent with the next batch of activities. Otherwise like addActivity().
  virtual Recorded addImpression(const Impression& impression) = 0;

  /// Sends what is stored now, without waiting for the next session start or end or for ten stored events. No effect
  /// until the install is attributed, or while a batch is under way.
  virtual void pushTracking() = 0;

  /// Like pushTracking(), for the activities and impressions recorded so far, and reports the outcome: `done` is called
  /// once, on the main queue, when all of them are delivered, when it is clear that they will not be delivered now, or
  /// when `timeout` has passed since the call and what was posted by then has run; at the latest before stop() returns.
  /// Delivered means that the service has accepted them. A record that the answer to another batch removed from the
  /// store waits for the answer to its own batch (FlushResult). Nothing counts as delivered while the store could not
  /// be opened. `done` may be empty. If there is nothing to wait for, it is called on the calling thread, before
  /// flush() returns: kTooMany if kMaxFlushes are already pending, kStopped once the end of the kit has begun,
  /// kOutOfMemory if memory runs out. If the main queue does not respond to a stop within two seconds, the stopping
  /// thread calls it, with kStopped. From within a `done`, on any thread, stop() does nothing, and a further flush is
  /// answered in a later turn, or, once the end of the kit has begun, not at all. `done` is not called in a forked
  /// child, nor if the kit is destroyed within a callback.
  virtual void flush(std::function<void(const FlushResult&)> done, std::chrono::milliseconds timeout) = 0;
  /// A blocking flush(), for tools and tests, not for an app's user interface. On the pumping thread it pumps. Returns
  /// within `timeout`; only a turn that is then running there, such as a callback of the app, may delay it. Inside a
  /// callback it returns at once, with a log line.
  virtual FlushResult waitUntilDelivered(std::chrono::milliseconds timeout) = 0;

  /// Whether the kit may send. Off: nothing leaves but an erasure; everything is recorded; opened URLs wait; requests
  /// that have left run to their end, the others wait or are built again. On again, with a session open, the kit sends
  /// the requests of a session start. Not stored: StartOptions::sending is the initial value at each start. Takes
  /// effect at once, on any thread; what follows is posted.
  virtual void setSendingEnabled(bool enabled) = 0;

  /// A URL opened the app: call it for every URL, whatever its content. Its query says whether it is a campaign's
  /// re-engagement click, a commerce click, both, or irrelevant to the kit. Any bytes are accepted, up to
  /// kMaxHandedOverBytes; at most kMaxHandedOver may be pending. Stored on the calling thread and handled on the main
  /// queue, in order; what a process could not handle before its end, the next start handles. A URL that comes before
  /// the kit is started goes into StartOptions::opened_url.
  virtual Recorded passOpenURL(std::string_view url) = 0;

  /// A referral URL that the app obtained from Facebook: reported as a third party conversion, unless its key ("ck") is
  /// in the list that the server sent last. Stored and handled like an opened URL. No effect once the user asked to be
  /// forgotten.
  virtual Recorded setReferralUrlForFacebook(std::string_view url) = 0;

  /// Reports the install to the conversion service as a third party conversion. Stored and handled like an opened URL;
  /// its request is never retried.
  virtual Recorded thirdPartyConversion() = 0;

  // What the app knows about its user. Sent, sealed with the tracking key, at session starts and ends until the service
  // has it; the latest value counts. While the user is marked as forgotten, values are kept but not sent. On the
  // calling thread, like addActivity().
  /// In years. Any number is accepted; -1 withdraws an age that was not sent yet.
  virtual Recorded setAge(int32_t age) = 0;
  /// kGenderFemale or kGenderMale; any other number is sent unchanged, except for -1, as above.
  virtual Recorded setGender(int32_t gender) = 0;
  /// The app's own name for its user, UTF-8, at most kMaxUserIdBytes.
  virtual Recorded setUserId(std::string_view user_id) = 0;
  /// Withdraws the user id: a pending one, and the copy that is kept. Nothing is sent.
  virtual Recorded clearUserId() = 0;

  /// The user asks to be forgotten (true) or withdraws that (false). The wish is stored when the call returns, which
  /// waits 0.1 s at most for another process. From then on, also after a restart, nothing leaves but this wish, and
  /// events are refused. Requests that wait or are connecting are not sent; one that is being sent runs to its end. In
  /// a later turn the wish goes to the erasure service if there is a network; without one, or if it is not accepted,
  /// the app must call again later (the kit does not retry). Once accepted, a repeated call does nothing. An accepted
  /// wish marks the user as forgotten, and so does an accepted withdrawal. A wish kept in memory only is retried; a
  /// restart may lose it.
  virtual Recorded gdprForgetMe(bool forget_me) = 0;
  /// Whether the user is currently marked as forgotten; always true in a forked child. Returns at once, on any thread.
  virtual bool isGdprForgetMe() const = 0;

  /// Sets the delegate. Held weakly: keep it alive as long as it should be called; an empty pointer unsets it. Takes
  /// effect at once, on any thread.
  virtual void setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) = 0;

  /// 0 (off) to 6 (trace); other numbers are clamped. Takes effect at once, on any thread.
  virtual void setLogLevel(int level) = 0;

  /// What became of everything that this device ever recorded: see morvik/ledger.h. The account is kept in the store,
  /// in the same transactions as what it counts, so it survives restarts and kills, and always balances. Returns at
  /// once, on any thread; takes some microseconds, however much is stored.
  virtual Ledger ledger() = 0;

  /// What became of the event with this id: when it was recorded, the requests that carried it and their answers,
  /// and whether it was delivered or given up (morvik/explanation.h). The id is the "event_id" of the request; either
  /// case. The kit knows the stored events and the latest 256 batches; once the user asked to be forgotten, the stored
  /// events alone. Any thread. Waits for no disk, network or recording thread; takes some milliseconds with 100,000
  /// stored events. Never fails: a text that is no id, and an id that is not known, are answers too (`state`). In a
  /// forked child, and if memory runs out, the answer is empty.
  virtual Explanation explain(std::string_view event_id) = 0;

  /// The current state. Returns at once, on any thread; takes some microseconds. After stop(), the state at the stop,
  /// without the stored counts if the store was still busy after two seconds.
  virtual Status status() = 0;

  /// Removes what the kit keeps on this device: cancels what is under way, stops the kit, and deletes the store, the
  /// files next to it and what was set aside. The wish to be forgotten, and whether the service knows of it, stay. If
  /// the process dies in between, the next start on the folder finishes the removal; after it, the next start is a new
  /// install. Takes as long as stop(), plus the time to delete the files. On any thread, also on several: one erases,
  /// the others wait and return the same. Not from within a callback: there it logs a line and does nothing (false). If
  /// the file that marks the removal cannot be created, not even empty (no permission to write in the folder, no inode
  /// left), nothing is erased and the kit runs on: false, with a log line; call again once that is fixed. Also false if
  /// something could not be deleted yet; the log says what, and the next start continues. status().is_running tells the
  /// two apart. After stop() it does nothing (false, and no line, since the log is closed).
  virtual bool eraseLocalData() = 0;

  /// Runs `block` on the main queue, in a later turn even if called there. Exceptions are caught and logged.
  virtual void perform(std::function<void()> block) = 0;

  // For the app's own loop. Only for MainQueueMode::kPumped, and only on the thread that started the kit; in the other
  // mode they return -1 and do nothing.
  /// A file descriptor that becomes readable when there is something to dispatch. Owned by the kit; does not change
  /// until stop().
  virtual int pollDescriptor() const = 0;
  /// How long the app's loop may wait for the descriptor before it calls dispatch() anyway: milliseconds, 0 for not at
  /// all, -1 for no limit. Query it each time before the loop waits.
  virtual int pollTimeoutMilliseconds() const = 0;
  /// Runs what is due and returns without waiting. Not from within a callback (it does nothing there).
  virtual void dispatch() = 0;

  /// Stops the kit. What was posted before runs; then what is in flight is cancelled and threads are joined. Afterwards
  /// nothing runs, no callback comes and no further line is logged, wherever the log goes. What was recorded is kept
  /// and sent next time. Takes two seconds at most: what could not run in that time is counted in a log line, and a
  /// thread that is then still in a system call or in a callback of the app ends by itself and keeps the store folder
  /// in use until it does. A stop that runs out of memory says so, and a further one continues; the destructor tries
  /// twice, then leaves the kit's memory and folder in use. Later calls do nothing. On any thread, also on several: one
  /// stops, the others return once the kit is stopped. Pumped: on the pumping thread. Not from within a callback or a
  /// performed block, on any queue: there it logs a line and does nothing.
  virtual void stop() = 0;
  /// The same, after a blocking flush() of at most `drain`. Returns within `drain` plus two seconds.
  virtual void stop(std::chrono::milliseconds drain) = 0;
};

}  // namespace morvik
