// The cost of a session end with many failed clicks in the store, and of the answers to their resends: ten times the
// clicks may take ten times the time, plus half for cache misses. The store is the kit's own, on disk.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "bench/support/folder.h"
#include "bench/support/ratios.h"
#include "host/store/sqlite_store.h"
#include "services/endpoints.h"
#include "testing/ports_with.h"
#include "testing/world.h"

namespace morvik::bench {
namespace {

constexpr int kRepetitions = 5;
constexpr double kMaxRatio = 15;

/// Counts of clicks that are sent again, and of clicks whose attempts are used up.
constexpr int64_t kRaisedCount = 1;
constexpr int64_t kLastCount = 6;

testing::WorldOptions quiet() {
  testing::WorldOptions options;
  options.launched = false;
  options.has_ad_client = false;
  options.log_level = kit::lcl_vOff;
  return options;
}

/// A device with this many failed clicks, with the keys 1, 2, 3, …
class ClickedDevice {
 public:
  ClickedDevice(int64_t clicks, int64_t failure_count) {
    kit::MutableArray infos;
    kit::MutableArray counts;
    for (int64_t key = 1; key <= clicks; ++key) {
      infos.append(kit::Dictionary{{"session_no", key},
                                   {"conversion_key", key},
                                   {"deeplink_uri", "app://campaign/spring?ck=" + std::to_string(key)},
                                   {"sub_conversion_key", "sub"},
                                   {"is_first_launch", false}});
      counts.append(kit::Dictionary{{"conversion_key", key}, {"failure_cnt", failure_count}});
    }
    properties_.setReEngagementInfos(kit::Value(std::move(infos)));
    properties_.setReEngagementConversionFailedCnt(kit::Value(std::move(counts)));
    properties_.synchronize();
    world_.loop.addCommit([this] { store_.commitTurn(); });
    world_.transport.setDefaultAnswer(testing::Answer::silence());
    core_ = MorvikCoreLib::make(ports_);
  }

  /// The requests leave; their answers come later.
  void endSession() {
    world_.loop.perform([this] { core_->endSession(); });
  }
  /// Sends all clicks and holds their answers back until receiveAnswers().
  void sendClicks(testing::ScriptedTransport::Reply answers) {
    world_.transport.on(services::kReEngagementConversionPath).alwaysBy(std::move(answers));
    core_->endSession();
    // The user is back and has followed another link: a failure asks for its recorder.
    if (core_->makeReEngagementConversionParameter(kit::Url("app://campaign/spring?ck=1")).isAbsent())
      std::abort();
  }
  void receiveAnswers() { world_.loop.runUntilIdle(); }

  size_t clicks() const { return properties_.reEngagementInfos().size(); }
  size_t counts() const { return properties_.reEngagementConversionFailedCnt().size(); }
  int64_t firstCount() const {
    return properties_.reEngagementConversionFailedCnt().array()[0]["failure_cnt"].integer();
  }

 private:
  testing::TestWorld world_{quiet()};
  Folder folder_;
  host::SqliteStore store_{{.place = {.folder = folder_.path()}}, world_.log};
  kit::ListLock lock_;
  services::MorvikGVUserDefaults properties_{store_, lock_};
  testing::FakeServicesLib services_{properties_, {world_.cipher, world_.compressor, world_.random}};
  const kit::Ports ports_ =
      testing::portsWith(world_.ports(), {.key_value_store = &store_, .list_lock = &lock_, .services = &services_});
  std::shared_ptr<MorvikCoreLib> core_;
};

void require(benchmark::State& state, bool holds, const char* what) {
  if (!holds)
    state.SkipWithError(what);
}

void countsRaised(benchmark::State& state) {
  ClickedDevice device(state.range(0), kRaisedCount);
  for (auto unused : state)
    device.endSession();
  require(state, device.firstCount() == kRaisedCount + 1, "the counts were not raised");
  state.SetItemsProcessed(state.range(0));
}

void countsGivenUp(benchmark::State& state) {
  ClickedDevice device(state.range(0), kLastCount);
  for (auto unused : state)
    device.endSession();
  require(state, device.clicks() == 0 && device.counts() == 0, "the clicks were not given up");
  state.SetItemsProcessed(state.range(0));
}

void answersAccepted(benchmark::State& state) {
  ClickedDevice device(state.range(0), kRaisedCount);
  device.sendClicks([key = int64_t{0}](const kit::Request&) mutable {
    return testing::Answer::json(
        kit::Dictionary{{"Result", true},
                        {"Data", kit::Dictionary{{"conversion_result", kit::Dictionary{{"conversion_key", ++key}}}}}});
  });
  for (auto unused : state)
    device.receiveAnswers();
  require(state, device.clicks() == 0 && device.counts() == 0, "the clicks were not struck off");
  state.SetItemsProcessed(state.range(0));
}

void answersFailing(benchmark::State& state) {
  ClickedDevice device(state.range(0), kRaisedCount);
  device.sendClicks([](const kit::Request&) { return testing::Answer::error("down"); });
  for (auto unused : state)
    device.receiveAnswers();
  require(state, device.clicks() == static_cast<size_t>(state.range(0)), "a failed resend changed the clicks");
  state.SetItemsProcessed(state.range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMillisecond)->Iterations(1);
  benchmark->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}

BENCHMARK(countsRaised)->Apply(sizes);
BENCHMARK(countsGivenUp)->Apply(sizes);
BENCHMARK(answersAccepted)->Apply(sizes);
BENCHMARK(answersFailing)->Apply(sizes);

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  using morvik::bench::kMaxRatio;
  return morvik::bench::runWithRatios(
      argc, argv,
      {{"session end, counts raised and clicks sent, 10,000 clicks / 1,000", "countsRaised/10000", "countsRaised/1000",
        kMaxRatio},
       {"session end, clicks given up, 10,000 clicks / 1,000", "countsGivenUp/10000", "countsGivenUp/1000", kMaxRatio},
       {"answers to the resends, all accepted, 10,000 clicks / 1,000", "answersAccepted/10000", "answersAccepted/1000",
        kMaxRatio},
       {"answers to the resends, all failing, 10,000 clicks / 1,000", "answersFailing/10000", "answersFailing/1000",
        kMaxRatio}});
}
