// Ports that fail when told to. Faulty<Port> forwards every call to a real (or fake) port, unless a fault was planned
// for it: then it throws instead, and the port behind it is not called.
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "kit/MorvikADGetPUID.h"
#include "kit/MorvikADUtil.h"
#include "kit/MorvikCoreServicesLib.h"
#include "kit/ad_client.h"
#include "kit/background_tasks.h"
#include "kit/bundle.h"
#include "kit/clock.h"
#include "kit/config.h"
#include "kit/crash.h"
#include "kit/crypto.h"
#include "kit/device.h"
#include "kit/facade.h"
#include "kit/json_codec.h"
#include "kit/key_value_store.h"
#include "kit/log.h"
#include "kit/modules.h"
#include "kit/notifications.h"
#include "kit/queues.h"
#include "kit/threads.h"
#include "kit/transport.h"
#include "testing/recording.h"

namespace morvik::testing {

/// What to throw.
class Fault {
 public:
  /// The platform exception.
  static Fault exception(std::string name, std::string reason, kit::Value info = {});
  static Fault runtimeError(std::string message);
  static Fault number(int number);
  static Fault text(std::string text);

  /// Throws it: a kit::Exception, a std::runtime_error, an int or a std::string.
  [[noreturn]] void raise() const;
  /// "kit::Exception name: reason", "std::runtime_error message", "int 7", "std::string text".
  std::string description() const;

 private:
  struct RuntimeError {
    std::string message;
  };
  using Thrown = std::variant<kit::Exception, RuntimeError, int, std::string>;
  explicit Fault(Thrown thrown) : thrown_(std::move(thrown)) {}
  Thrown thrown_;
};

/// The faults planned for one port. Any thread; nothing blocks.
class Faults {
 public:
  Faults(std::string port, std::initializer_list<const char*> operations);

  /// The names of the operations that can fail: all of the port's.
  const std::vector<std::string>& operations() const { return operations_; }
  /// Throws once, at the `nth` call of that operation from now on (1 is the next). std::invalid_argument for a name
  /// that is not among operations(), and for 0.
  void throwAt(std::string_view operation, size_t nth, Fault fault);
  /// Throws at every call of that operation from now on.
  void throwAlways(std::string_view operation, Fault fault);
  /// Throws at every call of every operation from now on.
  void throwAlwaysEverywhere(const Fault& fault);
  /// Cancels all planned faults.
  void clear();

  /// Calls of the operation so far, including failed ones.
  size_t calls(std::string_view operation) const;
  /// Every planned fault that was not thrown yet (a fault at every call stays), in the order of operations():
  /// "KeyValueStore.set, call 3: int 7", "Clock.now, every call: std::string no time".
  std::vector<std::string> planned() const;
  /// Every thrown fault, in order (the latest kMaxRecordedEntries): "KeyValueStore.set, call 3: int 7". Calls are
  /// counted from the first.
  std::vector<std::string> thrown() const { return thrown_.all(); }

  /// The wrapper calls this first in each operation.
  void pass(std::string_view operation);

 private:
  struct Operation {
    size_t calls = 0;
    std::map<size_t, Fault> at_call;
    std::unique_ptr<Fault> always;
  };
  Operation& find(std::string_view operation);
  const Operation& find(std::string_view operation) const;
  std::string describe(std::string_view operation, const std::string& when, const Fault& fault) const;

  const std::string port_;
  std::vector<std::string> operations_;
  mutable std::mutex mutex_;  // guards the members below
  std::map<std::string, Operation, std::less<>> planned_;
  Recording<std::string> thrown_;
};

/// Wraps a port, which must outlive it. Threads, blocking and ownership are the port's.
template <class Port>
class Faulty;

template <>
class Faulty<kit::Clock> final : public kit::Clock {
 public:
  explicit Faulty(const kit::Clock& port) : port_(port) {}
  kit::Date now() const override {
    faults.pass("now");
    return port_.now();
  }
  mutable Faults faults{"Clock", {"now"}};

 private:
  const kit::Clock& port_;
};

template <>
class Faulty<kit::Calendar> final : public kit::Calendar {
 public:
  explicit Faulty(const kit::Calendar& port) : port_(port) {}
  kit::CalendarComponents components(kit::Date date) const override {
    faults.pass("components");
    return port_.components(date);
  }
  std::optional<kit::Date> date(const kit::CalendarComponents& components) const override {
    faults.pass("date");
    return port_.date(components);
  }
  mutable Faults faults{"Calendar", {"components", "date"}};

 private:
  const kit::Calendar& port_;
};

template <>
class Faulty<kit::MainQueue> final : public kit::MainQueue {
 public:
  explicit Faulty(kit::MainQueue& port) : port_(port) {}
  void async(kit::Block block) override {
    faults.pass("async");
    port_.async(std::move(block));
  }
  void after(double delay_seconds, kit::Block block) override {
    faults.pass("after");
    port_.after(delay_seconds, std::move(block));
  }
  Faults faults{"MainQueue", {"async", "after"}};

 private:
  kit::MainQueue& port_;
};

template <>
class Faulty<kit::BackgroundQueue> final : public kit::BackgroundQueue {
 public:
  explicit Faulty(kit::BackgroundQueue& port) : port_(port) {}
  void async(kit::Block block) override {
    faults.pass("async");
    port_.async(std::move(block));
  }
  Faults faults{"BackgroundQueue", {"async"}};

 private:
  kit::BackgroundQueue& port_;
};

template <>
class Faulty<kit::BackgroundTasks> final : public kit::BackgroundTasks {
 public:
  explicit Faulty(kit::BackgroundTasks& port) : port_(port) {}
  kit::BackgroundTaskIdentifier beginBackgroundTaskWithExpirationHandler(kit::Block expiration_handler) override {
    faults.pass("beginBackgroundTaskWithExpirationHandler");
    return port_.beginBackgroundTaskWithExpirationHandler(std::move(expiration_handler));
  }
  void endBackgroundTask(kit::BackgroundTaskIdentifier identifier) override {
    faults.pass("endBackgroundTask");
    port_.endBackgroundTask(identifier);
  }
  Faults faults{"BackgroundTasks", {"beginBackgroundTaskWithExpirationHandler", "endBackgroundTask"}};

 private:
  kit::BackgroundTasks& port_;
};

template <>
class Faulty<kit::NotificationCenter> final : public kit::NotificationCenter {
 public:
  explicit Faulty(kit::NotificationCenter& port) : port_(port) {}
  void addObserver(kit::Notification notification, std::function<void()> observer) override {
    faults.pass("addObserver");
    port_.addObserver(notification, std::move(observer));
  }
  Faults faults{"NotificationCenter", {"addObserver"}};

 private:
  kit::NotificationCenter& port_;
};

template <>
class Faulty<kit::KeyValueStore> final : public kit::KeyValueStore {
 public:
  explicit Faulty(kit::KeyValueStore& port) : port_(port) {}
  kit::Value get(std::string_view key) const override {
    faults.pass("get");
    return port_.get(key);
  }
  void set(std::string_view key, kit::Value value) override {
    faults.pass("set");
    port_.set(key, std::move(value));
  }
  void append(std::string_view key, kit::Value element) override {
    faults.pass("append");
    port_.append(key, std::move(element));
  }
  void replace(std::string_view key, const kit::Value& before, kit::Value after) override {
    faults.pass("replace");
    port_.replace(key, before, std::move(after));
  }
  bool synchronize() override {
    faults.pass("synchronize");
    return port_.synchronize();
  }
  std::optional<kit::Value> tryGet(std::string_view key) const override {
    faults.pass("tryGet");
    return port_.tryGet(key);
  }
  bool trySetAndSynchronize(std::string_view key, kit::Value value) override {
    faults.pass("trySetAndSynchronize");
    return port_.trySetAndSynchronize(key, std::move(value));
  }
  mutable Faults faults{"KeyValueStore",
                        {"get", "set", "append", "replace", "synchronize", "tryGet", "trySetAndSynchronize"}};

 private:
  kit::KeyValueStore& port_;
};

template <>
class Faulty<kit::Transport> final : public kit::Transport {
 public:
  explicit Faulty(kit::Transport& port) : port_(port) {}
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    faults.pass("start");
    port_.start(std::move(request), std::move(handler));
  }
  Faults faults{"Transport", {"start"}};

 private:
  kit::Transport& port_;
};

template <>
class Faulty<kit::JsonCodec> final : public kit::JsonCodec {
 public:
  explicit Faulty(const kit::JsonCodec& port) : port_(port) {}
  std::variant<kit::Value, kit::Error> read(std::string_view text) const override {
    faults.pass("read");
    return port_.read(text);
  }
  std::variant<std::string, kit::Error> write(const kit::Value& value) const override {
    faults.pass("write");
    return port_.write(value);
  }
  std::variant<std::string, kit::Error> writePretty(const kit::Value& value) const override {
    faults.pass("writePretty");
    return port_.writePretty(value);
  }
  mutable Faults faults{"JsonCodec", {"read", "write", "writePretty"}};

 private:
  const kit::JsonCodec& port_;
};

template <>
class Faulty<kit::Cipher> final : public kit::Cipher {
 public:
  explicit Faulty(const kit::Cipher& port) : port_(port) {}
  std::optional<kit::Error> encrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view plaintext, std::string& out) const override {
    faults.pass("encrypt");
    return port_.encrypt(key_text, nonce, header, plaintext, out);
  }
  std::optional<kit::Error> decrypt(std::string_view key_text, std::string_view nonce, std::string_view header,
                                    std::string_view sealed, std::string& out) const override {
    faults.pass("decrypt");
    return port_.decrypt(key_text, nonce, header, sealed, out);
  }
  mutable Faults faults{"Cipher", {"encrypt", "decrypt"}};

 private:
  const kit::Cipher& port_;
};

template <>
class Faulty<kit::Compressor> final : public kit::Compressor {
 public:
  explicit Faulty(const kit::Compressor& port) : port_(port) {}
  std::optional<kit::Error> deflate(std::string_view plain, std::string& out) const override {
    faults.pass("deflate");
    return port_.deflate(plain, out);
  }
  std::optional<kit::Error> inflate(std::string_view deflated, size_t max_bytes, std::string& out) const override {
    faults.pass("inflate");
    return port_.inflate(deflated, max_bytes, out);
  }
  mutable Faults faults{"Compressor", {"deflate", "inflate"}};

 private:
  const kit::Compressor& port_;
};

template <>
class Faulty<kit::Random> final : public kit::Random {
 public:
  explicit Faulty(kit::Random& port) : port_(port) {}
  void fill(std::span<uint8_t> bytes) override {
    faults.pass("fill");
    port_.fill(bytes);
  }
  Faults faults{"Random", {"fill"}};

 private:
  kit::Random& port_;
};

template <>
class Faulty<kit::Device> final : public kit::Device {
 public:
  explicit Faulty(const kit::Device& port) : port_(port) {}
  std::string systemVersion() const override {
    faults.pass("systemVersion");
    return port_.systemVersion();
  }
  std::optional<bool> isMultitaskingSupported() const override {
    faults.pass("isMultitaskingSupported");
    return port_.isMultitaskingSupported();
  }
  int statusBarOrientation() const override {
    faults.pass("statusBarOrientation");
    return port_.statusBarOrientation();
  }
  bool canOpenURL(const kit::Url& url) const override {
    faults.pass("canOpenURL");
    return port_.canOpenURL(url);
  }
  mutable Faults faults{"Device", {"systemVersion", "isMultitaskingSupported", "statusBarOrientation", "canOpenURL"}};

 private:
  const kit::Device& port_;
};

template <>
class Faulty<kit::Bundle> final : public kit::Bundle {
 public:
  explicit Faulty(const kit::Bundle& port) : port_(port) {}
  std::optional<std::string> objectForInfoDictionaryKey(std::string_view key) const override {
    faults.pass("objectForInfoDictionaryKey");
    return port_.objectForInfoDictionaryKey(key);
  }
  mutable Faults faults{"Bundle", {"objectForInfoDictionaryKey"}};

 private:
  const kit::Bundle& port_;
};

template <>
class Faulty<kit::Threads> final : public kit::Threads {
 public:
  explicit Faulty(const kit::Threads& port) : port_(port) {}
  std::string currentThreadDescription() const override {
    faults.pass("currentThreadDescription");
    return port_.currentThreadDescription();
  }
  mutable Faults faults{"Threads", {"currentThreadDescription"}};

 private:
  const kit::Threads& port_;
};

template <>
class Faulty<kit::ReportShelf> final : public kit::ReportShelf {
 public:
  explicit Faulty(kit::ReportShelf& port) : port_(port) {}
  std::optional<kit::Error> append(const kit::Value& report) override {
    faults.pass("append");
    return port_.append(report);
  }
  kit::Array reports() override {
    faults.pass("reports");
    return port_.reports();
  }
  void clear() override {
    faults.pass("clear");
    port_.clear();
  }
  Faults faults{"ReportShelf", {"append", "reports", "clear"}};

 private:
  kit::ReportShelf& port_;
};

template <>
class Faulty<kit::AdClient> final : public kit::AdClient {
 public:
  explicit Faulty(kit::AdClient& port) : port_(port) {}
  bool offersAttributionDetails() const override {
    faults.pass("offersAttributionDetails");
    return port_.offersAttributionDetails();
  }
  bool offersConversionDetails() const override {
    faults.pass("offersConversionDetails");
    return port_.offersConversionDetails();
  }
  bool offersInstallationAttribution() const override {
    faults.pass("offersInstallationAttribution");
    return port_.offersInstallationAttribution();
  }
  void requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) override {
    faults.pass("requestAttributionDetailsWithBlock");
    port_.requestAttributionDetailsWithBlock(std::move(handler));
  }
  void lookupAdConversionDetails(ConversionDetailsHandler handler) override {
    faults.pass("lookupAdConversionDetails");
    port_.lookupAdConversionDetails(std::move(handler));
  }
  void determineAppInstallationAttributionWithCompletionHandler(InstallationAttributionHandler handler) override {
    faults.pass("determineAppInstallationAttributionWithCompletionHandler");
    port_.determineAppInstallationAttributionWithCompletionHandler(std::move(handler));
  }
  mutable Faults faults{"AdClient",
                        {"offersAttributionDetails", "offersConversionDetails", "offersInstallationAttribution",
                         "requestAttributionDetailsWithBlock", "lookupAdConversionDetails",
                         "determineAppInstallationAttributionWithCompletionHandler"}};

 private:
  kit::AdClient& port_;
};

template <>
class Faulty<kit::LogSink> final : public kit::LogSink {
 public:
  explicit Faulty(kit::LogSink& port) : port_(port) {}
  void line(std::string_view text) override {
    faults.pass("line");
    port_.line(text);
  }
  bool tryLine(std::string_view text) override {
    faults.pass("tryLine");
    return port_.tryLine(text);
  }
  Faults faults{"LogSink", {"line", "tryLine"}};

 private:
  kit::LogSink& port_;
};

template <>
class Faulty<kit::MorvikADUtil> final : public kit::MorvikADUtil {
 public:
  explicit Faulty(const kit::MorvikADUtil& port) : port_(port) {}
  kit::Value checkNilToBlankString(const kit::Value& value) const override {
    faults.pass("checkNilToBlankString");
    return port_.checkNilToBlankString(value);
  }
  bool checkNilToNo(const kit::Value& value) const override {
    faults.pass("checkNilToNo");
    return port_.checkNilToNo(value);
  }
  int64_t checkIntegerNilToZero(const kit::Value& value) const override {
    faults.pass("checkIntegerNilToZero");
    return port_.checkIntegerNilToZero(value);
  }
  int64_t checkLongLongNilToZero(const kit::Value& value) const override {
    faults.pass("checkLongLongNilToZero");
    return port_.checkLongLongNilToZero(value);
  }
  double checkDoubleNilToZero(const kit::Value& value) const override {
    faults.pass("checkDoubleNilToZero");
    return port_.checkDoubleNilToZero(value);
  }
  int32_t checkNilToZero(const kit::Value& value) const override {
    faults.pass("checkNilToZero");
    return port_.checkNilToZero(value);
  }
  kit::Value getURLParmaters(const kit::Url& url) const override {
    faults.pass("getURLParmaters");
    return port_.getURLParmaters(url);
  }
  std::string getKoreaDateFormateDate(kit::Date date) const override {
    faults.pass("getKoreaDateFormateDate");
    return port_.getKoreaDateFormateDate(date);
  }
  std::string getUTCFormateDate(kit::Date date) const override {
    faults.pass("getUTCFormateDate");
    return port_.getUTCFormateDate(date);
  }
  std::optional<std::string> getUTCFormateDateISO(kit::Date date) const override {
    faults.pass("getUTCFormateDateISO");
    return port_.getUTCFormateDateISO(date);
  }
  double timeIntervalSinceServerDate(kit::Date device_date, double sinceBaseTime) const override {
    faults.pass("timeIntervalSinceServerDate");
    return port_.timeIntervalSinceServerDate(device_date, sinceBaseTime);
  }
  std::optional<std::string> IDFA() const override {
    faults.pass("IDFA");
    return port_.IDFA();
  }
  std::string getNetworkStatus() const override {
    faults.pass("getNetworkStatus");
    return port_.getNetworkStatus();
  }
  std::optional<std::string> platformString() const override {
    faults.pass("platformString");
    return port_.platformString();
  }
  kit::Value freeDiskSpace() const override {
    faults.pass("freeDiskSpace");
    return port_.freeDiskSpace();
  }
  uint32_t getFreeRam() const override {
    faults.pass("getFreeRam");
    return port_.getFreeRam();
  }
  std::string memoryFormatter(uint32_t kibibytes) const override {
    faults.pass("memoryFormatter");
    return port_.memoryFormatter(kibibytes);
  }
  mutable Faults faults{"MorvikADUtil",
                        {"checkNilToBlankString", "checkNilToNo", "checkIntegerNilToZero", "checkLongLongNilToZero",
                         "checkDoubleNilToZero", "checkNilToZero", "getURLParmaters", "getKoreaDateFormateDate",
                         "getUTCFormateDate", "getUTCFormateDateISO", "timeIntervalSinceServerDate", "IDFA",
                         "getNetworkStatus", "platformString", "freeDiskSpace", "getFreeRam", "memoryFormatter"}};

 private:
  const kit::MorvikADUtil& port_;
};

template <>
class Faulty<kit::MorvikADGetPUID> final : public kit::MorvikADGetPUID {
 public:
  explicit Faulty(const kit::MorvikADGetPUID& port) : port_(port) {}
  std::optional<std::string> getAESHashedPUID() const override {
    faults.pass("getAESHashedPUID");
    return port_.getAESHashedPUID();
  }
  mutable Faults faults{"MorvikADGetPUID", {"getAESHashedPUID"}};

 private:
  const kit::MorvikADGetPUID& port_;
};

template <>
class Faulty<kit::ModuleRegistry> final : public kit::ModuleRegistry {
 public:
  explicit Faulty(const kit::ModuleRegistry& port) : port_(port) {}
  const kit::Module* find(std::string_view class_name) const override {
    faults.pass("find");
    return port_.find(class_name);
  }
  mutable Faults faults{"ModuleRegistry", {"find"}};

 private:
  const kit::ModuleRegistry& port_;
};

template <>
class Faulty<kit::Facade> final : public kit::Facade {
 public:
  explicit Faulty(const kit::Facade& port) : port_(port) {}
  std::shared_ptr<const kit::FacadeDelegate> delegate() const override {
    faults.pass("delegate");
    return port_.delegate();
  }
  mutable Faults faults{"MorvikCore", {"delegate"}};

 private:
  const kit::Facade& port_;
};

template <>
class Faulty<kit::MorvikCoreUpdateLog> final : public kit::MorvikCoreUpdateLog {
 public:
  explicit Faulty(const kit::MorvikCoreUpdateLog& port) : port_(port) {}
  std::string frameworkName() const override {
    faults.pass("frameworkName");
    return port_.frameworkName();
  }
  std::string getSDKVersion() const override {
    faults.pass("getSDKVersion");
    return port_.getSDKVersion();
  }
  mutable Faults faults{"MorvikCoreUpdateLog", {"frameworkName", "getSDKVersion"}};

 private:
  const kit::MorvikCoreUpdateLog& port_;
};

template <>
class Faulty<kit::MorvkSDKConfig> final : public kit::MorvkSDKConfig {
 public:
  explicit Faulty(const kit::MorvkSDKConfig& port) : port_(port) {}
  std::string getTrackingSuperkey() const override {
    faults.pass("getTrackingSuperkey");
    return port_.getTrackingSuperkey();
  }
  mutable Faults faults{"MorvkSDKConfig", {"getTrackingSuperkey"}};

 private:
  const kit::MorvkSDKConfig& port_;
};

template <>
class Faulty<kit::MorvikCoreServicesLib> final : public kit::MorvikCoreServicesLib {
 public:
  explicit Faulty(kit::MorvikCoreServicesLib& port) : port_(port) {}
  std::string appKey() const override {
    faults.pass("appKey");
    return port_.appKey();
  }
  std::string hashKey() const override {
    faults.pass("hashKey");
    return port_.hashKey();
  }
  bool isGDPRForgetMe() const override {
    faults.pass("isGDPRForgetMe");
    return port_.isGDPRForgetMe();
  }
  void setIsGDPRForgetMe(bool forget_me) override {
    faults.pass("setIsGDPRForgetMe");
    port_.setIsGDPRForgetMe(forget_me);
  }
  void setIsGDPRForgetMeServerSynced(bool synced) override {
    faults.pass("setIsGDPRForgetMeServerSynced");
    port_.setIsGDPRForgetMeServerSynced(synced);
  }
  bool isSendingOff() const override {
    faults.pass("isSendingOff");
    return port_.isSendingOff();
  }
  double intervalSinceServerDate() const override {
    faults.pass("intervalSinceServerDate");
    return port_.intervalSinceServerDate();
  }
  void setIntervalSinceServerDate(double interval_seconds) override {
    faults.pass("setIntervalSinceServerDate");
    port_.setIntervalSinceServerDate(interval_seconds);
  }
  std::string activityGroupName(int group) const override {
    faults.pass("activityGroupName");
    return port_.activityGroupName(group);
  }
  void addActivityGroupName(const kit::Value& group_name, const kit::Value& activity_name, const kit::Value& param,
                            kit::Date created_at) override {
    faults.pass("addActivityGroupName");
    port_.addActivityGroupName(group_name, activity_name, param, created_at);
  }
  kit::MutableDictionary makeCommonParameter(const std::string& sdk_version) override {
    faults.pass("makeCommonParameter");
    return port_.makeCommonParameter(sdk_version);
  }
  kit::Value makeJsonParameter(const kit::Value& payload, const std::string& encryption_key) override {
    faults.pass("makeJsonParameter");
    return port_.makeJsonParameter(payload, encryption_key);
  }
  void setConversionResult(bool result) override {
    faults.pass("setConversionResult");
    port_.setConversionResult(result);
  }
  void setConversionResultCode(int64_t code) override {
    faults.pass("setConversionResultCode");
    port_.setConversionResultCode(code);
  }
  std::optional<std::string> appleAdvertisingIdentifier() const override {
    faults.pass("appleAdvertisingIdentifier");
    return port_.appleAdvertisingIdentifier();
  }
  void saveConversionInfoForCacheWithConversionArr(const kit::Value& conversion_keys) override {
    faults.pass("saveConversionInfoForCacheWithConversionArr");
    port_.saveConversionInfoForCacheWithConversionArr(conversion_keys);
  }
  void saveConversionInfoForCache(int64_t conversion_key) override {
    faults.pass("saveConversionInfoForCache");
    port_.saveConversionInfoForCache(conversion_key);
  }
  void saveConversionTimeInfoForCache(const std::string& conversion_key, double get_time_milliseconds) override {
    faults.pass("saveConversionTimeInfoForCache");
    port_.saveConversionTimeInfoForCache(conversion_key, get_time_milliseconds);
  }
  bool isPremiumPostback() const override {
    faults.pass("isPremiumPostback");
    return port_.isPremiumPostback();
  }
  void setIsPremiumPostback(bool is_premium_postback) override {
    faults.pass("setIsPremiumPostback");
    port_.setIsPremiumPostback(is_premium_postback);
  }
  std::shared_ptr<const kit::SaveFendoUserInfoDelegate> saveFendoUserInfoDelegate() const override {
    faults.pass("saveFendoUserInfoDelegate");
    return port_.saveFendoUserInfoDelegate();
  }
  std::shared_ptr<const kit::ResetRetainedConversionCacheDelegate> resetRetainedConversionCacheDeleate()
      const override {
    faults.pass("resetRetainedConversionCacheDeleate");
    return port_.resetRetainedConversionCacheDeleate();
  }
  void setResetRetainedConversionCacheDeleate(
      std::weak_ptr<const kit::ResetRetainedConversionCacheDelegate> delegate) override {
    faults.pass("setResetRetainedConversionCacheDeleate");
    port_.setResetRetainedConversionCacheDeleate(std::move(delegate));
  }
  std::shared_ptr<const kit::SaveRetainedConversionKeyDelegate> saveRetainedConversionKeyDelegate() const override {
    faults.pass("saveRetainedConversionKeyDelegate");
    return port_.saveRetainedConversionKeyDelegate();
  }
  void setSaveRetainedConversionKeyDelegate(
      std::weak_ptr<const kit::SaveRetainedConversionKeyDelegate> delegate) override {
    faults.pass("setSaveRetainedConversionKeyDelegate");
    port_.setSaveRetainedConversionKeyDelegate(std::move(delegate));
  }
  std::shared_ptr<const kit::GetScheduleDelegate> getScheduleDelegate() const override {
    faults.pass("getScheduleDelegate");
    return port_.getScheduleDelegate();
  }
  void setGetScheduleDelegate(std::weak_ptr<const kit::GetScheduleDelegate> delegate) override {
    faults.pass("setGetScheduleDelegate");
    port_.setGetScheduleDelegate(std::move(delegate));
  }
  void exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result) override {
    faults.pass("exchangeDidEnd");
    port_.exchangeDidEnd(request, result);
  }
  mutable Faults faults{"MorvikCoreServicesLib",
                        {"appKey",
                         "hashKey",
                         "isGDPRForgetMe",
                         "setIsGDPRForgetMe",
                         "setIsGDPRForgetMeServerSynced",
                         "isSendingOff",
                         "intervalSinceServerDate",
                         "setIntervalSinceServerDate",
                         "activityGroupName",
                         "addActivityGroupName",
                         "makeCommonParameter",
                         "makeJsonParameter",
                         "setConversionResult",
                         "setConversionResultCode",
                         "appleAdvertisingIdentifier",
                         "saveConversionInfoForCacheWithConversionArr",
                         "saveConversionInfoForCache",
                         "saveConversionTimeInfoForCache",
                         "isPremiumPostback",
                         "setIsPremiumPostback",
                         "saveFendoUserInfoDelegate",
                         "resetRetainedConversionCacheDeleate",
                         "setResetRetainedConversionCacheDeleate",
                         "saveRetainedConversionKeyDelegate",
                         "setSaveRetainedConversionKeyDelegate",
                         "getScheduleDelegate",
                         "setGetScheduleDelegate",
                         "exchangeDidEnd"}};

 private:
  kit::MorvikCoreServicesLib& port_;
};

}  // namespace morvik::testing
