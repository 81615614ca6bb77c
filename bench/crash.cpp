// The cost of delivering many stored crash reports. Each upload carries all stored reports and releases those within
// its budget, so the chain sends far more than is stored; its bound is writing these same bodies and nothing else. The
// store is the kit's own, on disk.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "bench/support/folder.h"
#include "bench/support/ratios.h"
#include "host/store/sqlite_store.h"
#include "services/describe.h"
#include "services/json_writer.h"
#include "testing/ports_with.h"
#include "testing/world.h"

namespace morvik::bench {
namespace {

constexpr int kRepetitions = 5;
constexpr double kMaxRatio = 3;
constexpr size_t kReportBytes = 10'000;
/// An upload releases reports up to the one that reaches this many bytes.
constexpr size_t kBudgetBytes = 100'001;

testing::WorldOptions quiet() {
  testing::WorldOptions options = testing::WorldOptions::attributed();
  options.launched = false;
  options.log_level = kit::lcl_vOff;
  return options;
}

/// A service that accepts every upload and stores nothing.
class AcceptingTransport : public kit::Transport {
 public:
  explicit AcceptingTransport(kit::MainQueue& main_queue) : main_queue_(main_queue) {}

  void start(kit::Request request, std::function<void(kit::TransportOutcome)> handler) override {
    ++requests_;
    bytes_ += request.body.size();
    main_queue_.async([handler = std::move(handler), url = std::move(request.url)] {
      handler({.response = kit::Response{.status_code = 200, .url = url, .body = R"({"code":0})"}, .error = {}});
    });
  }
  size_t requests() const { return requests_; }
  size_t bytes() const { return bytes_; }

 private:
  kit::MainQueue& main_queue_;
  size_t requests_ = 0;
  size_t bytes_ = 0;
};

/// A device that crashed this many times, with kReportBytes per report.
class CrashedDevice {
 public:
  explicit CrashedDevice(int64_t crashes) {
    world_.loop.addCommit([this] { store_.commitTurn(); });
    core_ = MorvikCoreLib::make(ports_);
    core_->makeCrashParameter(crash(0, ""));
    const size_t frame = services::describe(reports().array()[0]).size();
    properties_.setMorvikCoreUserInfo_Crash(kit::Array());
    const std::string trace(kReportBytes - frame, 'x');
    for (int64_t number = 0; number < crashes; ++number)
      core_->makeCrashParameter(crash(number, trace));
  }

  void upload() {
    world_.loop.perform([this] { core_->sendCrashInfos(); });
  }
  kit::Value reports() const { return properties_.MorvikCoreUserInfo_Crash(); }
  const AcceptingTransport& transport() const { return transport_; }

 private:
  static kit::UncaughtException crash(int64_t number, std::string trace) {
    const std::string digits = std::to_string(number);
    return {.reason = "fendo " + std::string(6 - digits.size(), '0') + digits,
            .call_stack_symbols = {std::move(trace)},
            .moment = {}};
  }

  testing::TestWorld world_{quiet()};
  Folder folder_;
  host::SqliteStore store_{{.place = {.folder = folder_.path()}}, world_.log};
  kit::ListLock lock_;
  services::MorvikGVUserDefaults properties_{store_, lock_};
  AcceptingTransport transport_{world_.loop.mainQueue()};
  const kit::Ports ports_ =
      testing::portsWith(world_.ports(), {.key_value_store = &store_, .list_lock = &lock_, .transport = &transport_});
  std::shared_ptr<MorvikCoreLib> core_;
};

/// The queues that the uploads of a chain find, each without the reports released by the previous one.
std::vector<kit::Value> queuesOfAChain(const kit::Value& reports) {
  std::vector<kit::Value> queues;
  const kit::Array all = reports.array();
  for (size_t first = 0; first < all.size();) {
    kit::MutableArray queue;
    for (size_t i = first; i < all.size(); ++i)
      queue.append(all[i]);
    queues.emplace_back(std::move(queue));
    for (size_t bytes = 0; first < all.size() && bytes < kBudgetBytes; ++first)
      bytes += services::describe(all[first]).size();
  }
  return queues;
}

void tell(benchmark::State& state, size_t requests, size_t bytes) {
  state.counters["requests"] = static_cast<double>(requests);
  state.counters["MB"] = static_cast<double>(bytes) / 1e6;
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void chain(benchmark::State& state) {
  CrashedDevice device(state.range(0));
  const size_t queues = queuesOfAChain(device.reports()).size();
  for (auto unused : state)
    device.upload();
  if (device.reports() != kit::Value(kit::Array()) || device.transport().requests() != queues)
    state.SkipWithError("the chain did not end where it should");
  tell(state, device.transport().requests(), device.transport().bytes());
}

void bodies(benchmark::State& state) {
  const std::vector<kit::Value> queues = queuesOfAChain(CrashedDevice(state.range(0)).reports());
  size_t bytes = 0;
  for (auto unused : state) {
    for (const kit::Value& queue : queues) {
      std::string body;
      if (services::appendJson(queue, body).has_value())
        state.SkipWithError("a body that cannot be written");
      bytes += body.size();
      benchmark::DoNotOptimize(body);
    }
  }
  tell(state, queues.size(), bytes);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(1'000)->Unit(benchmark::kMillisecond)->Iterations(1);
  benchmark->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}

BENCHMARK(chain)->Apply(sizes);
BENCHMARK(bodies)->Apply(sizes);

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  return morvik::bench::runWithRatios(argc, argv,
                                      {{"1,000 reports of 10 kB delivered / their uploads' bodies written",
                                        "chain/1000", "bodies/1000", morvik::bench::kMaxRatio}});
}
