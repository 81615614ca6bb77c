#include "testing/world.h"

#include <stdexcept>
#include <utility>

#include "services/endpoints.h"

namespace morvik::testing {
namespace {

constexpr int64_t kUserNumber = 1001;
constexpr int64_t kReferralKey = 7;

std::shared_ptr<const kit::Calendar> orUtc(std::shared_ptr<const kit::Calendar> calendar) {
  return calendar ? std::move(calendar) : std::make_shared<FixedOffsetCalendar>();
}

WorldOptions completed(WorldOptions options) {
  options.calendar = orUtc(std::move(options.calendar));
  return options;
}

}  // namespace

WorldOptions WorldOptions::attributed() {
  WorldOptions options;
  options.store["fendoUserInfo_fendoUserNo"] = kUserNumber;
  options.store["fendoUserInfo_referralKey"] = kReferralKey;
  return options;
}

/// What dies with a process.
struct TestWorld::Process {
  Process(TestWorld& world, FakeServicesLibOptions services_options)
      : services(services::MorvikGVUserDefaults(world.store, world.list_lock_),
                 services::SealingTools{world.cipher, world.compressor, world.random}, std::move(services_options)),
        faulty_services(services),
        ports{.clock = world.faulty.clock,
              .calendar = world.faulty.calendar,
              .main_queue = world.faulty.main_queue,
              .background_queue = world.faulty.background_queue,
              .background_tasks = world.faulty.background_tasks,
              .notifications = world.faulty.notifications,
              .key_value_store = world.faulty.key_value_store,
              .list_lock = world.list_lock_,
              .transport = world.faulty.transport,
              .json = world.faulty.json,
              .cipher = world.faulty.cipher,
              .compressor = world.faulty.compressor,
              .random = world.faulty.random,
              .device = world.faulty.device,
              .bundle = world.faulty.bundle,
              .threads = world.faulty.threads,
              .report_shelf = world.faulty.report_shelf,
              .ad_client = world.options_.has_ad_client ? &world.faulty.ad_client : nullptr,
              .modules = world.faulty.modules,
              .log_sink = world.faulty.log_sink,
              .endpoints = world.options_.endpoints,
              .shared_state = shared_state,
              .services_lib = faulty_services,
              .util = world.faulty.util,
              .puid = world.faulty.puid,
              .facade = world.faulty.facade,
              .update_log = world.faulty.update_log,
              .make_config = [&world] { return freshConfig(world.faulty.config); },
              .batch_limit = world.options_.batch_limit,
              .ledger = world.ledger} {
    for (auto& level : shared_state.log_levels._lcl_component_level)
      level = world.options_.log_level;
    services.setSaveFendoUserInfoDelegate(world.app.of_services);
  }

  kit::SharedState shared_state;
  FakeServicesLib services;
  Faulty<kit::MorvikCoreServicesLib> faulty_services;
  kit::Ports ports;
  std::shared_ptr<MorvikCoreLib> core;
};

TestWorld::TestWorld(WorldOptions options)
    : options_(completed(std::move(options))),
      loop(options_.loop),
      store(options_.store),
      random(options_.random_seed),
      device(options_.device),
      ad_client(loop.mainQueue()),
      config(options_.tracking_key),
      faulty{.clock = Faulty<kit::Clock>(loop.clock()),
             .calendar = Faulty<kit::Calendar>(*options_.calendar),
             .main_queue = Faulty<kit::MainQueue>(loop.mainQueue()),
             .background_queue = Faulty<kit::BackgroundQueue>(loop.backgroundQueue()),
             .background_tasks = Faulty<kit::BackgroundTasks>(loop.backgroundTasks()),
             .notifications = Faulty<kit::NotificationCenter>(loop.notifications()),
             .key_value_store = Faulty<kit::KeyValueStore>(store),
             .transport = Faulty<kit::Transport>(transport),
             .json = Faulty<kit::JsonCodec>(json),
             .cipher = Faulty<kit::Cipher>(cipher),
             .compressor = Faulty<kit::Compressor>(compressor),
             .random = Faulty<kit::Random>(random),
             .device = Faulty<kit::Device>(device),
             .bundle = Faulty<kit::Bundle>(bundle),
             .threads = Faulty<kit::Threads>(threads),
             .report_shelf = Faulty<kit::ReportShelf>(report_shelf),
             .ad_client = Faulty<kit::AdClient>(ad_client),
             .modules = Faulty<kit::ModuleRegistry>(modules),
             .log_sink = Faulty<kit::LogSink>(log),
             .util = Faulty<kit::MorvikADUtil>(util),
             .puid = Faulty<kit::MorvikADGetPUID>(puid),
             .facade = Faulty<kit::Facade>(facade),
             .update_log = Faulty<kit::MorvikCoreUpdateLog>(update_log),
             .config = Faulty<kit::MorvkSDKConfig>(config)},
      next_event_number_(options_.services.first_event_number) {
  loop.addCommit([this] { store.commitTurn(); });
  facade.setDelegate(app.of_facade);
  makeProcess();
  if (options_.launched)
    launch();
}

TestWorld::~TestWorld() {
  if (isAlive())
    kill();
}

// ------------------------------------------------------------------------------------------------------- the process

TestWorld::Process& TestWorld::process() const {
  if (!process_)
    throw std::logic_error("test world: the process is dead; call restart() first");
  return *process_;
}

MorvikCoreLib& TestWorld::core() {
  if (!process().core)
    throw std::logic_error("test world: the app has not started; call launch() first");
  return *process().core;
}

FakeServicesLib& TestWorld::services() {
  return process().services;
}
Faulty<kit::MorvikCoreServicesLib>& TestWorld::faultyServices() {
  return process().faulty_services;
}
const kit::Ports& TestWorld::ports() {
  return process().ports;
}
kit::SharedState& TestWorld::sharedState() {
  return process().shared_state;
}
services::MorvikGVUserDefaults TestWorld::userDefaults() {
  return {store, list_lock_};
}

void TestWorld::makeProcess() {
  FakeServicesLibOptions services_options = options_.services;
  services_options.first_event_number = next_event_number_;
  process_ = std::make_unique<Process>(*this, std::move(services_options));
}

void TestWorld::launch() {
  if (process().core)
    throw std::logic_error("test world: the app has started already");
  loop.perform([this] { process().core = MorvikCoreLib::make(process().ports); });
}

void TestWorld::kill() {
  next_event_number_ = process().services.nextEventNumber();
  loop.kill();
  transport.kill();
  ad_client.kill();
  process_.reset();
  // What the objects' destructors posted dies with them.
  loop.kill();
  transport.kill();
  store.kill();
}

void TestWorld::restart() {
  if (isAlive())
    kill();
  makeProcess();
  launch();
}

// --------------------------------------------------------------------------------------------------------- the user

void TestWorld::becomeActive() {
  loop.notifications().post(kit::Notification::kApplicationDidBecomeActive);
  loop.runUntilIdle();
}

void TestWorld::enterBackground() {
  loop.notifications().post(kit::Notification::kApplicationDidEnterBackground);
  loop.runUntilIdle();
}

void TestWorld::recordEvent(const kit::Value& group, const kit::Value& name, const kit::Value& param) {
  loop.perform([this, group, name, param] { services().addActivityGroupName(group, name, param, loop.now()); });
}

// ------------------------------------------------------------------------------------------------------- the service

Answer TestWorld::conversionAnswer(const kit::Value& data) {
  kit::MutableDictionary answer;
  answer.set("Result", true);
  answer.set("ResultCode", 1);
  answer.set("Data", data);
  return Answer::json(std::move(answer));
}

void TestWorld::serviceAccepts() {
  ad_client.attribution_details.answerEveryCall(kit::Value(), std::nullopt);
  const kit::Dictionary data{{"user_no", kUserNumber}, {"referralKey", kReferralKey}};
  transport.on(services::kConversionPath).always(conversionAnswer(data));
  transport.on(services::kTrackingPath).always(Answer::json(kit::Dictionary{{"Result", true}}));
}

services::SealingTools TestWorld::sealingTools() const {
  return {cipher, compressor, opening_random_};
}

kit::Value TestWorld::payload(const kit::Request& request) const {
  if (request.url.find(services::kSetDemographicPath) != std::string::npos)
    return openDemographics(sealingTools(), request, config.getTrackingSuperkey());
  const bool is_tracking = request.url.find(services::kTrackingPath) != std::string::npos;
  const std::string& hash_key = options_.services.hash_key;
  const std::string key = is_tracking ? config.getTrackingSuperkey() : hash_key + hash_key;
  return openEnvelope(sealingTools(), request, key).payload;
}

std::vector<kit::Value> TestWorld::payloads(std::string_view url_part) const {
  std::vector<kit::Value> payloads;
  for (const kit::Request& request : requests(url_part))
    payloads.push_back(payload(request));
  return payloads;
}

}  // namespace morvik::testing
