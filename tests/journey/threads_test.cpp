// The core on the real queues, each on its thread: what the main queue, the background queue and the network's thread
// share, again and again. Mainly for the thread sanitizer; what is recorded must be accounted for too.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "host/loop/main_loop.h"
#include "host/net/curl_transport.h"
#include "host/posix/background_thread.h"
#include "host/posix/system_clock.h"
#include "host/store/sqlite_store.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/ledger/ledger_store.h"
#include "runtime/loop/background_tasks.h"
#include "runtime/loop/notification_center.h"
#include "runtime/loop/settle_watch.h"
#include "runtime/machine/turn_gate.h"
#include "runtime/sending/exchange_queue.h"
#include "runtime/sending/handler_delivery.h"
#include "testing/recording_log.h"
#include "testing/sealed_payload.h"
#include "tests/host/loop/loop_rig.h"
#include "tests/journey/assembled_ports.h"
#include "tests/support/scratch_folder.h"

namespace morvik::journey {
namespace {

using kit::Value;
using std::chrono::steady_clock;

/// The time that the kit gives the background queue at a stop.
constexpr std::chrono::milliseconds kDrain{500};
/// A background grant so short that expiry and answers coincide.
constexpr double kShortGrantSeconds = 0.002;

/// A network on its own thread: requests leave when their turn is over, and each is answered by `answer`.
class AnsweringThread final : public runtime::MachineTransport {
 public:
  using AnswerTo = std::function<kit::TransportOutcome(const kit::Request&)>;

  AnsweringThread(kit::MainQueue& main_queue, runtime::TurnGate& gate, AnswerTo answer)
      : gate_(gate), delivery_(main_queue), answer_(std::move(answer)), thread_([this] { run(); }) {}
  ~AnsweringThread() override { shutdown(); }

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    if (!delivery_.admit())
      return;
    gate_.leave([this, request = std::move(request), handler = std::move(handler)] {
      if (request.when_it_leaves)
        request.when_it_leaves();
      const std::scoped_lock hold(mutex_);
      waiting_.emplace_back(request, handler);
      wake_.notify_one();
    });
  }
  size_t inFlight() const override { return delivery_.unanswered(); }
  void setHeld(bool) override {}
  void wishDidChange() override {}
  void shutdown() override {
    delivery_.close(std::chrono::duration<double>(host::kGiveUp).count());
    {
      const std::scoped_lock hold(mutex_);
      stopping_ = true;
      wake_.notify_one();
    }
    if (thread_.joinable())
      thread_.join();
  }

 private:
  void run() {
    std::unique_lock hold(mutex_);
    for (;;) {
      wake_.wait(hold, [this] { return stopping_ || !waiting_.empty(); });
      if (stopping_)
        return;
      const auto [request, handler] = std::move(waiting_.front());
      waiting_.pop_front();
      hold.unlock();
      delivery_.deliver(handler, answer_(request));
      hold.lock();
    }
  }

  runtime::TurnGate& gate_;
  runtime::HandlerDelivery delivery_;
  const AnswerTo answer_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::pair<kit::Request, std::function<void(kit::TransportOutcome)>>> waiting_;
  bool stopping_ = false;
  std::thread thread_;
};

constexpr const char* kServiceUrl = "https://service.example/";

/// The queues, the store and the ledger of a real machine, with the kit's frames.
struct Machine {
  explicit Machine(const std::string& folder, std::string url = kServiceUrl)
      : service_url(std::move(url)), store({.place = {.folder = folder}}, log) {
    const auto committed = [this](const kit::Block& turn) {
      {
        const runtime::TurnGate::Turn open(gate);
        turn();
        counted_store.commitTurn();
      }
      bell.ring();
    };
    loop.setFrame([this, committed](const kit::Block& turn) {
      committed(turn);
      settle_watch.check();
    });
    background.setFrame(committed);
    background.setWhenIdle([this] { loop.async([] {}); });  // a turn, and so a ring, once it is no longer counted
  }
  void stopQueues() {
    background.stop(steady_clock::now() + kDrain);
    loop.stop();
  }
  /// Waits until nothing is under way: no request, and no block on either queue that is due or delayed by half a
  /// second. Decided at the end of a turn, since the main queue does not count the block that it runs.
  bool settle() {
    const auto settled = std::make_shared<std::promise<bool>>();
    loop.async([this, settled] {
      settle_watch.begin(static_cast<double>(host::kGiveUp.count()), [settled](bool all) { settled->set_value(all); });
    });
    return settled->get_future().get();
  }
  size_t underWay() const {
    const runtime::MainLoopCounts waiting = loop.counts();
    return background.pending() + waiting.blocks + waiting.short_timers + network_of_all->inFlight();
  }

  const std::string service_url;
  kit::LogLevels log_levels;
  testing::RecordingLog log;
  host::SystemClock clock;
  host::SystemCalendar calendar;
  host::SqliteStore store;
  kit::ListLock list_lock;
  runtime::LedgerBook ledger{
      {.store = store, .list_lock = list_lock, .logger = services::Logger(log_levels, log), .clock = clock}};
  runtime::LedgerStore counted_store{store, ledger, list_lock};
  runtime::TurnGate gate;
  host::MainLoop loop{host::LoopMode::kOwnThread, services::Logger(log_levels, log)};
  host::BackgroundThread background{services::Logger(log_levels, log)};
  runtime::BackgroundTasks tasks{loop, kShortGrantSeconds};
  runtime::NotificationCenter notifications;
  host::TurnBell bell;
  runtime::SettleWatch settle_watch{loop, [this] { return underWay() == 0; }};

  runtime::MachineTransport* network_of_all = nullptr;

  Surroundings around(runtime::MachineTransport& network) {
    network_of_all = &network;
    return {.clock = clock,
            .calendar = calendar,
            .main_queue = loop,
            .background_queue = background,
            .background_tasks = tasks,
            .notifications = notifications,
            .store = counted_store,
            .list_lock = list_lock,
            .transport = network,
            .log = log,
            .service_url = service_url,
            .ledger = &ledger};
  }
};

/// A service that counts every event and loses every second answer to a batch. Any thread.
class CountingService {
 public:
  kit::TransportOutcome answer(const kit::Request& request) {
    const std::scoped_lock hold(mutex_);
    if (!request.url.ends_with(services::kTrackingPath))
      return json(request, R"({"Result":true,"Data":{"user_no":1001,"referralKey":7}})");
    const Value batch = testing::openEnvelope({cipher_, compressor_, random_}, request, kTrackingKey).payload;
    for (const Value& entry : batch["activity_info"].array()) {
      events_.emplace(entry["event_id"].string());
      if (entry["activity"] == Value("look"))
        looks_.emplace(entry["event_id"].string());
    }
    if (++batches_ % 2 == 0)
      return {std::nullopt, kit::Error{"the answer was lost"}};
    return json(request, R"({"Result":true,"BaseTime":1700000000000})");
  }
  /// The ids of the events "look".
  std::set<std::string> looks() const {
    const std::scoped_lock hold(mutex_);
    return looks_;
  }
  /// How many events arrived, each counted once.
  size_t events() const {
    const std::scoped_lock hold(mutex_);
    return events_.size();
  }
  size_t batches() const {
    const std::scoped_lock hold(mutex_);
    return batches_;
  }

 private:
  static kit::TransportOutcome json(const kit::Request& request, std::string body) {
    return {kit::Response{200, request.url, std::move(body)}, std::nullopt};
  }

  mutable std::mutex mutex_;
  const host::OpensslCipher cipher_{};
  const host::ZlibCompressor compressor_{};
  host::SystemRandom random_;
  std::set<std::string> events_;
  std::set<std::string> looks_;
  size_t batches_ = 0;
};

TEST(Threads, SessionsThatStartAndEndAsFastAsTheyCanLoseNoEvent) {
  constexpr size_t kRounds = 150;
  const test::ScratchFolder folder;
  Machine machine(folder.path());
  CountingService service;
  AnsweringThread network(machine.loop, machine.gate, [&](const kit::Request& r) { return service.answer(r); });
  AssembledPorts parts(machine.around(network));
  parts.launch();
  ASSERT_FALSE(machine.loop.open().has_value());

  const auto post = [&](kit::Notification notification) {
    machine.loop.async([&machine, notification] { machine.notifications.post(notification); });
  };
  std::atomic<size_t> recorded{0};
  const auto record = [&] {
    if (isKept(parts.services.addActivityOfApp("shop", "look", "", machine.clock.now())))
      ++recorded;
  };
  // Each round posts the next one, so that answers come in between; every tenth begins once all are there.
  std::function<void(size_t)> live = [&](size_t round) {
    if (round % 10 == 0 && network.inFlight() != 0)
      return machine.loop.async([&live, round] { live(round); });
    post(kit::Notification::kApplicationDidBecomeActive);
    machine.loop.async(record);
    if (round % 3 == 0)
      machine.loop.async([&] { parts.core->pushTracking(); });
    post(kit::Notification::kApplicationDidEnterBackground);
    if (round + 1 < kRounds)
      machine.loop.async([&live, round] { live(round + 1); });
  };
  machine.loop.async([&live] { live(0); });
  // What any thread may do, at the same time as the queues.
  std::thread somebody([&] {
    for (size_t i = 0; i < kRounds; ++i) {
      parts.core->endSession();
      parts.core->applicationEndBackgroundTask();
      parts.core->setReEngagement_task([] {});
      if (const kit::Block task = parts.core->ReEngagement_task())  // unless the session's end has cleared it by now
        task();
      EXPECT_TRUE(parts.core->_endSessoinDate().has_value());
      record();
    }
  });
  somebody.join();
  EXPECT_TRUE(machine.settle());
  machine.stopQueues();
  network.shutdown();

  EXPECT_EQ(recorded, 2 * kRounds);
  std::set<std::string> accounted_for = service.looks();
  for (const Value& activity : parts.properties.fendoActivityInfos().array()) {
    if (activity["activityName"] == Value("look"))
      accounted_for.emplace(activity["activityEventID"].string());
  }
  EXPECT_EQ(accounted_for.size(), 2 * kRounds);
  EXPECT_GT(service.batches(), 3U);
  EXPECT_TRUE(machine.ledger.read().isSound());
  EXPECT_EQ(machine.log.countContaining("Exception"), 0U);
}

/// Reads a ledger again and again, on a thread of its own.
class LedgerReader {
 public:
  explicit LedgerReader(runtime::LedgerBook& book) : book_(book), thread_([this] { run(); }) {}
  ~LedgerReader() { stop(); }
  LedgerReader(const LedgerReader&) = delete;
  LedgerReader& operator=(const LedgerReader&) = delete;
  void stop() {
    stopping_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  // After stop().
  size_t readings() const { return readings_; }
  /// Readings that were not sound, or had a smaller count than an earlier one.
  size_t wrong() const { return wrong_; }

 private:
  void run() {
    uint64_t recorded = 0;
    uint64_t delivered = 0;
    while (!stopping_) {
      const Ledger ledger = book_.read();
      const Ledger::Account activities = ledger.of("activities");
      const bool went_back = activities.recorded < recorded || activities.delivered < delivered;
      wrong_ += went_back || !ledger.isSound() ? 1U : 0U;
      ++readings_;
      recorded = activities.recorded;
      delivered = activities.delivered;
      std::this_thread::yield();
    }
  }

  runtime::LedgerBook& book_;
  std::atomic<bool> stopping_{false};
  size_t readings_ = 0;
  size_t wrong_ = 0;
  std::thread thread_;
};

TEST(Threads, TheLedgerIsSoundAtEveryReadingAndExactAtTheEnd) {
  constexpr size_t kRecorders = 3;
  constexpr size_t kEventsEach = 150;
  const test::ScratchFolder folder;
  Machine machine(folder.path());
  CountingService service;
  AnsweringThread network(machine.loop, machine.gate, [&](const kit::Request& r) { return service.answer(r); });
  AssembledPorts parts(machine.around(network));
  parts.properties.setFendoUserInfo_fendoUserNo(1001);
  parts.properties.setFendoUserInfo_referralKey(7);
  parts.launch();
  ASSERT_FALSE(machine.loop.open().has_value());
  machine.loop.async([&] { machine.notifications.post(kit::Notification::kApplicationDidBecomeActive); });

  LedgerReader reader(machine.ledger);
  std::vector<std::thread> recorders;
  for (size_t recorder = 0; recorder < kRecorders; ++recorder) {
    recorders.emplace_back([&] {
      for (size_t i = 0; i < kEventsEach; ++i) {
        EXPECT_EQ(parts.services.addActivityOfApp("shop", "look", "", machine.clock.now()), Recorded::kKept);
        if (i % 5 == 0)
          machine.loop.async([&] { parts.core->pushTracking(); });
      }
    });
  }
  std::thread impressions([&] {
    for (size_t i = 0; i < kEventsEach; ++i) {
      parts.properties.inOneStep([&] {
        kit::MutableArray list(parts.properties.fendoImpressionInfos());
        list.append(kit::Dictionary{{"campaignKey", 7}, {"createdAt", machine.clock.now()}});
        parts.properties.setFendoImpressionInfos(Value(std::move(list)));
      });
      parts.properties.synchronize();
    }
  });
  for (std::thread& recorder : recorders)
    recorder.join();
  impressions.join();
  // Every second batch is accepted; what neither carried goes with the next.
  for (int batch = 0; batch < 4; ++batch) {
    EXPECT_TRUE(machine.settle());
    machine.loop.async([&] { parts.core->pushTracking(); });
  }
  EXPECT_TRUE(machine.settle());
  reader.stop();
  machine.stopQueues();
  network.shutdown();

  EXPECT_GT(reader.readings(), 0U);
  EXPECT_EQ(reader.wrong(), 0U);
  const Ledger ledger = machine.ledger.read();
  EXPECT_TRUE(ledger.isSound());
  const Ledger::Account activities = ledger.of("activities");
  EXPECT_EQ(service.looks().size(), kRecorders * kEventsEach);
  EXPECT_EQ(activities.recorded, service.events()) << "with what the kit records of the session";
  EXPECT_EQ(activities.delivered, activities.recorded);
  EXPECT_THAT(activities.given_up, ::testing::IsEmpty());
  EXPECT_EQ(ledger.of("impressions").recorded, kEventsEach);
  EXPECT_EQ(ledger.of("impressions").under_way, 0U);
  EXPECT_EQ(machine.log.countContaining("Exception"), 0U);
  // The next process agrees.
  machine.store.shutdown();
  testing::RecordingLog log;
  host::SqliteStore next({.place = {.folder = folder.path()}}, log);
  kit::ListLock list_lock;
  runtime::LedgerBook book({.store = next,
                            .list_lock = list_lock,
                            .logger = services::Logger(machine.log_levels, log),
                            .clock = machine.clock});
  EXPECT_EQ(book.read().of("activities").delivered, activities.delivered);
  EXPECT_TRUE(book.read().isSound());
}

/// A service that loses the first two answers to each click and accepts the third request. Any thread.
class ReluctantService {
 public:
  kit::TransportOutcome answer(const kit::Request& request) {
    const std::scoped_lock hold(mutex_);
    if (!request.url.ends_with(services::kReEngagementConversionPath))
      return {std::nullopt, kit::Error{"nobody is there"}};
    const std::string key = std::string(kHashKey) + kHashKey;
    const Value click = testing::openEnvelope({cipher_, compressor_, random_}, request, key).payload["deeplink_info"];
    const int64_t conversion_key = click["conversion_key"].integer();
    if (++attempts_[conversion_key] < 3)
      return {std::nullopt, kit::Error{"the answer was lost"}};
    const std::string body = R"({"Result":true,"Data":{"conversion_result":{"conversion_key":)";
    return {kit::Response{200, request.url, body + std::to_string(conversion_key) + "}}}"}, std::nullopt};
  }
  std::map<int64_t, int> attempts() const {
    const std::scoped_lock hold(mutex_);
    return attempts_;
  }

 private:
  mutable std::mutex mutex_;
  const host::OpensslCipher cipher_{};
  const host::ZlibCompressor compressor_{};
  host::SystemRandom random_;
  std::map<int64_t, int> attempts_;
};

TEST(Threads, ClicksThatAreRecordedCountedAndStruckOffTogetherAreNeverStoredTwice) {
  constexpr int64_t kClicks = 150;
  const test::ScratchFolder folder;
  Machine machine(folder.path());
  ReluctantService service;
  AnsweringThread network(machine.loop, machine.gate, [&](const kit::Request& r) { return service.answer(r); });
  AssembledPorts parts(machine.around(network));
  parts.properties.setFendoUserInfo_referralKey(7);
  parts.launch();
  ASSERT_FALSE(machine.loop.open().has_value());

  // The main queue opens links and gets the answers while session ends count and resend on the background queue.
  std::function<void(int64_t)> open = [&](int64_t key) {
    parts.core->passOpenURL(kit::Url("app://x?ck=" + std::to_string(key)));
    if (key % 3 == 0)
      machine.background.async([&] { parts.core->endSession(); });
    if (key < kClicks)
      machine.loop.async([&open, key] { open(key + 1); });
  };
  machine.loop.async([&open] { open(1); });
  ASSERT_TRUE(machine.settle());

  EXPECT_EQ(service.attempts().size(), static_cast<size_t>(kClicks));
  std::set<int64_t> stored;
  for (const Value& click : parts.properties.reEngagementInfos().array()) {
    const int64_t key = click["conversion_key"].integer();
    EXPECT_TRUE(stored.insert(key).second) << key << " is stored twice";
  }
  // What is left goes with its next answers.
  for (int end = 0; end < 3; ++end) {
    machine.background.async([&] { parts.core->endSession(); });
    ASSERT_TRUE(machine.settle());
  }
  machine.stopQueues();
  network.shutdown();
  // Absent if each failure found its session ended and nothing was ever kept.
  EXPECT_TRUE(parts.properties.reEngagementInfos().array().empty());
  for (const auto& [key, count] : service.attempts())
    EXPECT_TRUE(stored.count(key) == 0 || count >= 3) << key;
  const Ledger ledger = machine.ledger.read();
  EXPECT_TRUE(ledger.isSound());
  EXPECT_EQ(ledger.of("re-engagement clicks").under_way, 0U);
  EXPECT_GE(ledger.of("re-engagement clicks").delivered, stored.size());
  EXPECT_EQ(machine.log.countContaining("Exception"), 0U);
}

/// Accepts connections and never answers.
class SilentServer {
 public:
  SilentServer() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* plain = reinterpret_cast<sockaddr*>(&address);
    if (::bind(socket_, plain, size) != 0 || ::listen(socket_, 16) != 0 || ::getsockname(socket_, plain, &size) != 0)
      std::abort();
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
  }
  ~SilentServer() { ::close(socket_); }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  const std::string& url() const { return url_; }
  /// Waits for somebody to connect; returns whether anybody did.
  bool awaitConnection() const {
    pollfd waiting{socket_, POLLIN, 0};
    return ::poll(&waiting, 1, std::chrono::milliseconds(host::kGiveUp).count()) == 1;
  }

 private:
  const int socket_;
  std::string url_;
};

TEST(Threads, AShutdownWithARequestInFlightIsQuickRunsNoHandlerAndKeepsTheEvents) {
  SilentServer server;
  test::ScratchFolder folder;
  {
    Machine machine(folder.path(), server.url());
    runtime::ExchangeQueue network(
        std::make_unique<host::CurlTransport>(host::CurlTransportOptions{}),
        {.ca_file = "", .main_queue = machine.loop, .gate = machine.gate, .is_forgotten = [] { return false; }});
    AssembledPorts parts(machine.around(network));
    parts.properties.setFendoUserInfo_fendoUserNo(1001);
    parts.properties.setFendoUserInfo_referralKey(7);
    parts.launch();
    ASSERT_FALSE(machine.loop.open().has_value());
    machine.loop.async([&] { machine.notifications.post(kit::Notification::kApplicationDidBecomeActive); });
    ASSERT_TRUE(server.awaitConnection());
    EXPECT_TRUE(machine.bell.waitUntil([&] { return network.inFlight() == 3U; }))
        << "the batch, and the questions for configuration and schedule";
    machine.loop.async([&] { machine.notifications.post(kit::Notification::kApplicationDidEnterBackground); });

    const auto before = steady_clock::now();
    machine.stopQueues();
    network.shutdown();
    machine.store.shutdown();
    EXPECT_LT(steady_clock::now() - before, std::chrono::seconds(10)) << "the request's own time-out is 15 s";
    EXPECT_THAT(machine.log.messagesOf("-[MorvikCoreLib tracking:]_block_invoke"), ::testing::IsEmpty());
    EXPECT_TRUE(parts.core->_isTrackingCalled());
  }
  testing::RecordingLog log;
  const host::SqliteStore next({.place = {.folder = folder.path()}}, log);
  const Value kept = next.get("fendoActivityInfos");
  ASSERT_GE(kept.size(), 2U);
  EXPECT_EQ(kept.array()[0]["activityName"], Value("start"));
  EXPECT_EQ(kept.array()[1]["activityName"], Value("retention"));
}

}  // namespace
}  // namespace morvik::journey
