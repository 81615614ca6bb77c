#include "host/make_instance.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "host/linux/crash/crash_record.h"
#include "host/store/sqlite_store.h"
#include "host/store/wish_file.h"
#include "host/system_machine.h"
#include "runtime/handed_over.h"
#include "runtime/machine/passing_store.h"
#include "runtime/make_instance.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/dates.h"
#include "services/endpoints.h"
#include "testing/recording_log.h"
#include "tests/support/environment_variable.h"
#include "tests/support/held_file.h"
#include "tests/support/scratch_folder.h"

namespace morvik::host {
namespace {

using std::chrono::steady_clock;
constexpr std::chrono::seconds kGiveUp{20};
constexpr double kGiveUpSeconds = 20;

/// Accepts connections of this machine and never answers.
class SilentServer {
 public:
  SilentServer() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(socket_, 16), 0);
    EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
  }
  ~SilentServer() { close(socket_); }
  const std::string& url() const { return url_; }
  /// Whether somebody connected.
  bool waitForConnection() const { return hasConnectionWithin(kGiveUp); }
  bool hasConnection() const { return hasConnectionWithin(std::chrono::seconds(0)); }

 private:
  bool hasConnectionWithin(std::chrono::milliseconds time) const {
    pollfd descriptor{socket_, POLLIN, 0};
    return poll(&descriptor, 1, static_cast<int>(time.count())) == 1;
  }

  int socket_;
  std::string url_;
};

/// Until the pumped instance has something to do, or its next timer is due.
void waitForTurn(const runtime::Instance& instance) {
  pollfd descriptor{instance.pollDescriptor(), POLLIN, 0};
  const int timeout = instance.pollTimeoutMilliseconds();
  poll(&descriptor, 1, timeout < 0 ? 1000 : timeout);
}

/// Counts the requested flushes, and notes when one happened.
class WatchedFlushes final : public runtime::PassingStore {
 public:
  explicit WatchedFlushes(std::unique_ptr<runtime::MachineStore> store)
      : runtime::PassingStore(*store), owned_(std::move(store)) {}
  void flushSoon() override {
    ++asked_;
    store_.flushSoon();
  }
  void setWhenFlushed(kit::Block hook) override {
    store_.setWhenFlushed([this, hook = std::move(hook)] {
      if (hook)
        hook();
      const std::scoped_lock hold(mutex_);
      flushed_.notify_all();
    });
  }
  size_t asked() const { return asked_; }
  /// Asks after each flush.
  bool isTrueSoon(const std::function<bool()>& condition) {
    std::unique_lock hold(mutex_);
    return flushed_.wait_for(hold, kGiveUp, condition);
  }

 private:
  const std::unique_ptr<runtime::MachineStore> owned_;
  std::atomic<size_t> asked_{0};
  std::mutex mutex_;
  std::condition_variable flushed_;
};

class MachineWithWatchedFlushes final : public SystemMachine {
 public:
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    auto made = std::make_unique<WatchedFlushes>(SystemMachine::makeStore(folder, log));
    flushes = made.get();
    return made;
  }
  WatchedFlushes* flushes = nullptr;
};

class MakeInstance : public ::testing::Test {
 protected:
  MakeInstance() {
    options.store_folder = folder / "store";
    options.app_key = "app";
    options.hash_key = "hash";
    options.tracking_key = "track";
    options.log_level = 6;
    options.log_sink = [this](std::string_view line) { log.line(line); };
    // Nothing listens there, and nothing leaves this machine.
    options.service_url = "http://127.0.0.1:1/";
  }

  std::unique_ptr<runtime::Instance> make() { return taken(makeInstance(options)); }
  static std::unique_ptr<runtime::Instance> taken(std::variant<std::unique_ptr<runtime::Instance>, kit::Error> made) {
    if (const auto* error = std::get_if<kit::Error>(&made)) {
      ADD_FAILURE() << error->message;
      return nullptr;
    }
    return std::get<std::unique_ptr<runtime::Instance>>(std::move(made));
  }
  std::unique_ptr<runtime::Instance> makePumped() {
    options.main_queue = MainQueueMode::kPumped;
    return make();
  }
  /// Runs `block` on the main queue of an instance with its own thread and waits for the commit of its turn.
  static void onMain(runtime::Instance& instance, const std::function<void()>& block) {
    std::promise<void> committed;
    instance.perform([&] {
      block();
      instance.afterThisTurn([&committed] { committed.set_value(); });
    });
    ASSERT_EQ(committed.get_future().wait_for(kGiveUp), std::future_status::ready);
  }
  static bool settle(runtime::Instance& instance) {
    std::promise<bool> settled;
    instance.perform([&] { instance.settle(kGiveUpSeconds, [&settled](bool answer) { settled.set_value(answer); }); });
    return settled.get_future().get();
  }
  static std::vector<std::string> namesOf(const kit::Value& activities) {
    std::vector<std::string> names;
    for (const kit::Value& activity : activities.array())
      names.emplace_back(activity["activityName"].string());
    return names;
  }
  /// What another process would find if this one died now.
  std::vector<std::string> namesInTheFile() const {
    testing::RecordingLog unused;
    const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
    return namesOf(inspector.get("fendoActivityInfos"));
  }

  test::ScratchFolder folder;
  testing::RecordingLog log;
  StartOptions options;
};

TEST_F(MakeInstance, SaysWhatIsWrongWithTheOptions) {
  options.app_key = Key();
  const StartResult started = MorvikCore::start(options);
  EXPECT_FALSE(started);
  EXPECT_EQ(started.core, nullptr);
  EXPECT_EQ(started.error, "StartOptions::app_key is not set; set it to the key that the service gave this app.");
}

TEST_F(MakeInstance, RefusesAFolderThatIsInUse) {
  const auto first = make();
  const StartResult second = MorvikCore::start(options);
  EXPECT_FALSE(second);
  EXPECT_NE(second.error.find(options.store_folder), std::string::npos) << second.error;
  first->stop();
  EXPECT_TRUE(MorvikCore::start(options));
}

TEST_F(MakeInstance, RefusesAStoreFolderThatIsAFile) {
  std::ofstream(options.store_folder) << "a file";
  const StartResult started = MorvikCore::start(options);
  EXPECT_EQ(started.error, "StartOptions::store_folder: " + options.store_folder +
                               " is a file; name a folder, it is made when missing.");
  EXPECT_FALSE(started);
}

TEST_F(MakeInstance, RefusesAStoreFolderBelowAFile) {
  std::ofstream(options.store_folder) << "a file";
  options.store_folder += "/store";
  EXPECT_NE(MorvikCore::start(options).error.find("which is a file"), std::string::npos);
}

TEST_F(MakeInstance, KeepsWhatIsRecordedInTheFolderOfTheLongestPathAndRefusesALongerOne) {
  constexpr size_t kLongest = 491;
  options.store_folder = folder / std::string(240, 'x') + "/";
  options.store_folder += std::string(kLongest - options.store_folder.size(), 'y');
  const auto instance = make();
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(instance->addActivity("shop", "purchase", std::nullopt), Recorded::kKept);
  options.store_folder += 'y';
  EXPECT_NE(MorvikCore::start(options).error.find("its path is too long"), std::string::npos);
}

TEST_F(MakeInstance, RefusesAFileOfCertificatesThatIsNotThere) {
  options.ca_file = folder / "ca.pem";
  const StartResult started = MorvikCore::start(options);
  EXPECT_EQ(started.error, "StartOptions::ca_file: the file " + options.ca_file +
                               " cannot be read (No such file or directory); fix its path or its permissions.");
  EXPECT_FALSE(started);
  EXPECT_FALSE(std::filesystem::exists(options.store_folder));
}

/// The beginnings of its warnings.
std::vector<std::string> warningsIn(const testing::RecordingLog& log) {
  constexpr size_t kBeginning = 59;
  std::vector<std::string> warnings;
  for (const testing::LogLine& line : log.lines()) {
    if (line.prefix && line.prefix->level == "WARNING")
      warnings.push_back(line.message.substr(0, kBeginning));
  }
  return warnings;
}

TEST_F(MakeInstance, WarnsOfOptionsThatAreHardlyMeantAtTheUsualLevelToo) {
  options.service_url = "";
  options.device.orientation = 7;
  options.device.idfa = Identifier::given("my phone");
  options.log_level = StartOptions().log_level;
  make();
  EXPECT_EQ(warningsIn(log), (std::vector<std::string>{"Morvik host: check the options: nothing will arrive: all en",
                                                       "Morvik host: check the options: DeviceDescription::orientat",
                                                       "Morvik host: check the options: DeviceDescription::idfa is "}));
}

TEST_F(MakeInstance, WarnsOfNothingWhenTheLogIsOffOrTheOptionsAreFine) {
  make();
  options.service_url = "";
  options.log_level = 0;
  make();
  EXPECT_TRUE(warningsIn(log).empty());
}

TEST_F(MakeInstance, KeepsNoMalformedAdvertisingIdentifierAndNoUnknownOrientationForPortrait) {
  options.device.idfa = Identifier::given("my phone");
  options.device.orientation = 7;
  const auto instance = makePumped();
  instance->applicationDidBecomeActive();
  EXPECT_EQ(instance->storedValue("MorvikCoreUserInfo_IDFA"), kit::Value());
  EXPECT_EQ(instance->storedValue("fendoUserInfo_isApplicationPortrait"), kit::Value("false"));
}

TEST_F(MakeInstance, RunsTwoInstancesOnTwoFolders) {
  const auto first = make();
  options.store_folder = folder / "other";
  const auto second = make();
  first->addActivity("g", "first", std::nullopt);
  second->addActivity("g", "second", std::nullopt);
  onMain(*first, [] {});
  onMain(*second, [] {});
  EXPECT_EQ(namesOf(first->storedValue("fendoActivityInfos")), std::vector<std::string>{"first"});
  EXPECT_EQ(namesOf(second->storedValue("fendoActivityInfos")), std::vector<std::string>{"second"});
}

TEST_F(MakeInstance, IsBehindTheSharedObjectUntilItStops) {
  EXPECT_EQ(MorvikCoreLib::shared(), nullptr);
  const auto first = make();
  const auto shared = MorvikCoreLib::shared();
  EXPECT_NE(shared, nullptr);
  options.store_folder = folder / "other";
  const auto second = make();
  EXPECT_EQ(MorvikCoreLib::shared(), shared);
  first->stop();
  EXPECT_EQ(MorvikCoreLib::shared(), nullptr);
}

TEST_F(MakeInstance, KeepsWhatWasRecordedOverARestart) {
  {
    const auto instance = make();
    instance->addActivity("shop", "buy", "sku");
    onMain(*instance, [] {});
    EXPECT_EQ(namesInTheFile(), std::vector<std::string>{"buy"});
  }
  const auto instance = make();
  const kit::Array activities = instance->properties().fendoActivityInfos().array();
  ASSERT_EQ(activities.size(), 1U);
  EXPECT_EQ(activities[0]["activityParam"], kit::Value("sku"));
}

TEST_F(MakeInstance, HasStoredAnActivityWhenTheCallReturnsOnThePumpingThread) {
  const auto instance = makePumped();
  instance->addActivity("shop", "buy", std::nullopt);
  EXPECT_EQ(namesInTheFile(), std::vector<std::string>{"buy"});
}

TEST_F(MakeInstance, CommitsATurnsOtherWritesAtItsEnd) {
  const auto instance = makePumped();
  instance->perform([&] { instance->properties().setFendoUserInfo_refUSN(std::string("written")); });
  instance->dispatch();
  testing::RecordingLog unused;
  const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
  EXPECT_EQ(inspector.get("fendoUserInfo_refUSN"), kit::Value("written"));
}

TEST_F(MakeInstance, StampsAnActivityWithTheTimeOfTheCall) {
  const auto instance = make();
  std::promise<void> go;
  instance->perform([&go] { go.get_future().wait(); });
  const auto now = [] {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return kit::Date{std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count()};
  };
  const kit::Date before = now();
  instance->addActivity("g", "n", std::nullopt);
  const kit::Date after = now();
  go.set_value();
  onMain(*instance, [] {});
  const kit::Date stamped = instance->properties().fendoActivityInfos().array()[0]["activityCreatedAt"].date();
  EXPECT_LE(before, stamped);
  EXPECT_LE(stamped, after);
}

TEST_F(MakeInstance, StartsASessionWhenTheAppBecomesActive) {
  const auto instance = makePumped();
  instance->applicationDidBecomeActive();
  EXPECT_EQ(namesOf(instance->storedValue("fendoActivityInfos")), (std::vector<std::string>{"start", "retention"}));
  EXPECT_EQ(instance->properties().integerForKey("com.morvik.core.appLaunchCount"), 1);
}

TEST_F(MakeInstance, MakesAndKeepsTheAdvertisingIdentifierAndTheOthers) {
  std::optional<std::string> idfa;
  std::vector<std::pair<std::string, kit::Value>> kept;
  for (int start = 0; start < 2; ++start) {
    const auto instance = makePumped();
    instance->applicationDidBecomeActive();
    if (start == 0) {
      idfa = instance->properties().MorvikCoreUserInfo_IDFA();
      ASSERT_TRUE(idfa);
      EXPECT_EQ(idfa->size(), 36U);
      EXPECT_EQ(idfa->find_first_of("abcdef"), std::string::npos);
    }
    EXPECT_EQ(instance->properties().MorvikCoreUserInfo_IDFA(), idfa);
    std::vector<std::pair<std::string, kit::Value>> own;
    for (const auto key : {runtime::kAdvertisingIdKey, runtime::kDeviceIdKey, runtime::kInstallIdKey})
      own.emplace_back(key, instance->storedValue(key));
    if (start == 0)
      kept = own;
    EXPECT_EQ(own, kept);
    for (const auto& [key, value] : own)
      EXPECT_EQ(value.string().size(), 36U) << key;
  }
}

TEST_F(MakeInstance, TakesTheIdentifiersThatAreGivenAndMakesNone) {
  options.device.idfa = Identifier::given("6D92078A-8246-4BA4-AE5B-76104861E7DC");
  options.device.puid = Identifier::none();
  const auto instance = makePumped();
  instance->applicationDidBecomeActive();
  EXPECT_EQ(instance->properties().MorvikCoreUserInfo_IDFA(), "6D92078A-8246-4BA4-AE5B-76104861E7DC");
  EXPECT_TRUE(instance->storedValue(runtime::kAdvertisingIdKey).isAbsent());
  EXPECT_TRUE(instance->storedValue(runtime::kDeviceIdKey).isAbsent());
}

TEST_F(MakeInstance, AsksForAttributionThroughTheClientThatShips) {
  SilentServer server;
  options.service_url = server.url();
  const auto instance = make();
  instance->applicationDidBecomeActive();
  EXPECT_TRUE(server.waitForConnection());
}

TEST_F(MakeInstance, SettlesWhenRequestsAndTheSessionsEndAreDone) {
  options.device.idfa = Identifier::none();
  const auto instance = make();
  onMain(*instance, [&] {
    instance->properties().setFendoUserInfo_fendoUserNo(7);
    instance->applicationDidBecomeActive();
    instance->applicationDidEnterBackground();
  });
  EXPECT_TRUE(settle(*instance));
  const runtime::Pending pending = instance->pending();
  EXPECT_TRUE(pending.isSettled());
  EXPECT_EQ(pending.retries, 1U) << "the conversion that failed is tried again later";
  EXPECT_EQ(pending.background_tasks, 1U) << "no batch was answered that would give the time back";
  EXPECT_EQ(namesOf(instance->storedValue("fendoActivityInfos")),
            (std::vector<std::string>{"start", "retention", "end"}));
}

TEST_F(MakeInstance, TellsThatItDidNotSettleInTime) {
  SilentServer server;
  options.service_url = server.url();
  const auto instance = make();
  std::promise<bool> settled;
  instance->perform([&] {
    instance->applicationDidBecomeActive();
    instance->settle(0.05, [&settled](bool answer) { settled.set_value(answer); });
  });
  EXPECT_FALSE(settled.get_future().get());
  EXPECT_GT(instance->pending().requests, 0U);
}

TEST_F(MakeInstance, StopsInTimeWithRequestsInFlightAndRunsNothingAfterwards) {
  SilentServer server;
  options.service_url = server.url();
  const auto instance = make();
  instance->applicationDidBecomeActive();
  ASSERT_TRUE(server.waitForConnection());
  const auto begin = steady_clock::now();
  instance->stop();
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(3));
  const size_t lines = log.lines().size();
  bool ran = false;
  instance->perform([&ran] { ran = true; });
  instance->addActivity("g", "late", std::nullopt);
  instance->applicationDidBecomeActive();
  instance->applicationDidEnterBackground();
  instance->pushTracking();
  instance->dispatch();
  instance->stop();
  EXPECT_FALSE(ran);
  EXPECT_EQ(log.lines().size(), lines);
  EXPECT_EQ(instance->pollDescriptor(), -1);
}

TEST_F(MakeInstance, EndsTheSessionThatIsOnItsWayBeforeItStops) {
  {
    const auto instance = make();
    onMain(*instance, [&] {
      instance->applicationDidBecomeActive();
      instance->applicationDidEnterBackground();
    });
    instance->stop();
  }
  const auto instance = make();
  EXPECT_TRUE(instance->properties().MorvikCoreUserInfo_endSessoinDate());
}

TEST_F(MakeInstance, DoesNotStopFromWithinACallback) {
  const auto instance = make();
  onMain(*instance, [&] { instance->stop(); });
  onMain(*instance, [] {});  // it still runs; the line was written by then
  EXPECT_TRUE(log.has("Morvik host: the kit cannot be stopped from within one of its callbacks; stop it from outside"));
}

TEST_F(MakeInstance, LogsWhatTheAppsBlocksThrow) {
  const auto instance = make();
  instance->perform([] { throw std::string("of the app"); });
  onMain(*instance, [] {});
  EXPECT_EQ(log.countContaining("Morvik host: a block on the main queue threw and ended there: "), 1U);
}

TEST_F(MakeInstance, RefusesCallsPastTheLimitAndRunsAllOthers) {
  options.log_level = 2;
  const auto instance = make();
  std::promise<void> go;
  std::promise<void> waits;
  instance->perform([&] {
    waits.set_value();
    go.get_future().wait();
  });
  waits.get_future().wait();
  std::atomic<size_t> ran = 0;
  for (size_t i = 0; i < runtime::kMaxPostedCalls + 3; ++i)
    instance->perform([&ran] { ++ran; });
  go.set_value();
  std::promise<void> done;
  instance->mainQueue().async([&done] { done.set_value(); });
  done.get_future().wait();
  EXPECT_EQ(log.count("Morvik host: a call was refused: 65536 calls wait for the main queue already; call less often, "
                      "or let the main queue run"),
            3U);
  EXPECT_EQ(ran, runtime::kMaxPostedCalls);
  instance->perform([&ran] { ++ran; });
  onMain(*instance, [] {});
  EXPECT_EQ(ran, runtime::kMaxPostedCalls + 1);
}

TEST_F(MakeInstance, RefusesNoWishToBeForgottenHoweverManyCallsWait) {
  SilentServer server;
  options.service_url = server.url();
  options.log_level = 2;
  const auto instance = make();
  std::promise<void> go;
  std::promise<void> waits;
  instance->perform([&] {
    waits.set_value();
    go.get_future().wait();
  });
  waits.get_future().wait();
  for (size_t i = 0; i < runtime::kMaxPostedCalls; ++i)
    instance->perform([] {});
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  EXPECT_EQ(log.countContaining("a call was refused"), 0U);
  EXPECT_TRUE(instance->isGdprForgetMe());
  go.set_value();
  EXPECT_TRUE(server.waitForConnection()) << "it is told, although it was posted behind all of them";
}

TEST_F(MakeInstance, WritesTheStartUpLineAtTheLevelOfTheOptions) {
  make();
  EXPECT_TRUE(log.has("MRVK_QA-MorvikCore.framework Version : 0.1.0, app key : app, hash key : hash"));
  log.clear();
  options.log_level = 4;
  make();
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Morvik host: version 0.1.0 started on the store folder " + options.store_folder,
                                      "Morvik host: stopped"}));
  log.clear();
  options.log_level = 3;
  make();
  EXPECT_TRUE(log.lines().empty());
}

class MakeInstanceInAnEnvironment : public MakeInstance {
 protected:
  MakeInstanceInAnEnvironment() { options.allow_environment = true; }
  std::string errorOfStart() {
    const StartResult started = MorvikCore::start(options);
    EXPECT_FALSE(started);
    return started.error;
  }

  test::EnvironmentVariable log_level{"MORVIK_LOG_LEVEL"};
  test::EnvironmentVariable log_file{"MORVIK_LOG_FILE"};
  test::EnvironmentVariable service_url{"MORVIK_SERVICE_URL"};
};

TEST_F(MakeInstanceInAnEnvironment, TakesLogLevelLogFileAndServiceFromItAndSaysSo) {
  SilentServer server;
  options.log_level = 0;
  options.service_url = "https://nowhere.example/";
  options.endpoints = {{"kFendoCampaignBaseLiveUrl", "https://elsewhere.example/"}};
  log_level.set("6");
  log_file.set(folder / "kit.log");
  service_url.set(server.url());
  {
    const auto instance = makePumped();
    instance->applicationDidBecomeActive();
    instance->dispatch();
    EXPECT_TRUE(server.waitForConnection());
  }
  EXPECT_TRUE(log.lines().empty()) << "the file takes the place of the app's sink";
  const std::string lines = test::bytesOf(folder / "kit.log");
  EXPECT_EQ(lines.find("Morvik host: the environment changed what the app had set: log level (MORVIK_LOG_LEVEL), log "
                       "file (MORVIK_LOG_FILE), service (MORVIK_SERVICE_URL)\n"),
            0U);
  EXPECT_NE(lines.find("Morvik host: a session started\n"), std::string::npos);
  EXPECT_NE(lines.find(server.url() + "v1/conversion"), std::string::npos);
  EXPECT_EQ(lines.find("nowhere.example"), std::string::npos);
  EXPECT_EQ(lines.find("elsewhere.example"), std::string::npos);
  makePumped();
  EXPECT_EQ(test::bytesOf(folder / "kit.log").find(lines), 0U) << "lines are appended";
}

TEST_F(MakeInstanceInAnEnvironment, LeavesItAloneUnlessTheAppAllowsIt) {
  options.allow_environment = false;
  options.log_level = 4;
  log_level.set("none");
  log_file.set(folder / "no/such/file");
  service_url.set("nonsense");
  make();
  EXPECT_EQ(log.lines().size(), 2U) << "started and stopped";
}

TEST_F(MakeInstanceInAnEnvironment, SaysNothingWhereNothingIsSet) {
  options.log_level = 4;
  log_level.unset();
  log_file.set("");
  service_url.unset();
  make();
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.countContaining("environment"), 0U);
}

TEST_F(MakeInstanceInAnEnvironment, LetsTheAppChangeTheLogLevelAfterwards) {
  options.log_level = 0;
  log_level.set("4");
  const auto instance = makePumped();
  EXPECT_EQ(log.countContaining("started on the store folder"), 1U);
  instance->setLogLevel(0);
  instance->stop();
  EXPECT_EQ(log.countContaining("stopped"), 0U);
}

TEST_F(MakeInstanceInAnEnvironment, NamesTheVariableThatIsWrong) {
  log_file.set(folder / "no/such/file");
  EXPECT_EQ(errorOfStart(), "MORVIK_LOG_FILE: the file " + (folder / "no/such/file") +
                                " cannot be opened (No such file or directory); fix its path or its permissions.");
  log_file.set(folder.path());
  EXPECT_EQ(errorOfStart(), "MORVIK_LOG_FILE: the file " + folder.path() +
                                " cannot be opened (Is a directory); fix its path or its permissions.");
  log_file.unset();
  service_url.set("http://elsewhere.example/");
  EXPECT_EQ(errorOfStart().find("MORVIK_SERVICE_URL: "), 0U);
  service_url.unset();
  for (const char* wrong : {"loud", "7", "-1", "4 ", "4.0"}) {
    log_level.set(wrong);
    EXPECT_EQ(errorOfStart(), "MORVIK_LOG_LEVEL is \"" + std::string(wrong) + "\"; choose 0 (off) to 6 (trace).");
  }
}

TEST_F(MakeInstance, TellsTheAppsDelegateOnTheMainQueueWhatAnotherThreadSetOff) {
  const auto instance = make();
  auto delegate = std::make_shared<MorvikCoreDelegate>();
  std::promise<std::pair<Recorded, std::thread::id>> refused;
  delegate->didRefuseEvent = [&refused](Recorded reason) { refused.set_value({reason, std::this_thread::get_id()}); };
  instance->setDelegate(delegate);
  instance->gdprForgetMe(true);
  std::thread::id main_thread;
  onMain(*instance, [&main_thread] { main_thread = std::this_thread::get_id(); });
  instance->addActivity("shop", "look", std::nullopt);
  auto told = refused.get_future();
  ASSERT_EQ(told.wait_for(kGiveUp), std::future_status::ready);
  EXPECT_EQ(told.get(), std::pair(Recorded::kRefusedForgotten, main_thread));
}

TEST_F(MakeInstance, TellsTheAppOfAServiceThatIsNotThereAndBearsWhatItThrows) {
  const auto instance = make();
  auto delegate = std::make_shared<MorvikCoreDelegate>();
  std::promise<DeliveryFailure> failed;
  std::once_flag once;
  delegate->didFailToDeliver = [&](const DeliveryFailure& failure) {
    std::call_once(once, [&] { failed.set_value(failure); });
    throw std::runtime_error("no room on the screen");
  };
  instance->setDelegate(delegate);
  instance->applicationDidBecomeActive();
  auto told = failed.get_future();
  ASSERT_EQ(told.wait_for(kGiveUp), std::future_status::ready);
  const DeliveryFailure failure = told.get();
  EXPECT_EQ(failure.http_status, 0);
  EXPECT_EQ(failure.reason.find("conversion: "), 0U) << failure.reason;
  EXPECT_TRUE(failure.is_tried_again);
  onMain(*instance, [] {});
  EXPECT_GE(log.count("Morvik host: a block on the main queue threw and ended there: no room on the screen"), 1U);
  const Status status = instance->status();
  ASSERT_TRUE(status.last_failure.has_value());
  EXPECT_EQ(status.last_failure->failure.reason, failure.reason);
  EXPECT_FALSE(status.last_success.has_value());
}

TEST_F(MakeInstance, TellsOnAnyThreadAndAfterAStopHowItStands) {
  const auto instance = make();
  onMain(*instance, [&instance] {
    instance->applicationDidBecomeActive();
    instance->addActivity("shop", "look", std::nullopt);
  });
  const Status running = instance->status();
  EXPECT_TRUE(running.is_running);
  EXPECT_TRUE(running.is_session_open);
  ASSERT_EQ(running.waiting.size(), 6U);
  EXPECT_EQ(running.waiting[0].kind, "activities");
  EXPECT_EQ(running.waiting[0].count, 3U);
  instance->stop();
  const Status stopped = instance->status();
  EXPECT_FALSE(stopped.is_running);
  EXPECT_TRUE(stopped.is_session_open);
  ASSERT_EQ(stopped.waiting.size(), 6U);
  EXPECT_EQ(stopped.waiting[0].count, 3U);
}

TEST_F(MakeInstance, NeverTellsHalfAReferralRecordAndHalfOfTheNext) {
  const auto instance = make();
  std::atomic<bool> is_over{false};
  std::atomic<int> torn{0};
  std::atomic<int> read{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!is_over) {
        const auto referral = instance->status().referral;
        ++read;
        if (referral && (referral->sub_conversion_key != referral->conversion_key ||
                         referral->campaign_data != std::to_string(referral->conversion_key)))
          ++torn;
      }
    });
  }
  onMain(*instance, [&read] {
    for (int64_t key = 1; key <= 500 || read < 500; ++key) {
      ReferralRecord record;
      record.referralKey = record.subReferralKey = key;
      record.referralData = std::to_string(key);
      MorvikCoreLib::shared()->saveFendoUserInfo(record);
    }
  });
  is_over = true;
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_EQ(torn, 0);
  EXPECT_GE(instance->status().referral->conversion_key, 500);
}

TEST_F(MakeInstance, ChangesTheLogLevelWhileItRuns) {
  options.log_level = 0;
  const auto instance = makePumped();
  instance->perform([] { throw 1; });
  instance->dispatch();
  EXPECT_TRUE(log.lines().empty());
  instance->setLogLevel(100);
  instance->perform([] { throw 1; });
  instance->dispatch();
  EXPECT_EQ(log.lines().size(), 1U);
  instance->setLogLevel(-100);
  instance->perform([] { throw 1; });
  instance->dispatch();
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(MakeInstance, RefusesTheAppsActivitiesOnceTheUserAskedToBeForgotten) {
  {
    const auto instance = makePumped();
    instance->perform([&] { instance->properties().setMorvikCoreUserInfo_isGDPRForgetMe(true); });
    instance->dispatch();
  }
  const auto instance = makePumped();
  EXPECT_TRUE(instance->isGdprForgetMe());
  instance->addActivity("g", "n", std::nullopt);
  instance->applicationDidBecomeActive();
  EXPECT_TRUE(instance->storedValue("fendoActivityInfos").isAbsent());
  instance->dispatch();
  EXPECT_TRUE(
      log.has("Morvik host: an activity of the app was not recorded: the user asked to be forgotten; ask "
              "isGdprForgetMe() before recording"));
}

TEST_F(MakeInstance, WritesTheWishAgainForAForgottenUserWhoseFilesWereRemoved) {
  MachineWithWatchedFlushes machine;
  options.main_queue = MainQueueMode::kPumped;
  const auto instance = taken(runtime::makeInstance(options, machine));
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  instance->dispatch();
  std::filesystem::remove_all(options.store_folder);

  const size_t asked = machine.flushes->asked();
  EXPECT_EQ(instance->addActivity("g", "n", std::nullopt), Recorded::kRefusedForgotten);
  EXPECT_EQ(instance->addImpression({.campaign_key = 7}), Recorded::kRefusedForgotten);
  EXPECT_EQ(machine.flushes->asked(), asked + 2) << "nothing else asks, since nothing is committed";
  const std::string wish = WishFile::pathFor({.folder = options.store_folder});
  EXPECT_TRUE(machine.flushes->isTrueSoon([&wish] { return std::filesystem::exists(wish); }));

  instance->applicationDidBecomeActive();
  EXPECT_EQ(machine.flushes->asked(), asked + 3);
}

TEST_F(MakeInstance, KeepsWhatTheAppSaysOfItsUser) {
  {
    const auto instance = makePumped();
    instance->setAge(27);
    instance->setGender(kGenderFemale);
    instance->setUserId("user-7");
  }
  const auto instance = makePumped();
  EXPECT_EQ(instance->properties().fendoUserDemoInfo_age(), 27);
  EXPECT_EQ(instance->properties().fendoUserDemoInfo_gender(), 1);
  EXPECT_EQ(instance->properties().fendoUserDemoInfo_userId(), "user-7");
}

TEST_F(MakeInstance, LetsTheUserIdGoThatAnEarlierProcessKeptAndTheOneThatWaits) {
  {
    const auto instance = make();
    EXPECT_EQ(instance->setAge(27), Recorded::kKept);
    EXPECT_EQ(instance->setUserId("user-7"), Recorded::kKept);
  }
  {
    const auto instance = make();
    EXPECT_EQ(instance->clearUserId(), Recorded::kKept);
  }
  const auto instance = make();
  EXPECT_EQ(instance->properties().fendoUserDemoInfo_userId(), std::nullopt);
  EXPECT_EQ(instance->properties().fendoUserDemoInfoForComplete_userId(), std::nullopt);
  EXPECT_EQ(instance->properties().fendoUserDemoInfo_age(), 27);
}

TEST_F(MakeInstance, KeepsAStructuredParameterAsItsJson) {
  const auto instance = make();
  EXPECT_EQ(instance->addActivity("shop", "purchase", Params().set("price", 9.99).set("currency", "EUR")),
            Recorded::kKept);
  EXPECT_EQ(instance->properties().fendoActivityInfos().array()[0]["activityParam"],
            kit::Value(R"({"price":9.99,"currency":"EUR"})"));
}

TEST_F(MakeInstance, KeepsWhatAnotherThreadRecordsBeforeItsCallReturnsWhileTheMainQueueIsBusy) {
  const auto instance = make();
  std::promise<void> go;
  instance->perform([&go] { go.get_future().wait(); });
  const auto inTheFile = [this](const char* key) {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused).get(key);
  };
  EXPECT_EQ(instance->addActivity("shop", "purchase", std::nullopt), Recorded::kKept);
  EXPECT_EQ(inTheFile("fendoActivityInfos").size(), 1U);
  EXPECT_EQ(instance->addImpression({.campaign_key = 7}), Recorded::kKept);
  EXPECT_EQ(inTheFile("fendoImpressionInfos").size(), 1U);
  EXPECT_EQ(instance->setAge(27), Recorded::kKept);
  EXPECT_EQ(inTheFile("fendoUserDemoInfo_age"), kit::Value(27));
  EXPECT_EQ(instance->passOpenURL("app://x?ck=1"), Recorded::kKept);
  EXPECT_EQ(inTheFile("host.handedOver").size(), 1U);
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  EXPECT_TRUE(instance->isGdprForgetMe());
  EXPECT_EQ(inTheFile("MorvikCoreUserInfo_isGDPRForgetMe"), kit::Value(true));
  EXPECT_EQ(instance->addActivity("shop", "late", std::nullopt), Recorded::kRefusedForgotten);
  go.set_value();
  onMain(*instance, [] {});
}

TEST_F(MakeInstance, CallsAWithdrawalKeptInMemoryWhileAnotherProcessKeepsItOutOfTheFileOfTheWish) {
  const auto instance = make();
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  const test::Held held(WishFile::pathFor({.folder = options.store_folder}));
  EXPECT_EQ(instance->gdprForgetMe(false), Recorded::kKeptInMemory) << "a restart would find the user forgotten";
  EXPECT_EQ(instance->addActivity("shop", "look", std::nullopt), Recorded::kKept);
  EXPECT_EQ(instance->gdprForgetMe(true), Recorded::kKept);
  held.letGo();
  EXPECT_EQ(instance->gdprForgetMe(false), Recorded::kKept);
}

TEST_F(MakeInstance, HasCommittedAForgetMeWishBeforeItsRequestLeaves) {
  SilentServer server;
  options.service_url = server.url();
  const auto instance = makePumped();
  const auto inTheFile = [this](const char* key) {
    testing::RecordingLog unused;
    return SqliteStore({.place = {.folder = options.store_folder}, .read_only = true}, unused).get(key);
  };
  instance->perform([&] {
    instance->gdprForgetMe(true);
    // It is told in a later turn.
    EXPECT_EQ(instance->pending().requests, 0U);
    EXPECT_EQ(inTheFile("MorvikCoreUserInfo_isGDPRForgetMe"), kit::Value(true));
  });
  instance->dispatch();
  instance->dispatch();
  EXPECT_EQ(instance->pending().requests, 1U);
  EXPECT_EQ(inTheFile("MorvikCoreUserInfo_isGDPRForgetMeServerSynced"), kit::Value(false));
  // The store's thread syncs the wish; then the erasure leaves in a turn.
  const auto give_up = steady_clock::now() + kGiveUp;
  while (!server.hasConnection() && steady_clock::now() < give_up) {
    waitForTurn(*instance);
    instance->dispatch();
  }
  EXPECT_TRUE(server.hasConnection());
  EXPECT_EQ(inTheFile("MorvikCoreUserInfo_isGDPRForgetMe"), kit::Value(true));
}

TEST_F(MakeInstance, KnowsAnAcceptedWishAfterARestartAndSendsItNoMore) {
  {
    const auto instance = makePumped();
    instance->perform([&] {
      instance->properties().setMorvikCoreUserInfo_isGDPRForgetMe(true);
      instance->properties().setMorvikCoreUserInfo_isGDPRForgetMeServerSynced(true);
    });
    instance->dispatch();
  }
  const auto instance = makePumped();
  instance->gdprForgetMe(true);
  EXPECT_EQ(instance->pending().requests, 0U);
  EXPECT_TRUE(log.has("MRVK_QA-[MorvikCore GDPR] already Synced And Set. Return.."));
}

TEST_F(MakeInstance, ReportsACrashOfAThreadThatHoldsTheLogsLock) {
  std::shared_ptr<MorvikCoreLib> core;
  options.log_sink = [&](std::string_view line) {
    log.line(line);
    if (core != nullptr && line.find("was not recorded") != std::string_view::npos)
      core->makeCrashParameter({.reason = "fendo broke", .call_stack_symbols = {"main"}, .moment = {}});
  };
  const auto instance = makePumped();
  core = MorvikCoreLib::shared();
  ASSERT_NE(core, nullptr);
  instance->gdprForgetMe(true);
  instance->addActivity("g", "n", std::nullopt);
  instance->dispatch();
  core.reset();
  testing::RecordingLog unused;
  const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
  const kit::Array reports = inspector.get("MorvikCoreUserInfo_Crash").array();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_EQ(reports[0]["exception_reason"], kit::Value("fendo broke"));
  EXPECT_EQ(reports[0]["device_information"]["root_device"], kit::Value(false));
  EXPECT_GT(reports[0]["device_information"]["free_device_storage"].integer(), 0);
  EXPECT_TRUE(reports[0]["device_information"]["free_memory"].string().ends_with(" MB"));
}

TEST_F(MakeInstance, TakesInAtTheNextStartACrashThatFoundTheStoreInUse) {
  {
    const auto instance = makePumped();
    instance->properties().inOneStep([] {
      MorvikCoreLib::shared()->makeCrashParameter({.reason = "fendo", .call_stack_symbols = {}, .moment = {}});
    });
    EXPECT_TRUE(instance->properties().MorvikCoreUserInfo_Crash().isAbsent());
  }
  for (int start = 0; start < 2; ++start) {
    const auto instance = makePumped();
    const kit::Array reports = instance->properties().MorvikCoreUserInfo_Crash().array();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0]["appkey"], kit::Value("app"));
  }
}

/// Leaves the record of a signal in the kit's own code, as the process that it ended does.
void leaveCrashRecord(const std::string& folder) {
  std::filesystem::create_directories(folder);
  const int file = std::get<int>(prepareCrashRecord(folder + "/crash-signal", loadedModules()));
  SignalPart signal;
  signal.signal = SIGSEGV;
  signal.instruction = reinterpret_cast<uint64_t>(&signalName);
  writeSignalPart(file, signal);
  close(file);
}

TEST_F(MakeInstance, LogsOfADamagedStoreAndReportFileThroughTheLoggerAndNothingAtLevelZero) {
  const auto spoil = [this] {
    std::filesystem::create_directories(options.store_folder);
    std::ofstream(options.store_folder + "/morvik.store") << std::string(5000, 'x');
    std::ofstream(options.store_folder + "/crash-reports") << "no report\n";
  };
  spoil();
  options.log_level = 0;
  make();
  EXPECT_EQ(log.messages(), std::vector<std::string>());
  spoil();
  options.log_level = 2;
  make();
  EXPECT_EQ(log.messagesOf("-[MorvikCore store]").size(), 1U);
  EXPECT_EQ(log.messagesOf("-[MorvikCore crashReports]").size(), 1U);
}

TEST_F(MakeInstance, ReportsTheSignalThatEndedAnEarlierProcessOnceThereIsRoomForTheReport) {
  leaveCrashRecord(options.store_folder);
  const std::filesystem::path store_file = options.store_folder + "/morvik.store";
  const std::filesystem::path shelf = options.store_folder + "/crash-reports";
  // Nothing can be written into either of them.
  std::filesystem::create_directory(store_file);
  std::filesystem::create_directory(shelf);
  EXPECT_TRUE(makePumped()->properties().MorvikCoreUserInfo_Crash().isAbsent());
  EXPECT_EQ(log.countContaining("the report of a crash can be kept neither in the store nor next to it"), 1U);
  std::filesystem::remove(store_file);
  std::filesystem::remove(shelf);
  for (int start = 0; start < 2; ++start) {
    const auto instance = makePumped();
    const kit::Array reports = instance->properties().MorvikCoreUserInfo_Crash().array();
    ASSERT_EQ(reports.size(), 1U) << "kept once, start " << start;
    EXPECT_EQ(reports[0]["exception_reason"], kit::Value("mrvk SIGSEGV"));
  }
}

TEST_F(MakeInstance, LosesNoReportOfManyThreadsThatCrashWhileTheAppRecords) {
  constexpr int kThreads = 3;
  constexpr int kEach = 60;
  options.log_level = 2;
  {
    const auto instance = make();
    const auto core = MorvikCoreLib::shared();
    std::atomic<bool> enough = false;
    std::thread app([&] {
      while (!enough)
        instance->addActivity("g", "n", std::nullopt);
    });
    std::vector<std::thread> dying;
    for (int i = 0; i < kThreads; ++i) {
      dying.emplace_back([&core, i] {
        for (int j = 0; j < kEach; ++j) {
          const std::string reason = "fendo " + std::to_string(i) + " " + std::to_string(j);
          core->makeCrashParameter({.reason = reason, .call_stack_symbols = {}, .moment = {}});
        }
      });
    }
    for (std::thread& thread : dying)
      thread.join();
    enough = true;
    app.join();
    instance->stop();
  }
  const auto instance = makePumped();
  std::set<std::string> reasons;
  for (const kit::Value& report : instance->properties().MorvikCoreUserInfo_Crash().array())
    reasons.emplace(report["exception_reason"].string());
  EXPECT_EQ(reasons.size(), size_t{kThreads} * kEach);
  EXPECT_EQ(instance->properties().MorvikCoreUserInfo_Crash().size(), reasons.size());
}

TEST_F(MakeInstance, LosesNothingThatManyThreadsRecordWhileTheAppComesAndGoes) {
  constexpr int kThreads = 4;
  constexpr int kEach = 250;
  SilentServer server;
  options.service_url = server.url();
  options.log_level = 2;
  const auto instance = make();
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&instance, i] {
      for (int j = 0; j < kEach; ++j) {
        instance->addActivity("thread", std::to_string(i), std::to_string(j));
        if (j % 50 == 0)
          instance->applicationDidBecomeActive();
        if (j % 50 == 25)
          instance->applicationDidEnterBackground();
        instance->pushTracking();
        instance->setLogLevel(j % 3);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  onMain(*instance, [] {});
  instance->stop();
  std::set<std::string> ids;
  size_t recorded = 0;
  for (const kit::Value& activity : instance->properties().fendoActivityInfos().array()) {
    ids.emplace(activity["activityEventID"].string());
    recorded += activity["activityGroupName"].string() == "thread" ? 1U : 0U;
  }
  EXPECT_EQ(recorded, size_t{kThreads} * kEach);
  EXPECT_EQ(ids.size(), instance->properties().fendoActivityInfos().size());
}

TEST_F(MakeInstance, StopsWhileOtherThreadsCallIt) {
  const auto instance = make();
  std::atomic<bool> enough = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!enough) {
        instance->addActivity("g", "n", std::nullopt);
        instance->applicationDidBecomeActive();
        instance->applicationDidEnterBackground();
        instance->pending();
        instance->setDelegate({});
      }
    });
  }
  onMain(*instance, [] {});
  instance->stop();
  enough = true;
  for (std::thread& thread : threads)
    thread.join();
  const size_t stored = instance->properties().fendoActivityInfos().size();
  const auto again = [&] {
    options.main_queue = MainQueueMode::kPumped;
    return make();
  }();
  EXPECT_EQ(again->properties().fendoActivityInfos().size(), stored);
}

TEST_F(MakeInstance, IsPumpedByAnAppsOwnLoop) {
  const auto instance = makePumped();
  bool ran = false;
  std::thread other([&] { instance->perform([&ran] { ran = true; }); });
  const auto give_up = steady_clock::now() + kGiveUp;
  while (!ran && steady_clock::now() < give_up) {
    waitForTurn(*instance);
    instance->dispatch();
  }
  other.join();
  EXPECT_TRUE(ran);
}

class OpenedUrls : public MakeInstance {
 protected:
  OpenedUrls() {
    Module module;
    module.resetRetainedConversionCache = [this](const std::map<std::string, std::string>& query) {
      opened.push_back(query.count("ck") != 0 ? query.at("ck") : "");
    };
    options.modules["FendoLib"] = module;
    options.log_level = 3;
  }
  /// The URL that another process would find stored.
  std::optional<std::string> urlInTheFile() const {
    testing::RecordingLog unused;
    const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
    const kit::Value stored = inspector.get(services::kPassOpenUrlKey);
    return stored.isString() ? std::optional<std::string>(stored.string()) : std::nullopt;
  }
  /// What the core stored of Facebook's referral, asked on the main queue.
  static kit::Value facebookData() { return MorvikCoreLib::shared()->fB_DeepLinkData(); }

  std::vector<std::string> opened;
};

TEST_F(OpenedUrls, ThatComeBeforeTheStartAreStoredAndReplayedOnceInTheFirstSession) {
  options.opened_url = "app://x?ck=12";
  {
    const auto instance = makePumped();
    EXPECT_EQ(urlInTheFile(), "app://x?ck=12");
    EXPECT_TRUE(opened.empty());
    instance->applicationDidBecomeActive();
    EXPECT_EQ(opened, std::vector<std::string>{"12"});
    EXPECT_EQ(urlInTheFile(), std::nullopt);
  }
  options.opened_url = "";
  const auto instance = makePumped();
  instance->applicationDidBecomeActive();
  EXPECT_EQ(opened, std::vector<std::string>{"12"});
}

TEST_F(OpenedUrls, ThatWereNeverHandledAreReplacedByANewOneWithALine) {
  options.opened_url = "app://first?ck=1";
  makePumped();
  makePumped();
  EXPECT_EQ(log.countContaining("was never handled"), 0U) << "the same URL again replaces nothing";
  options.opened_url = "";
  makePumped();
  EXPECT_EQ(urlInTheFile(), "app://first?ck=1");
  options.opened_url = "app://second?ck=2";
  const auto instance = makePumped();
  const auto line = log.find(
      "Morvik host: an opened URL of 16 bytes was never handled, and is replaced by one of 17 bytes: only "
      "one can wait for the next session start");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->prefix->level, "WARNING");
  EXPECT_EQ(line->prefix->operation, "-[MorvikCore passOpenURL:]");
  instance->applicationDidBecomeActive();
  EXPECT_EQ(opened, std::vector<std::string>{"2"});
}

TEST_F(OpenedUrls, OfAnyBytesAreKeptAsTheyAre) {
  options.opened_url = std::string("\xFF?ck=3\0\n", 8);
  const auto instance = makePumped();
  EXPECT_EQ(urlInTheFile(), options.opened_url);
  instance->applicationDidBecomeActive();
  EXPECT_EQ(opened, std::vector<std::string>{std::string("3\0\n", 3)});
}

TEST_F(OpenedUrls, AreHandledAtOnceOnTheMainQueueAndPostedFromAnywhereElse) {
  const auto instance = makePumped();
  instance->passOpenURL("app://x?ck=12");
  EXPECT_EQ(opened, std::vector<std::string>{"12"});
  std::thread([&instance] { instance->passOpenURL(std::string("app://x?ck=13")); }).join();
  EXPECT_EQ(opened.size(), 1U);
  instance->dispatch();
  EXPECT_EQ(opened, (std::vector<std::string>{"12", "13"}));
}

TEST_F(OpenedUrls, StoreTheirCommerceClickBeforeTheCallReturns) {
  const auto instance = makePumped();
  instance->passOpenURL("app://x?ck=1&cid=shoe");
  testing::RecordingLog unused;
  const SqliteStore inspector({.place = {.folder = options.store_folder}, .read_only = true}, unused);
  EXPECT_EQ(inspector.get("commerceConversionInfos").array()[0]["clickId"], kit::Value("shoe"));
}

TEST_F(OpenedUrls, OfFacebookAreReportedThroughTheFacade) {
  const auto instance = makePumped();
  instance->setReferralUrlForFacebook("https://f.example/?ck=12&sub_referral=s");
  EXPECT_EQ(facebookData()["deeplink_info"],
            kit::Value(kit::Dictionary{{"conversion_key", 12},
                                       {"deeplink_uri", "https://f.example/?ck=12&sub_referral=s"},
                                       {"sub_conversion_key", "s"}}));
  EXPECT_EQ(instance->pending().requests, 1U);
  std::thread([&instance] { instance->setReferralUrlForFacebook("https://f.example/?ck=13"); }).join();
  instance->dispatch();
  EXPECT_EQ(facebookData()["deeplink_info"]["conversion_key"], kit::Value(13));
}

TEST_F(OpenedUrls, OfADeadProcessAreHandledBeforeTheFirstSessionOfOneThatIsPumped) {
  {
    options.sending = false;  // so that they wait
    const auto instance = make();
    EXPECT_EQ(instance->passOpenURL("app://x?ck=12&cid=shoe"), Recorded::kKept);
    EXPECT_EQ(instance->setReferralUrlForFacebook("https://f.example/?ck=13"), Recorded::kKept);
    EXPECT_EQ(instance->thirdPartyConversion(), Recorded::kKept);
    instance->stop();
  }
  EXPECT_TRUE(opened.empty());
  options.sending = true;
  options.log_level = 6;
  const auto instance = makePumped();
  EXPECT_EQ(instance->storedValue(runtime::kHandedOverKey).size(), 3U);
  instance->applicationDidBecomeActive();  // inline: nothing was dispatched yet
  EXPECT_EQ(opened, std::vector<std::string>{"12"});
  EXPECT_EQ(instance->storedValue(runtime::kHandedOverKey).size(), 0U);
  const auto position = [this](const char* part) {
    const auto messages = log.messages();
    const auto found = std::find_if(messages.begin(), messages.end(), [part](const std::string& message) {
      return message.find(part) != std::string::npos;
    });
    EXPECT_NE(found, messages.end()) << part;
    return found - messages.begin();
  };
  const auto third_party = position("MRVK_QA-thirdPartyConversion_request.URL.absoluteString");
  EXPECT_LT(third_party, position("Morvik host: a session started"));
  EXPECT_EQ(facebookData()["deeplink_info"]["conversion_key"], kit::Value(13));
}

TEST_F(OpenedUrls, AreNotNeededForAThirdPartyConversion) {
  options.log_level = 6;
  const auto instance = make();
  instance->thirdPartyConversion();
  EXPECT_TRUE(settle(*instance));
  EXPECT_TRUE(
      log.has("MRVK_QA-thirdPartyConversion_request.URL.absoluteString : "
              "http://127.0.0.1:1/v1/thirdparty-conversion"));
  EXPECT_EQ(log.count("MRVK_QA-thirdPartyConversion_Recieved an HTTP 0"), 1U);
  EXPECT_EQ(log.countContaining("MRVK_QA-jsonDict : "), 1U) << "its parameters are built";
}

TEST_F(OpenedUrls, ComeTooLateOnceTheKitIsStopped) {
  const auto instance = makePumped();
  instance->stop();
  instance->passOpenURL("app://x?ck=12");
  instance->setReferralUrlForFacebook("https://f.example/?ck=12");
  instance->thirdPartyConversion();
  instance->dispatch();
  EXPECT_TRUE(opened.empty());
}

TEST_F(OpenedUrls, WhoseModuleThrowsEndInTheLog) {
  options.modules["FendoLib"].resetRetainedConversionCache = [](const auto&) { throw std::string("of the app"); };
  const auto instance = makePumped();
  instance->passOpenURL("app://x?ck=12");
  EXPECT_EQ(log.countContaining("MRVK_QA-[MorvikCoreLib error] Exception from passOpenURL!"), 1U);
}

}  // namespace
}  // namespace morvik::host
