// The services object of the kit, as the core object needs it: keys, forget-me mirror, server clock offset, activity
// store, common parameters and envelope.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kit/error.h"
#include "kit/modules.h"
#include "kit/transport.h"
#include "kit/value.h"

namespace morvik::kit {

/// Delegate of the services object. Every slot is optional. Called on the main queue.
struct SaveFendoUserInfoDelegate {
  std::function<void(int64_t fendo_user_no, int64_t referral_key, int64_t sub_referral_key, const std::string& ref_usn,
                     int32_t channel_type)>
      didSaveFendoUserInfo;
};

/// How an exchange ended, from the request operation.
struct ExchangeResult {
  bool succeeded = false;  ///< the success handler is due
  Value json;              ///< the answer's JSON, if any
  int status_code = 0;     ///< of the answer; 0: there was none
  Error error;             ///< why it did not succeed
};

/// Any thread unless said otherwise; nothing waits for the disk or the network.
class MorvikCoreServicesLib {
 public:
  virtual ~MorvikCoreServicesLib() = default;

  /// Takes no lock.
  virtual std::string appKey() const = 0;
  virtual std::string hashKey() const = 0;
  /// The forget-me mirror: while true, only the erasure request starts.
  virtual bool isGDPRForgetMe() const = 0;
  virtual void setIsGDPRForgetMe(bool forget_me) = 0;
  /// The app's switch: while true, only the erasure request starts, and the ad client is not asked. Changes between two
  /// turns of the main queue, or within one by the app's own call. Takes no lock.
  virtual bool isSendingOff() const = 0;
  /// The mirror of whether the erasure service has accepted the user's wish.
  virtual void setIsGDPRForgetMeServerSynced(bool synced) = 0;

  /// Seconds to add to device time to get server time.
  virtual double intervalSinceServerDate() const = 0;
  virtual void setIntervalSinceServerDate(double interval_seconds) = 0;

  /// Name of an activity group; 0 is the session group.
  virtual std::string activityGroupName(int group) const = 0;
  /// Appends a stored activity record with a new event id, and flushes. `param` may be absent.
  virtual void addActivityGroupName(const Value& group_name, const Value& activity_name, const Value& param,
                                    Date created_at) = 0;

  /// The fields common to all payloads; the caller adds its own.
  virtual MutableDictionary makeCommonParameter(const std::string& sdk_version) = 0;
  /// The parameters dictionary that carries `payload`, sealed with the key; absent if it cannot be made, with a log
  /// line.
  virtual Value makeJsonParameter(const Value& payload, const std::string& encryption_key) = 0;

  virtual void setConversionResult(bool result) = 0;
  virtual void setConversionResultCode(int64_t code) = 0;
  /// The advertising identifier as the services object knows it; nothing if unavailable.
  virtual std::optional<std::string> appleAdvertisingIdentifier() const = 0;
  /// Replaces the cached conversion keys with these (plain numbers).
  virtual void saveConversionInfoForCacheWithConversionArr(const Value& conversion_keys) = 0;

  /// Adds a conversion key to the cached ones, unless it is there.
  virtual void saveConversionInfoForCache(int64_t conversion_key) = 0;
  /// Notes when the server answered for a conversion key: milliseconds since 1970, 0 if it did not say.
  virtual void saveConversionTimeInfoForCache(const std::string& conversion_key, double get_time_milliseconds) = 0;

  virtual bool isPremiumPostback() const = 0;
  virtual void setIsPremiumPostback(bool is_premium_postback) = 0;

  // Delegates are held weakly; null if there is none.
  virtual std::shared_ptr<const SaveFendoUserInfoDelegate> saveFendoUserInfoDelegate() const = 0;
  virtual std::shared_ptr<const ResetRetainedConversionCacheDelegate> resetRetainedConversionCacheDeleate() const = 0;
  virtual void setResetRetainedConversionCacheDeleate(
      std::weak_ptr<const ResetRetainedConversionCacheDelegate> delegate) = 0;
  virtual std::shared_ptr<const SaveRetainedConversionKeyDelegate> saveRetainedConversionKeyDelegate() const = 0;
  virtual void setSaveRetainedConversionKeyDelegate(
      std::weak_ptr<const SaveRetainedConversionKeyDelegate> delegate) = 0;
  virtual std::shared_ptr<const GetScheduleDelegate> getScheduleDelegate() const = 0;
  virtual void setGetScheduleDelegate(std::weak_ptr<const GetScheduleDelegate> delegate) = 0;

  /// The request operation calls it for every exchange that ended, just before its handler runs. Main queue.
  virtual void exchangeDidEnd(const Request& request, const ExchangeResult& result) = 0;
};

}  // namespace morvik::kit
