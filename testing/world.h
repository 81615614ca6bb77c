// A complete device in one object: the core on fakes, with defaults for everything.
//
//   testing::TestWorld world;                 // a fresh install, nothing answers yet
//   world.serviceAccepts();                   // the service attributes the install and takes every batch
//   world.becomeActive();
//   world.recordEvent("shop", "purchase");
//   world.enterBackground();
//   world.loop.advance(1);
//   world.payloads("v1/tracking");            // what the service received, opened
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
#include "testing/recording_ledger.h"
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
  /// Without one, no way to ask about advertisements is offered. With one, none is offered until the test (or
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
  /// Whether the app has started, so that the core object is made at once. If not, launch() makes it.
  bool launched = true;

  /// An install with its referral record: user number 1001, referral key 7.
  static WorldOptions attributed();
};

/// Use from one thread. All public members outlive the processes; the functions below return what a process owns.
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
  /// Initially none.
  FakeModules modules;
  FakeFacade facade;
  FakeUpdateLog update_log;
  FakeConfig config;
  RecordingLedger ledger;
  /// The app: both delegates are set and record every call.
  RecordingDelegate app;

  /// The ports through which the core reaches the above. Faults planned here stay across processes until they are
  /// cleared.
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
  /// The process dies at once: uncommitted writes are lost, and nothing of it runs any more.
  void kill();
  /// Starts the next process, with its core object, on what was committed. Time, service and faults stay. Kills first
  /// if a process runs.
  void restart();

  // The device's user.
  /// The app becomes active; what follows immediately happens. No time passes.
  void becomeActive();
  /// The app enters the background; what follows immediately happens; the batch leaves half a second later.
  void enterBackground();
  /// The app records an activity now.
  void recordEvent(const kit::Value& group, const kit::Value& name, const kit::Value& param = {});

  // The service.
  /// The ad client answers without details, the service attributes the install (user number 1001, referral key 7) and
  /// accepts every batch.
  void serviceAccepts();
  /// A conversion answer with "Result" true and this "Data"; an absent one leaves "Data" out.
  static Answer conversionAnswer(const kit::Value& data);
  /// The requests that left for URLs that contain `url_part`, oldest first.
  std::vector<kit::Request> requests(std::string_view url_part = "") const { return transport.requests(url_part); }
  /// The payload of a request, opened with the key of its kind: tracking key for batches and demographics, otherwise
  /// the hash key twice. std::invalid_argument if it does not open.
  kit::Value payload(const kit::Request& request) const;
  /// The payloads of requests(url_part).
  std::vector<kit::Value> payloads(std::string_view url_part) const;

 private:
  struct Process;
  Process& process() const;
  services::SealingTools sealingTools() const;
  void makeProcess();

  kit::ListLock list_lock_;
  mutable SeededRandom opening_random_;  // opening draws no random bytes, but the tools need a source
  uint64_t next_event_number_;
  std::unique_ptr<Process> process_;
};

}  // namespace morvik::testing
