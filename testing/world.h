// A whole device in one object: the core on fakes, with defaults for everything.
//
//   testing::TestWorld world;                 // a fresh install, nothing answers yet
//   world.serviceAccepts();                   // the service attributes the install and takes every batch
//   world.becomeActive();
//   world.recordEvent("shop", "purchase");
//   world.enterBackground();
//   world.loop.advance(1);
//   world.payloads("v1/tracking");            // what the service got, opened
//   world.kill();                             // the process dies at once
//   world.restart();                          // the next one finds what was committed
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "kit/ports.h"
#include "testing/fake_ad_client.h"
#include "testing/fake_calendar.h"
#include "testing/fake_crypto.h"
#include "testing/fake_device.h"
#include "testing/fake_facade.h"
#include "testing/fake_modules.h"
#include "testing/fake_services_lib.h"
#include "testing/fake_siblings.h"
#include "testing/fake_util.h"
#include "testing/faulty.h"
#include "testing/json_reader.h"
#include "testing/memory_store.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/sealed_payload.h"
#include "testing/virtual_loop.h"

namespace morvik::testing {

struct WorldOptions {
  VirtualLoopOptions loop;
  /// The device's zone; null: UTC.
  std::shared_ptr<const kit::Calendar> calendar;
  DeviceFacts device;
  /// Without one, no way to ask about advertisements is offered. With one, none is offered either until the test (or
  /// serviceAccepts()) says so.
  bool has_ad_client = true;
  FakeServicesLibOptions services;
  std::string tracking_key = "test-tracking";
  kit::Endpoints endpoints;
  kit::LogLevel log_level = kit::lcl_vTrace;
  kit::BatchLimit batch_limit;
  uint64_t random_seed = 1;
  /// What an earlier process left in the store.
  MemoryStore::Contents store;
  /// Whether the app has started, that is, the core object is made at once. If not, launch() makes it.
  bool launched = true;

  /// An install that has its referral record: user number 1001, referral key 7.
  static WorldOptions attributed();
};

/// Of one thread. Everything public outlives the processes; what a process owns is reached by the functions below.
class TestWorld {
 public:
  explicit TestWorld(WorldOptions options = {});
  ~TestWorld();
  TestWorld(const TestWorld&) = delete;
  TestWorld& operator=(const TestWorld&) = delete;

 private:
  const WorldOptions options_;

 public:
  VirtualLoop loop;
  MemoryStore store;
  ScriptedTransport transport{loop};
  RecordingLog log;
  PlainJsonCodec json;
  FakeCipher cipher;
  FakeCompressor compressor;
  SeededRandom random;
  FakeDevice device;
  FakeAdClient ad_client;
  FakeUtil util;
  FakePuid puid;
  FakeBundle bundle;
  FakeThreads threads;
  /// Outlives the processes, as the store does.
  MemoryShelf report_shelf;
  /// None at first.
  FakeModules modules;
  FakeFacade facade;
  FakeUpdateLog update_log;
  FakeConfig config;
  /// The app: both delegates are set and note every call.
  RecordingDelegate app;

  /// What the core reaches the above through. Faults planned here stay until they are cleared, across processes.
  struct FaultyPorts {
    Faulty<kit::Clock> clock;
    Faulty<kit::Calendar> calendar;
    Faulty<kit::MainQueue> main_queue;
    Faulty<kit::BackgroundQueue> background_queue;
    Faulty<kit::BackgroundTasks> background_tasks;
    Faulty<kit::NotificationCenter> notifications;
    Faulty<kit::KeyValueStore> key_value_store;
    Faulty<kit::Transport> transport;
    Faulty<kit::JsonCodec> json;
    Faulty<kit::Cipher> cipher;
    Faulty<kit::Compressor> compressor;
    Faulty<kit::Random> random;
    Faulty<kit::Device> device;
    Faulty<kit::Bundle> bundle;
    Faulty<kit::Threads> threads;
    Faulty<kit::ReportShelf> report_shelf;
    Faulty<kit::AdClient> ad_client;
    Faulty<kit::ModuleRegistry> modules;
    Faulty<kit::LogSink> log_sink;
    Faulty<kit::MorvikADUtil> util;
    Faulty<kit::MorvikADGetPUID> puid;
    Faulty<kit::Facade> facade;
    Faulty<kit::MorvikCoreUpdateLog> update_log;
    Faulty<kit::MorvkSDKConfig> config;
  };
  FaultyPorts faulty;

  // The process. Each of these needs one (std::logic_error between kill() and restart()).
  /// The core object; needs launch().
  MorvikCoreLib& core();
  /// The services object. The core reaches it through faultyServices(), whose faults die with the process.
  FakeServicesLib& services();
  Faulty<kit::MorvikCoreServicesLib>& faultyServices();
  const kit::Ports& ports();
  kit::SharedState& sharedState();
  /// The typed properties of the store.
  services::MorvikGVUserDefaults userDefaults();
  bool isAlive() const { return process_ != nullptr; }

  /// Makes the core object, in a turn of the main queue. For worlds that were not launched.
  void launch();
  /// The process dies at once: what was not committed is lost, and nothing of it runs any more.
  void kill();
  /// The next process, on what was committed, with its core object. Time, service and faults stay. Kills first, if
  /// need be.
  void restart();

  // The device's user.
  /// The app becomes active, and what follows at once happens. No time passes.
  void becomeActive();
  /// The app enters the background, and what follows at once happens; the batch leaves half a second later.
  void enterBackground();
  /// The app records an activity now.
  void recordEvent(const kit::Value& group, const kit::Value& name, const kit::Value& param = {});

  // The service.
  /// The ad client answers without details, the service attributes the install (user number 1001, referral key 7) and
  /// accepts every batch.
  void serviceAccepts();
  /// A conversion answer with "Result" true and this "Data"; an absent one leaves "Data" out.
  static Answer conversionAnswer(const kit::Value& data);
  /// The requests that left for URLs that hold `url_part`, oldest first.
  std::vector<kit::Request> requests(std::string_view url_part = "") const { return transport.requests(url_part); }
  /// The payload of a request, opened with the key of its kind: tracking key for batches and demographics, else the
  /// hash key twice. std::invalid_argument when it does not open.
  kit::Value payload(const kit::Request& request) const;
  /// The payloads of requests(url_part).
  std::vector<kit::Value> payloads(std::string_view url_part) const;

 private:
  struct Process;
  Process& process() const;
  services::SealingTools sealingTools() const;
  void makeProcess();

  kit::ListLock list_lock_;
  mutable SeededRandom opening_random_;  // opening draws nothing, but the tools name a source
  uint64_t next_event_number_;
  std::unique_ptr<Process> process_;
};

}  // namespace morvik::testing
