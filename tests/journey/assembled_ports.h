// The core and the kit's own siblings on the queues, store and network that a journey provides.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "host/json/simdjson_codec.h"
#include "host/linux/system_facts.h"
#include "host/linux/system_random.h"
#include "host/linux/system_threads.h"
#include "runtime/siblings/MorvikADGetPUID.h"
#include "runtime/siblings/MorvikADUtil.h"
#include "runtime/siblings/MorvikCoreServicesLib.h"
#include "runtime/siblings/app_ad_client.h"
#include "runtime/siblings/app_bundle.h"
#include "runtime/siblings/app_modules.h"
#include "runtime/siblings/common_parameters.h"
#include "runtime/siblings/facade.h"
#include "runtime/siblings/sdk_config.h"
#include "runtime/siblings/size_trigger.h"
#include "services/endpoints.h"
#include "testing/fake_siblings.h"

namespace morvik::journey {

inline constexpr const char* kTrackingKey = "journey tracking key";
inline constexpr const char* kHashKey = "journey hash key";

/// What a journey chooses. References outlive the ports.
struct Surroundings {
  kit::Clock& clock;
  kit::Calendar& calendar;
  kit::MainQueue& main_queue;
  kit::BackgroundQueue& background_queue;
  kit::BackgroundTasks& background_tasks;
  kit::NotificationCenter& notifications;
  kit::KeyValueStore& store;
  kit::ListLock& list_lock;
  kit::Transport& transport;
  kit::LogSink& log;
  kit::LogLevel log_level = kit::lcl_vTrace;
  /// The base URL of all endpoints.
  std::string service_url = "https://service.example/";
  /// Nothing if the user limits tracking.
  std::optional<std::string> idfa = "00000000-0000-4000-8000-0000000000AD";
  /// Nothing: the device has no hashed identifier.
  std::optional<std::string> puid = std::nullopt;
  AdClient ad_client = AdClient::withoutDetails();
  DeviceDescription device = {};
  /// By class name.
  std::map<std::string, Module> modules = {};
  /// Told by the core and the services object; null: nobody keeps a book. The store is what it is checked against.
  runtime::LedgerBook* ledger = nullptr;
};

inline kit::Endpoints allAt(const std::string& url) {
  return {.kFendoTrackingBaseLiveUrl = url,
          .kFendoConversionBaseLiveUrl = url,
          .kFendoCampaignBaseLiveUrl = url,
          .kCommerceBaseLiveUrl = url,
          .kCrashReportBaseLiveUrl = url,
          .kGdprReqUrl = url,
          .KAppConfigBaseLiveUrl = url};
}

/// Everything else is the kit's own. launch() makes the core.
class AssembledPorts {
 public:
  explicit AssembledPorts(const Surroundings& around)
      : endpoints(allAt(around.service_url)),
        description_(around.device),
        util_({.idfa = around.idfa, .has_loopback_endpoint = true, .model = around.device.model}, machine_),
        puid_(around.puid ? runtime::MorvikADGetPUID(*around.puid) : runtime::MorvikADGetPUID()),
        properties(around.store, around.list_lock),
        logger_(shared_state.log_levels, around.log),
        size_trigger_(around.main_queue),
        services({.app_key = "journey-app",
                  .hash_key = kHashKey,
                  .tracking_url = around.service_url + services::kTrackingPath,
                  .store = properties,
                  .logger = logger_,
                  .clock = around.clock,
                  .sealing = {cipher, compressor, random},
                  .common = common_,
                  .util = util_,
                  .size_trigger = size_trigger_,
                  .ledger = around.ledger}),
        ad_client_(around.ad_client, json, around.main_queue),
        modules_(around.modules),
        ports{.clock = around.clock,
              .calendar = around.calendar,
              .main_queue = around.main_queue,
              .background_queue = around.background_queue,
              .background_tasks = around.background_tasks,
              .notifications = around.notifications,
              .key_value_store = around.store,
              .list_lock = around.list_lock,
              .transport = around.transport,
              .json = json,
              .cipher = cipher,
              .compressor = compressor,
              .random = random,
              .device = device_,
              .bundle = bundle_,
              .threads = threads_,
              .report_shelf = report_shelf,
              .ad_client = &ad_client_,
              .modules = modules_,
              .log_sink = around.log,
              .endpoints = endpoints,
              .shared_state = shared_state,
              .services_lib = services,
              .util = util_,
              .puid = puid_,
              .facade = facade,
              .update_log = update_log_,
              .make_config = [] { return std::make_unique<runtime::MorvkSDKConfig>(kTrackingKey); },
              .ledger = around.ledger != nullptr ? *around.ledger : kit::noLedger()} {
    shared_state.log_levels._lcl_component_level[kit::lcl_cKesmo] = around.log_level;
  }
  AssembledPorts(const AssembledPorts&) = delete;
  AssembledPorts& operator=(const AssembledPorts&) = delete;

  /// Makes the core; the size trigger calls it from then on. Before the queues run, or on the main queue.
  void launch() {
    core = MorvikCoreLib::make(ports);
    size_trigger_.setCall([this] { core->chkAndSendDataWhenActivityCntMoreThenTen(); });
  }
  services::SealingTools sealing() { return {cipher, compressor, random}; }

  kit::SharedState shared_state;
  const kit::Endpoints endpoints;
  host::OpensslCipher cipher;
  host::ZlibCompressor compressor;
  host::SystemRandom random;
  host::SimdjsonCodec json;
  testing::MemoryShelf report_shelf;

 private:
  const DeviceDescription description_;
  const host::SystemFacts machine_;
  const runtime::MorvikADUtil util_;
  const runtime::MorvikADGetPUID puid_;
  const runtime::CommonParameters common_{{.device = description_,
                                           .app_key = "journey-app",
                                           .install_id = "journey install",
                                           .zone_name = "UTC",
                                           .util = util_,
                                           .puid = puid_}};

 public:
  const services::MorvikGVUserDefaults properties;

 private:
  const services::Logger logger_;
  runtime::SizeTrigger size_trigger_;

 public:
  runtime::MorvikCoreServicesLib services;
  runtime::Facade facade;

 private:
  const runtime::MorvikCoreUpdateLog update_log_;
  const runtime::Device device_{description_};
  const runtime::AppBundle bundle_{description_};
  const host::SystemThreads threads_;
  runtime::AppAdClient ad_client_;
  const runtime::AppModules modules_;

 public:
  const kit::Ports ports;
  std::shared_ptr<MorvikCoreLib> core;
};

}  // namespace morvik::journey
