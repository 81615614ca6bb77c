// The services object: keys, forget-me mirror, server clock offset, activity store, envelope.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/clock.h"
#include "morvik/morvik.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/observe/observations.h"
#include "runtime/siblings/common_parameters.h"
#include "runtime/siblings/size_trigger.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/conversion_cache.h"
#include "services/envelope.h"
#include "services/locked.h"
#include "services/log.h"

namespace morvik::runtime {

/// What the services object needs. References outlive it.
struct ServicesLibParts {
  std::string app_key;
  std::string hash_key;
  std::string tracking_url;  ///< where batches go; identifies their answers
  services::MorvikGVUserDefaults store;
  services::Logger logger;
  const kit::Clock& clock;
  services::SealingTools sealing;
  const CommonParameters& common;
  const MorvikADUtil& util;
  SizeTrigger& size_trigger;
  LedgerBook* ledger = nullptr;          ///< null: nothing is counted
  Observations* observations = nullptr;  ///< null: nothing is reported
};

class MorvikCoreServicesLib final : public kit::MorvikCoreServicesLib {
 public:
  /// Loads its mirrors from the store.
  explicit MorvikCoreServicesLib(ServicesLibParts parts);
  /// Reloads them when the store has recovered. Under the list lock.
  void loadMirrors();
  /// Within the commit in which the store recovers, on any thread: the user is forgotten at once if the store says so.
  /// Everything else waits for loadMirrors(), which must follow.
  void closeIfStoredForgotten();

  std::string appKey() const override { return parts_.app_key; }
  std::string hashKey() const override { return parts_.hash_key; }
  bool isGDPRForgetMe() const override { return is_forget_me_; }
  /// When it returns, no record of the app that was not admitted before can still enter.
  void setIsGDPRForgetMe(bool forget_me) override;
  void setIsGDPRForgetMeServerSynced(bool synced) override { is_forget_me_synced_ = synced; }
  bool isSendingOff() const override;
  void setIsSendingOff(bool is_off) { is_sending_off_ = is_off; }
  /// While it lives, isSendingOff() is constant on the thread that made it: so nothing is counted as sent and then
  /// refused. What is started meanwhile waits where requests leave. One at a time.
  class BackgroundBlock {
   public:
    explicit BackgroundBlock(MorvikCoreServicesLib& services) : services_(services) {
      services_.was_sending_off_ = services_.is_sending_off_;
      services_.background_thread_ = std::this_thread::get_id();
    }
    ~BackgroundBlock() { services_.background_thread_ = std::thread::id(); }
    BackgroundBlock(const BackgroundBlock&) = delete;
    BackgroundBlock& operator=(const BackgroundBlock&) = delete;

   private:
    MorvikCoreServicesLib& services_;
  };
  /// True once the erasure service has accepted the user's wish.
  bool isGDPRForgetMeServerSynced() const { return is_forget_me_synced_; }
  double intervalSinceServerDate() const override { return interval_seconds_; }
  void setIntervalSinceServerDate(double interval_seconds) override { interval_seconds_ = interval_seconds; }
  std::string activityGroupName(int group) const override;

  /// The core object's entrance: records even while the forget-me flag is set. A group or name that is no text or
  /// number is refused, with a log line; text that is not UTF-8 is repaired, with a log line.
  void addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name, const kit::Value& param,
                            kit::Date created_at) override;
  /// The app's entrance, for any thread: asks the gate and admits the record in one step. The record is in the kernel's
  /// hands when this returns. Log lines are posted.
  Recorded addActivityOfApp(std::string_view group, std::string_view name, std::optional<std::string_view> param,
                            kit::Date created_at);
  Recorded addImpressionOfApp(const Impression& impression, kit::Date created_at);
  /// Counts a refused event of the app and logs why, as posted.
  Recorded refuse(Recorded reason, const char* operation, const char* what);

  kit::MutableDictionary makeCommonParameter(const std::string& sdk_version) override;
  kit::Value makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) override;

  void setConversionResult(bool result) override { conversion_result_ = result; }
  void setConversionResultCode(int64_t code) override { conversion_result_code_ = code; }
  /// From the last conversion answer; false and 0 before there was one.
  bool conversionResult() const { return conversion_result_; }
  int64_t conversionResultCode() const { return conversion_result_code_; }
  std::optional<std::string> appleAdvertisingIdentifier() const override { return parts_.util.IDFA(); }
  void saveConversionInfoForCacheWithConversionArr(const kit::Value& conversion_keys) override;

  void saveConversionInfoForCache(int64_t conversion_key) override { conversions_.add(conversion_key); }
  void saveConversionTimeInfoForCache(const std::string& conversion_key, double get_time_milliseconds) override {
    conversions_.saveTime(conversion_key, get_time_milliseconds);
  }
  bool isPremiumPostback() const override { return is_premium_postback_; }
  void setIsPremiumPostback(bool is_premium_postback) override { is_premium_postback_ = is_premium_postback; }

  std::shared_ptr<const kit::SaveFendoUserInfoDelegate> saveFendoUserInfoDelegate() const override;
  /// Held weakly. Any thread.
  void setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate);
  std::shared_ptr<const kit::ResetRetainedConversionCacheDelegate> resetRetainedConversionCacheDeleate() const override;
  void setResetRetainedConversionCacheDeleate(
      std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> delegate) override;
  std::shared_ptr<const kit::SaveRetainedConversionKeyDelegate> saveRetainedConversionKeyDelegate() const override;
  void setSaveRetainedConversionKeyDelegate(
      std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> delegate) override;
  std::shared_ptr<const kit::GetScheduleDelegate> getScheduleDelegate() const override;
  void setGetScheduleDelegate(std::weak_ptr<const kit::GetScheduleDelegate> delegate) override;

  void exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result) override;

 private:
  kit::Value recordable(const kit::Value& value, const char* field) const;
  kit::Value recordableOfApp(std::string_view text, const char* field) const;
  kit::Value activityOf(kit::Value group, kit::Value name, kit::Value param, kit::Date created_at) const;
  void letIn(const kit::Value& activity);
  bool letInUnlessForgotten(const kit::Value& activity);

  const ServicesLibParts parts_;
  std::atomic<bool> is_forget_me_{false};
  std::atomic<bool> is_forget_me_synced_{false};
  std::atomic<bool> is_sending_off_{false};
  std::atomic<std::thread::id> background_thread_{};  ///< the thread whose block runs
  bool was_sending_off_ = false;                      ///< when it began; used by that thread only
  std::atomic<double> interval_seconds_{0.0};
  std::atomic<bool> conversion_result_{false};
  std::atomic<int64_t> conversion_result_code_{0};
  std::atomic<bool> is_premium_postback_{false};
  services::ConversionCache conversions_;
  services::Locked<std::weak_ptr<const kit::SaveFendoUserInfoDelegate>> save_delegate_;
  services::Locked<std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate>> reset_delegate_;
  services::Locked<std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate>> retained_delegate_;
  services::Locked<std::weak_ptr<const kit::GetScheduleDelegate>> schedule_delegate_;
};

}  // namespace morvik::runtime
