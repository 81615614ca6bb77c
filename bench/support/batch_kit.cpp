#include "bench/support/batch_kit.h"

#include "host/crypto/openssl_cipher.h"
#include "host/crypto/system_random.h"
#include "host/crypto/zlib_compressor.h"
#include "host/json/simdjson_codec.h"
#include "services/converters.h"
#include "services/dates.h"
#include "services/envelope.h"
#include "services/json_writer.h"
#include "services/text_codes.h"
#include "services/uuid.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/virtual_loop.h"

namespace morvik::bench {
namespace {

constexpr const char* kTrackingKey = "a tracking key of usual length";
const kit::Date kFirst = kit::Date::fromSeconds(1'700'000'000);

kit::Date dateOf(size_t index) {
  return {kFirst.microseconds + static_cast<int64_t>(index) * 1'250'000};
}

/// Numbers that are the same in each run, so that ids are too.
class CountingRandom : public kit::Random {
 public:
  void fill(std::span<uint8_t> bytes) override {
    for (uint8_t& byte : bytes)
      byte = static_cast<uint8_t>((state_ = state_ * 6364136223846793005U + 1) >> 56);
  }

 private:
  uint64_t state_ = 42;
};

kit::Value storedEvents(const PlainBatch& batch) {
  kit::MutableArray records;
  for (size_t i = 0; i < batch.events.size(); ++i) {
    const PlainEvent& event = batch.events[i];
    records.append(kit::Dictionary{{"activityGroupName", event.group},
                                   {"activityName", event.name},
                                   {"activityParam", event.param},
                                   {"activityCreatedAt", dateOf(i)},
                                   {"activityEventID", event.id}});
  }
  return kit::Value(std::move(records));
}

class Util : public kit::MorvikADUtil {
 public:
  kit::Value checkNilToBlankString(const kit::Value& value) const override {
    return services::checkNilToBlankString(value);
  }
  bool checkNilToNo(const kit::Value& value) const override { return services::checkNilToNo(value); }
  int64_t checkIntegerNilToZero(const kit::Value& value) const override {
    return services::checkIntegerNilToZero(value);
  }
  int64_t checkLongLongNilToZero(const kit::Value& value) const override {
    return services::checkLongLongNilToZero(value);
  }
  double checkDoubleNilToZero(const kit::Value& value) const override { return services::checkDoubleNilToZero(value); }
  int32_t checkNilToZero(const kit::Value& value) const override { return services::checkNilToZero(value); }
  std::string getKoreaDateFormateDate(kit::Date date) const override { return services::koreaDateText(date); }
  std::string getUTCFormateDate(kit::Date date) const override { return services::utcDateText(date); }
  double timeIntervalSinceServerDate(kit::Date device_date, double base_time_seconds) const override {
    return base_time_seconds - device_date.secondsSince1970();
  }
  std::optional<std::string> IDFA() const override { return std::nullopt; }
};

}  // namespace

PlainBatch::PlainBatch(size_t count) {
  for (const char* key : {"appkey", "sdk_version", "os_type", "os_version", "device_model", "language", "country",
                          "timezone", "app_version_name", "app_version_code", "package_name", "idfa", "puid",
                          "install_id", "network", "carrier", "portrait"}) {
    common.emplace_back(key, std::string("value of ") + key);
  }
  CountingRandom random;
  constexpr const char* groups[] = {"shop", "session", "level", "tutorial"};
  constexpr const char* names[] = {"purchase", "start", "passed with three stars", "skipped"};
  events.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    events.push_back({groups[i % 4], names[i % 4], "item-" + std::to_string(i % 977),
                      services::koreaDateText(dateOf(i)), services::makeTimeOrderedUuid(dateOf(i), random)});
  }
}

void PlainBatch::appendJson(std::string& out) const {
  out += '{';
  for (const auto& [key, value] : common)
    out += '"' + key + "\":\"" + value + "\",";
  out += "\"activity_info\":[";
  const PlainEvent* previous = nullptr;
  for (const PlainEvent& event : events) {
    if (previous != nullptr)
      out += ',';
    out += "{\"group\":\"";
    out += event.group;
    out += "\",\"activity\":\"";
    out += event.name;
    out += "\",\"param\":\"";
    out += event.param;
    out += "\",\"prev_group\":\"";
    if (previous != nullptr)
      out += previous->group;
    out += "\",\"prev_activity\":\"";
    if (previous != nullptr)
      out += previous->name;
    out += "\",\"created_at\":\"";
    out += event.created_at;
    out += "\",\"event_id\":\"";
    out += event.id;
    out += "\"}";
    previous = &event;
  }
  out += "],\"impression_info\":[]}";
}

struct Sealer::Parts {
  host::OpensslCipher cipher;
  host::ZlibCompressor compressor;
  host::SystemRandom random;
};

Sealer::Sealer() : parts_(std::make_unique<Parts>()) {}
Sealer::~Sealer() = default;

std::string Sealer::sealByHand(const std::string& text) const {
  std::string deflated;
  parts_->compressor.deflate(text, deflated);
  std::string nonce(kit::kNonceBytes, '\0');
  parts_->random.fill({reinterpret_cast<uint8_t*>(nonce.data()), nonce.size()});
  std::string sealed("\1\1", 2);
  sealed += nonce;
  parts_->cipher.encrypt(kTrackingKey, nonce, std::string_view("\1\1", 2), deflated, sealed);
  std::string out;
  services::appendBase64Url(sealed, out);
  return out;
}

kit::Value Sealer::envelope(const kit::Value& payload, const std::string& key) const {
  auto made = services::makeEnvelope({parts_->cipher, parts_->compressor, parts_->random}, "app", payload, key);
  return std::move(std::get<kit::Value>(made));
}

namespace {

class Services : public kit::MorvikCoreServicesLib {
 public:
  Services(BatchKit::Step step, const PlainBatch& batch) : step_(step), common_(batch.common) {}

  kit::MutableDictionary makeCommonParameter(const std::string&) override {
    kit::MutableDictionary common;
    for (const auto& [key, value] : common_)
      common.set(key, value);
    return common;
  }
  kit::Value makeJsonParameter(const kit::Value& payload, const std::string& key) override {
    if (step_ == BatchKit::Step::kEnvelope) {
      kit::Value envelope = sealer_.envelope(payload, key);
      output_bytes = envelope["j"].string().size();
      return envelope;
    }
    output_bytes = std::get<std::string>(services::writeJson(payload)).size();
    return {};
  }

  std::string appKey() const override { return "app"; }
  std::string hashKey() const override { return "hash"; }
  bool isGDPRForgetMe() const override { return false; }
  double intervalSinceServerDate() const override { return 0; }
  void setIntervalSinceServerDate(double) override {}
  std::string activityGroupName(int) const override { return "session"; }
  void addActivityGroupName(const kit::Value&, const kit::Value&, const kit::Value&, kit::Date) override {}
  void setConversionResult(bool) override {}
  void setConversionResultCode(int64_t) override {}
  std::optional<std::string> appleAdvertisingIdentifier() const override { return std::nullopt; }
  void saveConversionInfoForCacheWithConversionArr(const kit::Value&) override {}
  std::shared_ptr<const kit::SaveFendoUserInfoDelegate> saveFendoUserInfoDelegate() const override { return nullptr; }
  void exchangeDidEnd(const kit::Request&, const kit::ExchangeResult&) override {}

  size_t output_bytes = 0;

 private:
  BatchKit::Step step_;
  std::vector<std::pair<std::string, std::string>> common_;
  Sealer sealer_;
};

class Config : public kit::MorvkSDKConfig {
 public:
  std::string getTrackingSuperkey() const override { return kTrackingKey; }
};

class UpdateLog : public kit::MorvikCoreUpdateLog {
 public:
  std::string frameworkName() const override { return "MorvikCore"; }
  std::string getSDKVersion() const override { return "0"; }
};

class Facade : public kit::MorvikCore {
 public:
  std::shared_ptr<const kit::MorvikCoreDelegate> delegate() const override { return nullptr; }
};

class Device : public kit::Device {
 public:
  std::string systemVersion() const override { return "15.0"; }
  std::optional<bool> isMultitaskingSupported() const override { return true; }
  int statusBarOrientation() const override { return kit::kOrientationPortrait; }
};

class UtcCalendar : public kit::Calendar {
 public:
  kit::CalendarComponents components(kit::Date date) const override { return services::civilAt(date, 0); }
  std::optional<kit::Date> date(const kit::CalendarComponents& civil) const override {
    return services::dateFromCivil(civil, 0);
  }
};

}  // namespace

struct BatchKit::Parts {
  Parts(size_t count, Step step) : plain(count), services(step, plain) {
    store.set("fendoActivityInfos", storedEvents(plain));
    store.set("fendoUserInfo_fendoUserNo", int64_t{7});
    store.set("fendoUserInfo_referralKey", int64_t{8});
  }

  PlainBatch plain;
  Services services;
  testing::VirtualLoop loop;
  testing::MemoryStore store;
  testing::ScriptedTransport transport{loop};
  testing::RecordingLog log;
  host::SimdjsonCodec json;
  UtcCalendar calendar;
  kit::HouseLock house_lock;
  Device device;
  kit::Endpoints endpoints;
  kit::SharedState shared_state;
  Util util;
  Facade facade;
  UpdateLog update_log;
  kit::Kit kit{loop.clock(),
               calendar,
               loop.mainQueue(),
               loop.backgroundQueue(),
               loop.backgroundTasks(),
               loop.notifications(),
               store,
               house_lock,
               transport,
               json,
               device,
               nullptr,
               log,
               endpoints,
               shared_state,
               services,
               util,
               facade,
               update_log,
               [] { return std::make_unique<Config>(); }};
};

BatchKit::BatchKit(size_t count, Step step) : parts_(std::make_unique<Parts>(count, step)) {}
BatchKit::~BatchKit() = default;
const kit::Kit& BatchKit::kit() const {
  return parts_->kit;
}
size_t BatchKit::outputBytes() const {
  return parts_->services.output_bytes;
}

}  // namespace morvik::bench
