// The kit's services object for tests: real envelope, real records, and it remembers what the core told it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kit/MorvikCoreServicesLib.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/conversion_cache.h"
#include "services/envelope.h"
#include "testing/recording.h"

namespace morvik::testing {

struct FakeServicesLibOptions {
  std::string app_key = "test-app";
  std::string hash_key = "test-hash";
  /// Event ids are "event-1", "event-2", …, starting with this number; a second process continues the count.
  uint64_t first_event_number = 1;
  std::optional<std::string> advertising_identifier = "00000000-0000-4000-8000-0000000000AD";
};

/// An exchange that the request operation reported.
struct EndedExchange {
  std::string url;
  kit::ExchangeResult result;
};

/// The services object of one process: it loads its forget-me mirrors from the store when constructed; its clock offset
/// starts at 0. Any thread; nothing blocks. All arguments must outlive it.
class FakeServicesLib : public kit::MorvikCoreServicesLib {
 public:
  FakeServicesLib(services::MorvikGVUserDefaults store, services::SealingTools sealing,
                  FakeServicesLibOptions options = {});

  std::string appKey() const override { return options_.app_key; }
  std::string hashKey() const override { return options_.hash_key; }
  bool isGDPRForgetMe() const override;
  void setIsGDPRForgetMe(bool forget_me) override;
  void setIsGDPRForgetMeServerSynced(bool synced) override;
  bool isSendingOff() const override { return is_sending_off_; }
  double intervalSinceServerDate() const override;
  void setIntervalSinceServerDate(double interval_seconds) override;
  /// "session" for 0, "group 1", "group 2", … for others.
  std::string activityGroupName(int group) const override;
  /// Stores the record unchanged, with the next event id, and flushes. Refuses nothing, so that a test can store any
  /// record.
  void addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name, const kit::Value& param,
                            kit::Date created_at) override;
  /// All common parameters; those that the test did not set have a text that names them.
  kit::MutableDictionary makeCommonParameter(const std::string& sdk_version) override;
  kit::Value makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) override;
  void setConversionResult(bool result) override;
  void setConversionResultCode(int64_t code) override;
  std::optional<std::string> appleAdvertisingIdentifier() const override;
  void saveConversionInfoForCacheWithConversionArr(const kit::Value& conversion_keys) override;
  void saveConversionInfoForCache(int64_t conversion_key) override;
  void saveConversionTimeInfoForCache(const std::string& conversion_key, double get_time_milliseconds) override;
  bool isPremiumPostback() const override;
  void setIsPremiumPostback(bool is_premium_postback) override;
  std::shared_ptr<const kit::SaveFendoUserInfoDelegate> saveFendoUserInfoDelegate() const override;
  std::shared_ptr<const kit::ResetRetainedConversionCacheDelegate> resetRetainedConversionCacheDeleate() const override;
  void setResetRetainedConversionCacheDeleate(
      std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> delegate) override;
  std::shared_ptr<const kit::SaveRetainedConversionKeyDelegate> saveRetainedConversionKeyDelegate() const override;
  void setSaveRetainedConversionKeyDelegate(
      std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> delegate) override;
  std::shared_ptr<const kit::GetScheduleDelegate> getScheduleDelegate() const override;
  void setGetScheduleDelegate(std::weak_ptr<const kit::GetScheduleDelegate> delegate) override;
  void exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result) override;

  // Set by the test.
  void setIsSendingOff(bool is_off) { is_sending_off_ = is_off; }
  void setAppleAdvertisingIdentifier(std::optional<std::string> identifier);
  void setSaveFendoUserInfoDelegate(std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate);
  /// Sets the value of a common parameter; an absent value leaves it out.
  void setCommonParameter(const kit::Value& name, const kit::Value& value);

  // Set by the core.
  bool isGDPRForgetMeServerSynced() const;
  std::optional<bool> conversionResult() const;
  std::optional<int64_t> conversionResultCode() const;
  std::vector<EndedExchange> endedExchanges() const { return ended_exchanges_.all(); }
  /// The errors of envelopes that could not be made.
  std::vector<std::string> envelopeErrors() const { return envelope_errors_.all(); }
  /// Calls that change or send something, in order: the operation's name, and what distinguishes the call
  /// ("addActivityGroupName session start").
  std::vector<std::string> calls() const { return calls_.all(); }
  /// The number of the next event id.
  uint64_t nextEventNumber() const;

 private:
  const FakeServicesLibOptions options_;
  const services::MorvikGVUserDefaults store_;
  const services::SealingTools sealing_;
  Recording<std::string> calls_;
  Recording<std::string> envelope_errors_;
  Recording<EndedExchange> ended_exchanges_;
  services::ConversionCache conversions_;
  std::atomic<bool> is_sending_off_{false};

  mutable std::mutex mutex_;  // guards the members below
  bool is_gdpr_forget_me_;
  bool is_gdpr_forget_me_server_synced_;
  double interval_since_server_date_ = 0;
  uint64_t next_event_number_;
  std::vector<std::pair<kit::Value, kit::Value>> common_parameters_;
  std::optional<std::string> advertising_identifier_;
  std::weak_ptr<const kit::SaveFendoUserInfoDelegate> delegate_;
  std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> reset_delegate_;
  std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> retained_delegate_;
  std::weak_ptr<const kit::GetScheduleDelegate> schedule_delegate_;
  bool is_premium_postback_ = false;
  std::optional<bool> conversion_result_;
  std::optional<int64_t> conversion_result_code_;
};

}  // namespace morvik::testing
