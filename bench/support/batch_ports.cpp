#include "bench/support/batch_ports.h"

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/system_random.h"
#include "runtime/sending/batch_limit.h"
#include "services/converters.h"
#include "services/dates.h"
#include "services/envelope.h"
#include "services/json_writer.h"
#include "services/text_codes.h"
#include "services/uuid.h"
#include "testing/fake_calendar.h"
#include "testing/fake_crypto.h"
#include "testing/fake_device.h"
#include "testing/fake_facade.h"
#include "testing/fake_modules.h"
#include "testing/fake_services_lib.h"
#include "testing/fake_siblings.h"
#include "testing/fake_util.h"
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

/// Every other date is this many events ahead.
kit::Value storedEvents(const PlainBatch& batch, size_t ahead) {
  kit::MutableArray records;
  for (size_t i = 0; i < batch.events.size(); ++i) {
    const PlainEvent& event = batch.events[i];
    records.append(kit::Dictionary{{"activityGroupName", event.group},
                                   {"activityName", event.name},
                                   {"activityParam", event.param},
                                   {"activityCreatedAt", dateOf(i % 2 == 0 ? i + ahead : i)},
                                   {"activityEventID", event.id}});
  }
  return kit::Value(std::move(records));
}

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
  explicit Parts(const kit::StopRequest* of_kit) : compressor(of_kit), stop(of_kit) {}
  host::OpensslCipher cipher;
  host::ZlibCompressor compressor;
  host::SystemRandom random;
  const kit::StopRequest* const stop;
};

Sealer::Sealer(const kit::StopRequest* stop) : parts_(std::make_unique<Parts>(stop)) {}
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
  auto made =
      services::makeEnvelope({parts_->cipher, parts_->compressor, parts_->random, parts_->stop}, "app", payload, key);
  auto* envelope = std::get_if<kit::Value>(&made);
  return envelope != nullptr ? std::move(*envelope) : kit::Value();
}

namespace {

class Services : public testing::FakeServicesLib {
 public:
  Services(BatchPorts::Step step, const PlainBatch& batch, services::MorvikGVUserDefaults store,
           services::SealingTools sealing)
      : FakeServicesLib(store, sealing), step_(step), common_(batch.common), sealer_(sealing.stop) {}

  kit::MutableDictionary makeCommonParameter(const std::string&) override {
    kit::MutableDictionary common;
    for (const auto& [key, value] : common_)
      common.set(key, value);
    return common;
  }
  kit::Value makeJsonParameter(const kit::Value& payload, const std::string& key) override {
    if (step_ == BatchPorts::Step::kEnvelope) {
      kit::Value envelope = sealer_.envelope(payload, key);
      output_bytes = envelope["j"].string().size();
      return envelope;
    }
    output_bytes = std::get<std::string>(services::writeJson(payload)).size();
    return {};
  }

  size_t output_bytes = 0;

 private:
  BatchPorts::Step step_;
  std::vector<std::pair<std::string, std::string>> common_;
  Sealer sealer_;
};

}  // namespace

struct BatchPorts::Parts {
  Parts(size_t count, Step step, std::optional<Order> order)
      : plain(count),
        services(step, plain, services::MorvikGVUserDefaults(store, list_lock),
                 {cipher, compressor, random, &shared_state.stop_request}) {
    ports.batch_limit = order ? runtime::kBatchLimit : kit::BatchLimit();
    store.set("fendoActivityInfos", storedEvents(plain, order == Order::kShuffled ? 1000 : 0));
    store.set("fendoUserInfo_fendoUserNo", int64_t{7});
    store.set("fendoUserInfo_referralKey", int64_t{8});
  }

  PlainBatch plain;
  testing::VirtualLoop loop;
  testing::MemoryStore store;
  testing::ScriptedTransport transport{loop};
  testing::RecordingLog log;
  testing::FakeCipher cipher;
  testing::FakeCompressor compressor;
  testing::SeededRandom random{1};
  host::SimdjsonCodec json;
  testing::FixedOffsetCalendar calendar;
  kit::ListLock list_lock;
  testing::FakeDevice device;
  testing::FakeBundle bundle;
  testing::FakeThreads threads;
  testing::MemoryShelf report_shelf;
  testing::FakeModules modules;
  kit::Endpoints endpoints;
  kit::SharedState shared_state;
  Services services;
  testing::FakeUtil util;
  testing::FakePuid puid;
  testing::FakeFacade facade;
  testing::FakeUpdateLog update_log;
  testing::FakeConfig config{kTrackingKey};
  kit::Ports ports{.clock = loop.clock(),
                   .calendar = calendar,
                   .main_queue = loop.mainQueue(),
                   .background_queue = loop.backgroundQueue(),
                   .background_tasks = loop.backgroundTasks(),
                   .notifications = loop.notifications(),
                   .key_value_store = store,
                   .list_lock = list_lock,
                   .transport = transport,
                   .json = json,
                   .cipher = cipher,
                   .compressor = compressor,
                   .random = random,
                   .device = device,
                   .bundle = bundle,
                   .threads = threads,
                   .report_shelf = report_shelf,
                   .ad_client = nullptr,
                   .modules = modules,
                   .log_sink = log,
                   .endpoints = endpoints,
                   .shared_state = shared_state,
                   .services_lib = services,
                   .util = util,
                   .puid = puid,
                   .facade = facade,
                   .update_log = update_log,
                   .make_config = [this] { return testing::freshConfig(config); }};
};

BatchPorts::BatchPorts(size_t count, Step step) : parts_(std::make_unique<Parts>(count, step, std::nullopt)) {}
BatchPorts::BatchPorts(size_t count, Step step, Order order) : parts_(std::make_unique<Parts>(count, step, order)) {}
BatchPorts::~BatchPorts() = default;
const kit::Ports& BatchPorts::ports() const {
  return parts_->ports;
}
size_t BatchPorts::outputBytes() const {
  return parts_->services.output_bytes;
}

}  // namespace morvik::bench
