// The core object of the kit: it watches the app's life, keeps sessions and events in the store, delivers them, and
// obtains the install's attribution.
//
// One class, its operations in plain sources by subsystem: lifecycle, tracking, attribution, deeplinks, commerce,
// crash, privacy, demographics, schedule. Everything outside is reached through the ports passed to it. Public
// operations run on the main queue unless they say otherwise; all return at once, and whatever happens later (answers,
// timers) happens on the main queue. An exception ends in the operation's guard and is logged; operations without a
// guard are covered by that of their caller or of the queue.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "MorvikCoreLib/batch_size.h"
#include "MorvikCoreLib/oldest_first.h"
#include "kit/ports.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/dates.h"
#include "services/envelope.h"
#include "services/list_index.h"
#include "services/locked.h"
#include "services/log.h"
#include "services/requests.h"

namespace morvik {

/// What a batch does with "end" activities: when a session is kept, its previous "end" is left out.
enum class EndActivities { kSend, kFilter };

/// How the request of a batch ended. kGoesOn: it was accepted and the limit had left some out, or it was too large and
/// a smaller one, or the rest, can still be delivered.
enum class BatchEnd { kAccepted, kRefused, kNoAnswer, kNotSent, kGoesOn };

/// An activity that the service finds too large on its own is given up only if its whole entry is longer than this, in
/// bytes.
inline constexpr size_t kMaxKeptEntryBytes = size_t{1} << 20;

/// Wishes to be forgotten, or not, that are stored and pending until the main queue reports them to the service. Past
/// the limit a new wish replaces the last one, so that the latest wish is the last to be reported.
inline constexpr size_t kMaxUntoldWishes = 16;

/// Whether an erasure request's body is made sealed or plain.
enum class ErasureForm { kPlain, kSealed };

/// The user's gender, as it is stored and sent.
enum _gender : int32_t { MorvikCoreGenderFemale = 1, MorvikCoreGenderMale = 2 };

/// The referral record: what the attribution server says about this install. Members carry the argument labels of
/// saveFendoUserInfo, in their order.
struct ReferralRecord {
  int64_t fendoUserNo = 0;
  int64_t shardNum = 0;
  int64_t referralKey = 0;
  int64_t subReferralKey = 0;
  std::string refUSN;
  int32_t channelType = 0;
  int64_t shardNo = 0;
  std::string referralData;
  int64_t reengagementConversionKey = 0;
  std::string reengagementData;
  int64_t reengagementDateTime = 0;
  int64_t lastReferralKey = 0;
  std::string lastReferralData;
  std::string lastReferralDatetime;
  std::string installDatetime;   ///< "yyyyMMddHHmmss", as received
  int64_t installmDatetime = 0;  ///< seconds since 1970
};

class MorvikCoreLib : public std::enable_shared_from_this<MorvikCoreLib> {
 public:
  /// Makes an object on `ports`, which must outlive it: reads the stored install state, fetches the tracking key,
  /// records the screen orientation and, unless the user asked to be forgotten, observes the two application
  /// notifications. Any thread; does not block.
  static std::shared_ptr<MorvikCoreLib> make(const kit::Ports& ports);

  /// The one object of the process, made at the first call on the ports given to provideSharedPorts(). Null before
  /// that. Any thread.
  static std::shared_ptr<MorvikCoreLib> shared();
  /// Gives the process-wide object its ports, which must stay alive until they are withdrawn. Returns false, and
  /// changes nothing, while others are in place. Any thread.
  static bool provideSharedPorts(const kit::Ports& ports);
  /// Withdraws the ports and releases the object made on them. Any thread.
  static void withdrawSharedPorts(const kit::Ports& ports);

  MorvikCoreLib(const MorvikCoreLib&) = delete;
  MorvikCoreLib& operator=(const MorvikCoreLib&) = delete;

  // ---- Lifecycle (lifecycle.cpp)

  /// The app became active. Opens a session unless one is open, and does the kit's deferred work in a fixed
  /// order.
  void startSession();
  /// The app entered the background. Asks for background time and has the session ended on the background queue.
  void enterBackground();
  /// Ends the session: stamps its end, and half a second later, on the main queue, sends what is stored and records the
  /// "end" activity. Background queue, or any other thread.
  void endSession();
  /// Gives the background time back, on the background queue. Does not check whether a task is open. Any thread.
  void applicationEndBackgroundTask();
  /// Adds one to the stored launch counter.
  void updateAppLaunchCount();
  /// Records a "retention" activity, and pushes it, once for each calendar day of use.
  void chkRetentionForDay();

  // ---- Tracking (tracking.cpp)

  /// Builds the batch of all stored activities and impressions, or of the oldest as far as the kit's limit goes, takes
  /// the tracking slot and notes the covered event ids. The sealed parameters; {"result": "failure"} when there is no
  /// activity to send; absent when tracking is refused or building failed.
  [[nodiscard]] kit::Value makeTrackingParameter(EndActivities end_activities);
  /// The backing field of the property of that name.
  [[nodiscard]] kit::Value makeTrackingParameter() const { return makeTrackingParameter_; }
  /// Sends the result of makeTrackingParameter.
  void tracking(const kit::Value& parameters);
  /// The size trigger: sends when ten or more activities are stored.
  void chkAndSendDataWhenActivityCntMoreThenTen();
  /// Sends what is stored, now.
  void pushTracking();
  /// Removes the activities that the sent-event keys name from the store, and empties the keys.
  void deleteActivitysForTracking();

  /// True while a batch waits for its answer.
  bool isBatchUnderWay() const { return batches_under_way_ > 0; }
  /// True while the next batch of a backlog is due. If then nothing is sent, the observer's nextBatchWasDropped is
  /// called.
  bool isNextBatchDue() const { return is_next_batch_due_; }
  /// True while the ad client or the conversion service is being asked who brought the install.
  bool isAttributionUnderWay() const { return attributions_under_way_ > 0; }
  /// Called on the main queue when that is over. Every slot is optional.
  struct DeliveryObserver {
    std::function<void(BatchEnd)> batchDidEnd{};  ///< the slot is free, but for one that the wish stopped
    std::function<void()> attributionDidEnd{};    ///< it may have failed
    std::function<void()> nextBatchWasDropped{};  ///< one that was due
    /// With so many activities; any thread.
    std::function<void(size_t activities)> batchLeaves{};
  };
  /// Set before the first session.
  void setDeliveryObserver(DeliveryObserver observer) { delivery_observer_ = std::move(observer); }

  // ---- Sending switched off and on (sending.cpp)

  /// Sending is on again. With a session open, what its start asks for and sends is asked for and sent now: the
  /// tracking slot is released, then configuration, iAd, schedule, demographics, attribution, crash reports, the stored
  /// activities, and a URL that waits. No activity, no launch and no date is noted.
  void sendingDidResume();

  // ---- Attribution (attribution.cpp)

  /// The sealed parameters of a conversion request, as of now; absent if building failed.
  [[nodiscard]] kit::Value makeConversionParameter();
  /// Asks the conversion service who referred this install; retried after 10 seconds, at most 9 times in a row.
  void conversion(const kit::Value& parameters);
  /// The same exchange on the third-party path; never retried.
  void thirdPartyConversion(const kit::Value& parameters);
  /// Writes the referral record into the store, field by field, and tells the two delegates.
  void saveFendoUserInfo(const ReferralRecord& record);
  /// A store that could not be read before has been recovered. If it brought a referral record, that one counts:
  /// answers to what was asked before are not stored. An upload of impressions, commerce clicks, crash reports or
  /// demographics that began before removes only what it carried. Any thread, under the list lock.
  void storeRecovered();
  /// Asks the ad client for the Search Ads attribution details.
  void searchAds();
  /// Asks the ad client whether the install came from an iAd, and reports it.
  void iAdConversion();
  [[nodiscard]] kit::Value makeIAdAppAttributionTrackingParameter(std::optional<kit::Date> app_purchase_date,
                                                                  std::optional<kit::Date> iad_impression_date);
  void iAdAppAttributionTracking(const kit::Value& parameters);

  // ---- Deep links (deeplinks.cpp)

  /// When a URL was handed over, and whether that was on a launch that began without a referral record.
  struct OpeningMoment {
    std::optional<kit::Date> time;  ///< nothing: now
    bool is_first_launch = false;
    /// Its commerce click was recorded when it was opened before.
    bool is_commerce_recorded = false;
    /// Called in the step that records the commerce click; may be empty. May only set values of the store.
    kit::Block when_commerce_recorded{};
  };
  /// A URL opened the app: by its query it is a commerce click, a re-engagement, both, or neither. Any text.
  /// While sending is off it is pending; a newer one replaces it.
  void passOpenURL(const kit::Url& url);
  /// The same, for one that was handed over earlier.
  void passOpenURL(const kit::Url& url, const OpeningMoment& moment);
  /// A referral URL that the app obtained from Facebook: reported as a third party conversion, once for each conversion
  /// key.
  void setReferralUrlForFacebook(const kit::Url& url);
  /// The sealed parameters of a re-engagement request; absent when the user asked to be forgotten or building failed.
  /// Sets ReEngagement_task to what is to be done when that request fails.
  [[nodiscard]] kit::Value makeReEngagementConversionParameter(const kit::Url& url);
  /// Sends a click to the conversion service. If it is accepted, it is removed from the failed ones; if it fails, the
  /// current ReEngagement_task runs. Any thread.
  void reEngagementConversion(const kit::Value& parameters);
  /// Counts a session end for each failed click, gives up those that have failed too often, and sends the others again.
  /// Any thread.
  void makeFailureReEngagementConversionParameter();

  // ---- Commerce (commerce.cpp)

  /// Sends the stored commerce clicks; they are cleared once the service has accepted them.
  void commerceConversion();
  /// Asks whether premium postbacks are granted to this app, unless they are, or a session ended less than a minute
  /// ago.
  void getPremiumPostbackInfoss();

  // ---- Crash reports (crash.cpp)

  /// An exception that nobody caught: when it concerns the kit (its reason names one of the kit's components, or there
  /// is no reason), its report is appended to the stored ones and sent at the next session start.
  ///
  /// Any thread, including the one on which the process is about to die, whatever locks it or a halted thread holds: it
  /// waits for no lock of the kit. If the store, the list lock or the log's sink is in use, the report goes to the
  /// shelf, from which the next start takes it, and a log line is dropped. When it returns, the kernel has the report
  /// in one of the two places; if neither takes it, a line at trace level says so. Never throws. It allocates, so it is
  /// not for signal handlers. The ports that it calls (utility class, device, bundle, clock, versions of the modules)
  /// wait for no lock either: their headers promise it. Do not reach it through shared(), which has a lock: hold the
  /// object.
  void makeCrashParameter(const kit::UncaughtException& exception);
  /// Whether a crash with that reason is one that makeCrashParameter() keeps. Any thread.
  static bool concernsTheKit(const std::optional<std::string>& reason);
  /// What a report says about the device, the app and the kit as they are now: a dictionary with the fields of a
  /// report; those of the crash itself are blank. For a process to store before it crashes. Like makeCrashParameter(),
  /// except that it passes on exceptions of the modules and siblings.
  kit::Value crashFacts() const;
  /// The same for a crash of an earlier process. It waits for the store, and returns whether the crash is settled: kept
  /// in the store or on the shelf, not about the kit, or impossible to report, which is then logged. False: neither
  /// took it, and it has to be reported again at another start. Before the first session, on the thread that made the
  /// object; blocks for writing, not for a disk sync.
  [[nodiscard]] bool takeCrashOfEarlierProcess(const kit::UncaughtException& crash);
  /// Sends all stored crash reports; once they are accepted, those within the budget of one upload are dropped,
  /// and the rest is sent at once.
  void sendCrashInfos();
  /// A short name of the calling thread: the text between the first braces of the platform's description, or all of it
  /// if there are none. Any thread.
  static std::string getPrettyCurrentThreadDescription(const kit::Threads& threads);

  // ---- Privacy (privacy.cpp)

  /// The user asks to be forgotten (true) or takes that back (false). Stored at once, and from then on the gate of all
  /// other requests follows it; reported to the erasure service if there is a network, unless the service knows
  /// already. Not retried by itself. Any thread: the wish is compared, stored and mirrored in one step before this
  /// returns, not flushed; what follows is posted to the main queue in the order of the wishes.
  void gdprForgetMe(bool forget_me);
  /// While held, wishes are stored and mirrored at once but not reported yet, unless there is no network. For a host
  /// that does not know yet which device an erasure names. Main queue, or before it runs; releasing reports the pending
  /// ones in order.
  void setWishesHeld(bool held);
  /// Whether the user is marked as forgotten. Any thread.
  bool isGdprForgetMe() const;
  /// The body of an erasure request, as of now: plain, or sealed with the hash key twice. If building failed, what
  /// could be built of it; absent if nothing could.
  [[nodiscard]] kit::Value makeGdprParameter(ErasureForm form);
  /// Applies the erasure service's answer. Called by the request's handler; an absent response, or a status other than
  /// 200 to 299, leaves the wish unreported.
  void erasureDidAnswer(const std::optional<kit::Response>& response, const kit::Value& json);

  // ---- Demographics (demographics.cpp)

  // Each is stored twice: as pending until the service has it, and for good. Any value; committed with the turn, not
  // flushed. Any thread.
  void setAge(int32_t age);
  void setGender(int32_t gender);
  /// Without a text nothing is pending afterwards.
  void setUserId(const std::optional<std::string>& user_id);
  /// The pending ones as an array of dictionaries of "demo_key" and "demo_value"; empty when there are none. Any
  /// thread.
  [[nodiscard]] kit::Value fetchDemos() const;
  /// The sealed parameters of a demographics request, as of now; absent if they could not be made. Any thread.
  [[nodiscard]] kit::Value makeDemoInfoParameter() const;
  /// Posts them; once accepted, nothing is pending any more. Any thread.
  void sendUserDemoInfos(const kit::Value& parameters);
  /// Nothing is pending any more.
  void deleteDemos();
  /// Empties the stored impressions.
  void deleteImpressionInfo();

  // ---- Schedule (schedule.cpp)

  /// Asks the campaign server for the schedule and hands it to the schedule delegate; an unchanged one is handed on
  /// from memory.
  void getSchedule(const kit::Value& parameters);

  // ---- Fields

  bool isFirstLaunchOk() const { return isFirstLaunchOk_; }
  bool isAppinFocus() const { return isAppinFocus_; }
  bool isStartSessionCalled() const { return isStartSessionCalled_; }
  int32_t failedGetReferralCnt() const { return failedGetReferralCnt_; }
  int32_t failedGetAESKeyCnt() const { return failedGetAESKeyCnt_; }
  /// Absent, or the dictionary whose entries go to the top level of the conversion payload.
  kit::Value fB_DeepLinkData() const { return fB_DeepLinkData_; }
  void setFB_DeepLinkData(kit::Value data) { fB_DeepLinkData_ = std::move(data); }
  std::optional<kit::Date> _startSessoinDate() const { return startSessoinDate_.get(); }
  std::optional<kit::Date> _endSessoinDate() const { return endSessoinDate_.get(); }
  /// Absent until the ad client delivered details in this process.
  kit::Value searchAdsAttributionDetails() const { return searchAdsAttributionDetails_; }
  kit::BackgroundTaskIdentifier background_task() const { return background_task_; }
  const std::string& _checkSum() const { return checkSum_; }
  /// The last full schedule; absent until one was received in this process.
  kit::Value _lastJSON() const { return lastJSON_; }
  int32_t failedGDPRCnt() const { return failedGDPRCnt_; }
  /// The backing field of the property of that name.
  [[nodiscard]] kit::Value makeGdprParameter() const { return makeGdprParameter_; }
  /// What is to be done when the pending re-engagement fails; empty if there is none.
  kit::Block ReEngagement_task() const { return ReEngagement_task_.get(); }
  void setReEngagement_task(kit::Block task) { ReEngagement_task_.set(std::move(task)); }
  bool _isTrackingCalled() const { return isTrackingCalled_; }
  void set_isTrackingCalled(bool called) { isTrackingCalled_ = called; }

 private:
  struct ConversionTexts;

  /// Checksum of a schedule that was never received.
  static constexpr const char* kInitialCheckSum = "init";

  explicit MorvikCoreLib(const kit::Ports& ports);
  void init();
  void observeApplicationLife();

  // Steps of startSession.
  void clearSentEventKeysAtStart();
  EndActivities keepOrStartSession();
  void uploadPendingActivities(EndActivities end_activities);
  void askForAttribution();
  void storeAdvertisingIdentifier();
  void replayStoredURL();
  /// Whether the last session ended 1 to 59,999 milliseconds ago.
  bool endedWithinTheMinute() const;

  // Steps of the session's end, the retention mark and the background task.
  void sendAtSessionEnd(uint64_t session_length_milliseconds);
  void markRetention(kit::Date now);
  void endBackgroundTaskHeld();
  void recordSessionActivity(const char* name, const std::string& param, kit::Date created_at);

  // Tracking.
  struct SentBatch;
  kit::Value buildBatch(EndActivities end_activities);
  void noteSentEventKeys(kit::MutableArray keys);
  bool isTrackingPossible() const;
  void buildAndSend();
  void refetchReferral();
  void trackingDidSucceed(const kit::Value& json, const std::shared_ptr<const SentBatch>& batch);
  /// tracking() of a batch that was built with these.
  void sendBatch(const kit::Value& parameters, EndActivities end_activities);
  void trackingWasNotSent(EndActivities end_activities);
  kit::Value emptySentEventKeys();
  void trackingDidFail(const std::optional<kit::Response>& response, const kit::Error& error,
                       const std::shared_ptr<const SentBatch>& batch);
  /// For the answer to `answered`; null: for none.
  bool trimActivities(const SentBatch* answered);
  kit::LedgerReason reasonOfTrim(const SentBatch* answered) const;
  void clearSentEventKeysAfterFailure();
  void takeServerTime(const kit::Value& json);
  /// The server's time in an answer, a number of milliseconds since 1970; absent if there is none.
  static kit::Value baseTimeOf(const kit::Value& json);

  void batchDidEnd(BatchEnd end);

  // A backlog (backlog.cpp).
  bool clearStored(kit::LedgerKind kind, uint64_t stores_known, kit::LedgerReason reason);
  void removeSent(kit::LedgerKind kind, const kit::Array& sent);
  bool followAccepted(const std::shared_ptr<const SentBatch>& batch, bool has_trimmed);
  bool followTooLarge(const std::shared_ptr<const SentBatch>& batch, const std::optional<kit::Response>& response,
                      const kit::Error& error);
  bool isFullBatchWaiting(const SentBatch& batch) const;
  void giveUpActivity(const SentBatch& batch);
  void planNextBatch(const std::shared_ptr<const SentBatch>& batch, bool needs_session);
  void sendNextBatch(const SentBatch& batch, bool needs_session);
  EndActivities endActivitiesNow(const SentBatch& batch) const;
  EndActivities endActivitiesOfRest() const;

  // Sending.
  void pushAsAtSessionStart();

  // Attribution.
  /// The parameters of a conversion, and the stores that were known before they were made.
  struct MadeConversion {
    uint64_t stores_known = 0;
    uint64_t records_known = 0;
    kit::Value parameters;
  };
  MadeConversion makeConversion();
  MadeConversion madeElsewhere(const kit::Value& parameters) const;
  void conversion(MadeConversion made);
  void thirdPartyConversion(MadeConversion made);
  void requestConversion(MadeConversion made, const ConversionTexts& texts, services::ErrorHandler failure);
  void iAdAppAttributionTracking(const kit::Value& parameters, uint64_t records_known);
  void conversionDidSucceed(const kit::Value& json, const ConversionTexts& texts, uint64_t records_known);
  void conversionDidFail(const std::optional<kit::Response>& response, const kit::Error& error);
  void saveReferralIfDue(const kit::Value& json, const ConversionTexts& texts, uint64_t records_known);
  void saveReferral(const ReferralRecord& record, uint64_t records_known);
  bool isOutdated(uint64_t records_known) const { return records_brought_ != records_known; }
  void passDeferredDeepLink(const kit::Value& json, const ConversionTexts& texts);
  void saveConversionKeys(const kit::Value& json);
  ReferralRecord referralRecord(const kit::Value& json, int64_t install_date_if_unparsable) const;
  bool storeReferral(const ReferralRecord& record, uint64_t records_known);
  void notifyReferralSaved(const ReferralRecord& record);
  void attributionDidEnd();
  void searchAdsDidAnswer(const kit::Value& details, const std::optional<kit::Error>& error);
  void iAdAttributionDidSucceed(const kit::Value& json, uint64_t records_known);
  kit::Value sealedWithHashKey(const kit::Value& payload);

  // Deep links.
  void keepURL(const kit::Url& url);
  void openReEngagementClick(const kit::Url& url, const kit::Value& query, const OpeningMoment& moment);
  void openAdvertisingIdClick(const kit::Url& url, const kit::Value& query, const OpeningMoment& moment);
  void sendReEngagement(const kit::Url& url, const kit::Value& query, const OpeningMoment& moment);
  kit::Value reEngagementParameter(const kit::Url& url, bool is_first_launch);
  void resetRetainedConversionCache(const kit::Value& query);
  kit::Value clickRecord(const kit::Url& url, bool is_first_launch) const;
  void recordFailedReEngagement(const kit::Url& url, bool is_first_launch);
  /// `load`: what the request carries, if that is known.
  void sendClick(const kit::Value& parameters, const std::optional<kit::LedgerLoad>& load);
  void reEngagementDidSucceed(const kit::Value& json, kit::LedgerTicket ticket);
  void reEngagementDidFail(const std::optional<kit::Response>& response, const kit::Error& error,
                           kit::LedgerTicket ticket);
  void passRetainedConversionKey(int64_t conversion_key);
  void strikeOffFailedReEngagement(int64_t conversion_key);
  void countSessionEndOfFailedReEngagements();
  void resendFailedReEngagements(kit::MutableDictionary payload);
  bool isConversionReported(int64_t conversion_key) const;

  // Demographics.
  struct SentDemos {
    uint64_t stores_known = 0;  ///< stores_brought_ before they were read
    kit::Value demos;
  };
  SentDemos demosOfThisMoment() const;
  void sendDemos(const kit::Value& parameters, const SentDemos& sent);
  void demosWereAccepted(const SentDemos& sent);
  void deleteSentDemos(const SentDemos& sent);
  void deleteAllDemos(kit::LedgerReason reason);
  void deleteDemo(kit::DemographicValue value, kit::LedgerReason reason);
  kit::Value demoParameterOf(const kit::Value& demos) const;
  void tellDemographic(kit::DemographicValue value, bool is_pending);

  // Commerce.
  void reportCommerceClick(const kit::Value& query, const OpeningMoment& moment);
  void recordCommerceClick(const kit::Value& query, const OpeningMoment& moment);
  void commerceDidSucceed(const kit::Value& json, uint64_t stores_known, const kit::Value& sent,
                          kit::LedgerTicket ticket);
  void premiumPostbackDidSucceed(const kit::Value& json);
  void saveCommerceEvents();

  // Crash reports.
  void takeInShelvedReports();
  bool queueReports(const kit::Array& reports);
  kit::Value crashReport(const kit::UncaughtException& exception) const;
  kit::Value deviceInformation(bool app_in_focus) const;
  kit::Value moduleVersion(const char* class_name) const;
  void keepReport(const services::Logger& logger, const kit::Value& report);
  struct SentCrashes;
  kit::Value remainingCrashInfos(const kit::Value& queue) const;
  void crashUploadDidSucceed(const kit::Value& json, const SentCrashes& sent);
  void removeDelivered(const SentCrashes& sent);
  kit::Value blank(const std::optional<std::string>& text) const;

  // Privacy.
  bool recordForgetMe(bool forget_me);
  bool wasForgetMeSynced() const;
  bool tellNextWish();
  void tellForgetMe(bool forget_me);
  void noteForgetMeNotAccepted();
  void leaveForgetMeUntold();
  void sendErasureRequest();
  void erasureDidFail(const std::optional<kit::Response>& response, const kit::Error& error);
  void setForgetMe(bool forget_me);
  void setForgetMeSynced(bool synced);

  // Demographics.
  void sendPendingDemos();

  // Schedule.
  kit::Value scheduleParameters() const;
  void scheduleDidArrive(const kit::Value& json);
  void replaySchedule();
  void passSchedule();

  // What every subsystem uses.
  const services::Logger& log() const { return log_; }
  const services::MorvikGVUserDefaults& store() const { return store_; }
  kit::MorvikCoreServicesLib& services() const { return ports_.services_lib; }
  const kit::MorvikADUtil& util() const { return ports_.util; }
  services::SealingTools sealingTools() const { return {ports_.cipher, ports_.compressor, ports_.random}; }
  services::RequestTools requestTools() const {
    return {ports_.transport, ports_.json, ports_.services_lib, ports_.ledger};
  }
  kit::Ledger& ledger() const { return ports_.ledger; }
  /// The singleton of an optional module; null when the module is absent.
  std::shared_ptr<const kit::ModuleObject> sharedObjectOf(const kit::Module* module) const {
    return module != nullptr && module->shared ? module->shared() : nullptr;
  }
  /// No request except the erasure may be made: the user asked to be forgotten, or the app has switched sending off.
  bool isGateClosed() const { return services().isGDPRForgetMe() || services().isSendingOff(); }
  const std::string& trackingKey() const { return ports_.shared_state.kAESSuperKeyForTracking; }

  const kit::Ports& ports_;
  services::Logger log_;
  services::MorvikGVUserDefaults store_;

  // Flags are read and written from the main and the background queue; the rest belongs to the main queue,
  // except the two dates, which have their own locks.
  std::atomic<bool> isFirstLaunchOk_{false};
  std::atomic<bool> isAppinFocus_{false};
  std::atomic<bool> isStartSessionCalled_{false};
  std::atomic<int32_t> failedGetReferralCnt_{0};
  std::atomic<int32_t> failedGetAESKeyCnt_{0};
  kit::Value fB_DeepLinkData_;
  services::Locked<std::optional<kit::Date>> startSessoinDate_;
  services::Locked<std::optional<kit::Date>> endSessoinDate_;
  services::DateFormatter _df;
  kit::Value searchAdsAttributionDetails_;
  std::atomic<kit::BackgroundTaskIdentifier> background_task_{kit::kBackgroundTaskInvalid};
  std::string checkSum_;
  kit::Value lastJSON_;
  int32_t failedGDPRCnt_ = 0;
  /// While a wish is unreported: whether the service had accepted one before, as the stored flag said. Under the list
  /// lock.
  std::optional<bool> synced_before_wish_;
  std::deque<bool> untold_wishes_;  ///< for each a block is posted, or they are held; under the list lock
  bool are_wishes_held_ = false;
  std::atomic<bool> isTrackingCalled_{false};
  kit::Value makeTrackingParameter_;
  kit::Value makeGdprParameter_;
  services::Locked<kit::Block> ReEngagement_task_;

  int batches_under_way_ = 0;
  int attributions_under_way_ = 0;
  /// Counts the recovered stores: what was built before does not contain what they hold.
  std::atomic<uint64_t> stores_brought_{0};
  /// Counts those with a referral record. What was asked before is not about that install.
  std::atomic<uint64_t> records_brought_{0};
  DeliveryObserver delivery_observer_;
  /// What the session's first batch would have done if sending had been on.
  EndActivities withheld_end_activities_ = EndActivities::kSend;
  bool pushes_after_batch_ = false;

  BatchSize batch_size_;
  KnownOrder activity_order_;
  KnownOrder impression_order_;
  std::shared_ptr<SentBatch> built_batch_;         ///< until it is sent
  std::shared_ptr<const SentBatch> last_batch_;    ///< the latest that was built
  std::shared_ptr<const SentBatch> newest_batch_;  ///< whose request has begun
  std::shared_ptr<const SentBatch> noted_batch_;   ///< to which the noted sent-event keys belong
  kit::Value built_click_;                         ///< the latest
  kit::LedgerTicket newest_click_ = 0;  ///< of the one that the held ReEngagement_task keeps; 0: it is not sent yet
  bool is_next_batch_due_ = false;
  uint64_t sessions_ = 0;  ///< counts their beginnings and their ends

  // Under the list lock, as the lists are.
  services::ListIndex failed_clicks_;
  services::ListIndex failed_click_counts_;
};

}  // namespace morvik
