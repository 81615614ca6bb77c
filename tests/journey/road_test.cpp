// The road of one event, hop by hop, on the kit's own store, cipher, compressor, codec, siblings and ledger: recorded,
// stored, batched, sealed, posted, answered, trimmed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "host/store/sqlite_store.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/ledger/ledger_store.h"
#include "services/MorvikADAFHTTPClient.h"
#include "testing/fake_calendar.h"
#include "testing/recording_log.h"
#include "testing/scripted_transport.h"
#include "testing/sealed_payload.h"
#include "testing/virtual_loop.h"
#include "tests/journey/assembled_ports.h"
#include "tests/support/scratch_folder.h"

namespace morvik::journey {
namespace {

using kit::Dictionary;
using kit::Value;
using testing::Answer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

std::vector<std::string> textsUnder(const Value& array, const char* key) {
  std::vector<std::string> texts;
  for (const Value& element : array.array())
    texts.emplace_back(element[key].string());
  return texts;
}

std::vector<std::string> texts(const Value& array) {
  std::vector<std::string> texts;
  for (const Value& element : array.array())
    texts.emplace_back(element.string());
  return texts;
}

/// A scripted network as a machine's transport.
class MachineNetwork final : public runtime::MachineTransport {
 public:
  explicit MachineNetwork(testing::ScriptedTransport& network) : network_(network) {}
  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    network_.start(std::move(request), std::move(handler));
  }
  size_t inFlight() const override { return network_.unanswered(); }
  void setHeld(bool) override {}
  void wishDidChange() override {}
  void shutdown() override {}

 private:
  testing::ScriptedTransport& network_;
};

class Road : public ::testing::Test {
 protected:
  Road() {
    loop.addCommit([this] { counted_store.commitTurn(); });
    parts.launch();
    parts.properties.setFendoUserInfo_fendoUserNo(1001);
    parts.properties.setFendoUserInfo_referralKey(7);
    parts.properties.synchronize();
  }

  /// At every hop the event is counted exactly once.
  ~Road() override { EXPECT_TRUE(ledger.read().isSound()); }

  void expectAccount(uint64_t recorded, uint64_t delivered, uint64_t stored, const char* hop) {
    const Ledger::Account account = ledger.read().of("activities");
    EXPECT_TRUE(account.isSound()) << hop;
    EXPECT_EQ(account.recorded, recorded) << hop;
    EXPECT_EQ(account.delivered, delivered) << hop;
    EXPECT_EQ(account.stored, stored) << hop;
  }
  void record(const char* name, const char* param) {
    loop.perform([&] { EXPECT_EQ(parts.services.addActivityOfApp("shop", name, param, loop.now()), Recorded::kKept); });
  }
  /// What the next process would find if this one died now.
  struct Remains {
    Value activities;
    Value sent_event_keys;
  };
  Remains remains() {
    const test::ScratchFolder copy;
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
      std::filesystem::copy(file.path(), copy / file.path().filename().string());
    testing::RecordingLog quiet;
    const host::SqliteStore next({.place = {.folder = copy.path()}}, quiet);
    EXPECT_EQ(next.opening(), runtime::StoreOpening::kOpened) << next.openingLine();
    return {next.get("fendoActivityInfos"), next.get("fendoActivityInfosSentEventKeys")};
  }
  Value opened(const Value& parameters) {
    kit::Request request;
    request.body = services::formEncoded(parameters.dictionary());
    return testing::openEnvelope(parts.sealing(), request, kTrackingKey).payload;
  }

  test::ScratchFolder folder;
  testing::RecordingLog log;
  host::SqliteStore store{{.place = {.folder = folder.path()}}, log};
  testing::VirtualLoop loop;
  testing::ScriptedTransport transport{loop};
  testing::FixedOffsetCalendar calendar;
  kit::ListLock list_lock;
  kit::LogLevels log_levels;
  runtime::LedgerBook ledger{
      {.store = store, .list_lock = list_lock, .logger = services::Logger(log_levels, log), .clock = loop.clock()}};
  runtime::LedgerStore counted_store{store, ledger, list_lock};
  MachineNetwork network{transport};
  AssembledPorts parts{{.clock = loop.clock(),
                        .calendar = calendar,
                        .main_queue = loop.mainQueue(),
                        .background_queue = loop.backgroundQueue(),
                        .background_tasks = loop.backgroundTasks(),
                        .notifications = loop.notifications(),
                        .store = counted_store,
                        .list_lock = list_lock,
                        .transport = network,
                        .log = log,
                        .ledger = &ledger}};
  MorvikCoreLib& core() { return *parts.core; }
};

TEST_F(Road, OfAnEventThatTheServiceAccepts) {
  // recorded: the event becomes a record with an id of its own.
  record("purchase", "sku-42");
  const kit::Array recorded = parts.properties.fendoActivityInfos().array();
  ASSERT_EQ(recorded.size(), 1U);
  const std::string id(recorded[0]["activityEventID"].string());
  EXPECT_EQ(id.size(), 36U);
  EXPECT_EQ(recorded[0], Value(Dictionary{{"activityGroupName", "shop"},
                                          {"activityName", "purchase"},
                                          {"activityParam", "sku-42"},
                                          {"activityCreatedAt", loop.now()},
                                          {"activityEventID", id}}));

  expectAccount(1, 0, 1, "recorded");

  // stored: the next process would find it.
  EXPECT_EQ(remains().activities, Value(recorded));

  // batched: it is an entry of the batch, its id is noted, the slot is taken.
  const Value parameters = core().makeTrackingParameter(EndActivities::kSend);
  EXPECT_TRUE(core()._isTrackingCalled());
  EXPECT_THAT(texts(parts.properties.fendoActivityInfosSentEventKeys()), ElementsAre(id));
  EXPECT_THAT(texts(remains().sent_event_keys), ElementsAre(id));

  // sealed: nobody reads it without the key.
  const std::string sealed(parameters["j"].string());
  EXPECT_THAT(sealed, Not(HasSubstr("purchase")));
  EXPECT_EQ(opened(parameters)["activity_info"], Value(kit::Array{Dictionary{{"group", "shop"},
                                                                             {"activity", "purchase"},
                                                                             {"param", "sku-42"},
                                                                             {"prev_group", ""},
                                                                             {"prev_activity", ""},
                                                                             {"created_at", "20240301090000"},
                                                                             {"event_id", id}}}));

  // posted: the request leaves when the turn is over and what it wrote is committed.
  const double server_seconds = loop.now().secondsSince1970() + 2 + 30;
  transport.on("v1/tracking")
      .then(Answer::json(Dictionary{{"Result", true}, {"BaseTime", server_seconds * 1000.0}}).after(2));
  std::vector<std::string> safe_when_it_left;
  transport.setObserver(
      [&](const kit::Request&) { safe_when_it_left = textsUnder(remains().activities, "activityName"); });
  loop.perform([&] {
    parts.services.addActivityOfApp("shop", "late", "", loop.now());
    core().tracking(parameters);
    EXPECT_THAT(transport.requests(), IsEmpty());
  });
  ASSERT_EQ(transport.requests().size(), 1U);
  const kit::Request request = transport.requests()[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, "https://service.example/v1/tracking");
  EXPECT_EQ(testing::headerOf(request, "Accept-Encoding"), "gzip");
  EXPECT_EQ(request.body, services::formEncoded(parameters.dictionary()));
  EXPECT_THAT(safe_when_it_left, ElementsAre("purchase", "late"));
  expectAccount(2, 0, 2, "posted");

  // answered: the server's time is now the clock offset, and the slot is free.
  EXPECT_TRUE(core()._isTrackingCalled());
  loop.advance(2);
  EXPECT_DOUBLE_EQ(parts.services.intervalSinceServerDate(), 30.0);
  EXPECT_FALSE(core()._isTrackingCalled());

  // trimmed: exactly the record that the batch covered is gone, here and for the next process.
  EXPECT_THAT(textsUnder(parts.properties.fendoActivityInfos(), "activityName"), ElementsAre("late"));
  EXPECT_EQ(parts.properties.fendoActivityInfosSentEventKeys(), Value(kit::Array{}));
  EXPECT_THAT(textsUnder(remains().activities, "activityName"), ElementsAre("late"));
  EXPECT_THAT(texts(remains().sent_event_keys), IsEmpty());
  expectAccount(2, 1, 1, "trimmed");
}

TEST_F(Road, OfAnEventWhoseAnswerIsAFailureStartsAgainWithTheSameId) {
  record("purchase", "sku-42");
  const auto ids = textsUnder(parts.properties.fendoActivityInfos(), "activityEventID");
  transport.on("v1/tracking").then(Answer::body(500, "out of order")).then(Answer::json(Dictionary{{"Result", true}}));
  loop.perform([&] { core().pushTracking(); });
  EXPECT_EQ(textsUnder(remains().activities, "activityEventID"), ids);
  EXPECT_THAT(texts(remains().sent_event_keys), IsEmpty());
  EXPECT_FALSE(core()._isTrackingCalled());
  expectAccount(1, 0, 1, "answered by a failure");
  loop.perform([&] { core().pushTracking(); });
  ASSERT_EQ(transport.requests().size(), 2U);
  for (const kit::Request& request : transport.requests()) {
    const Value batch = testing::openEnvelope(parts.sealing(), request, kTrackingKey).payload;
    EXPECT_EQ(textsUnder(batch["activity_info"], "event_id"), ids);
  }
  EXPECT_NE(transport.requests()[0].body, transport.requests()[1].body) << "sealed with a nonce of its own";
  expectAccount(1, 1, 0, "answered well");
  EXPECT_THAT(textsUnder(remains().activities, "activityEventID"), IsEmpty());
}

TEST_F(Road, OfTheTenthEventNeedsNoOtherTrigger) {
  transport.on("v1/tracking").always(Answer::json(Dictionary{{"Result", true}}));
  for (int i = 1; i <= 9; ++i)
    record("look", "");
  EXPECT_THAT(transport.requests(), IsEmpty());
  record("look", "");
  ASSERT_EQ(transport.requests().size(), 1U);
  EXPECT_THAT(textsUnder(remains().activities, "activityName"), IsEmpty());
}

}  // namespace
}  // namespace morvik::journey
