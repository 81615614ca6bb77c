// A backlog of a million events, delivered in one session: the longest turn of the main queue, the memory for building
// the batches, their number, and the total time. Less than a full batch may remain: it waits for the next trigger,
// which must deliver it. The kit and its store are real; time and network are simulated, and the service accepts
// everything at once.
//
// bench_backlog [EVENTS] [--shuffled | --long | --kept]: shuffled, the events' times are in no order; long, each event
// has a text of a thousand digits, so that batches end by their bytes; kept, the session goes on within a minute, and
// the first batch looks for its "end".

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "bench/support/event_arguments.h"
#include "bench/support/folder.h"
#include "bench/support/run_delay.h"
#include "host/store/sqlite_store.h"
#include "runtime/sending/batch_limit.h"
#include "services/endpoints.h"
#include "simulation/virtual_machine.h"

namespace morvik::bench {
namespace {

constexpr int kEvents = 1'000'000;
constexpr double kMaxTurnMilliseconds = 250;  // of its own time
constexpr double kMaxBuildingMegabytes = 150;

class BenchMachine : public simulation::VirtualMachine {
 public:
  using VirtualMachine::VirtualMachine;
  std::unique_ptr<runtime::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    return std::make_unique<host::SqliteStore>(host::SqliteStoreOptions{.place = {.folder = folder}}, log);
  }
};

double milliseconds() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// A line of /proc/self/status, in MB.
double memory(std::string_view name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name))
      return std::strtod(line.c_str() + name.size() + 1, nullptr) * 1024 / 1e6;
  }
  return 0;
}

/// Restarts the measurement of the peak.
void forgetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

struct Turn {
  double wall = 0;
  double own = 0;  ///< without the time in which the thread was ready but not scheduled
};

Turn longer(const Turn& a, const Turn& b) {
  return {std::max(a.wall, b.wall), std::max(a.own, b.own)};
}

/// A text that hardly compresses.
std::string digits(std::mt19937& random) {
  std::string text;
  while (text.size() < 1000)
    text += std::to_string(random());
  return text;
}

int run(int events, std::string_view kind) {
  const bool shuffled = kind == "--shuffled";
  const bool is_long = kind == "--long";
  const bool is_kept = kind == "--kept";
  std::mt19937 random(1);
  const Folder folder;
  simulation::VirtualMachineOptions machine_options;
  BenchMachine machine(machine_options);
  StartOptions options = simulation::simulatedApp();
  options.store_folder = folder.path();
  machine.transport.setDefaultAnswer(testing::Answer::error("down"));
  machine.transport.on(services::kTrackingPath).always(testing::Answer::json(kit::Dictionary{{"Result", true}}));
  const auto phone = machine.start(options);
  const auto properties = phone->properties();
  properties.setFendoUserInfo_referralKey(7);
  if (is_kept) {
    properties.setFendoUserInfo_fendoUserNo(1001);
    phone->applicationDidBecomeActive();
    machine.loop.runUntilIdle();
    phone->applicationDidEnterBackground();
    machine.loop.advance(1);
    properties.setFendoUserInfo_fendoUserNo(-1);  // no trigger sends while the events are stored
  }
  for (int i = 0; i < events; ++i) {
    if (shuffled)
      machine.loop.moveWallClock(i % 2 == 0 ? 1000 : -999);
    phone->addActivity("shop", "purchase", is_long ? digits(random) : "item-" + std::to_string(i));
  }
  machine.loop.runUntilIdle();
  properties.setFendoUserInfo_fendoUserNo(1001);
  machine.loop.runUntilIdle();
  size_t batches = 0;
  machine.transport.setObserver(
      [&](const kit::Request& request) { batches += request.url.ends_with(services::kTrackingPath) ? 1U : 0U; });

  Turn longest;
  Turn longest_without_batch;
  RunDelay delay;
  double building = 0;
  const double begun = milliseconds();
  phone->applicationDidBecomeActive();
  for (bool is_over = false; !is_over;) {
    const size_t batches_before = batches;
    forgetPeak();
    const double resident = memory("VmRSS:");
    const double wall = milliseconds();
    const int64_t delayed = delay.nanoseconds();
    const bool has_run = machine.loop.step();
    const double took = milliseconds() - wall;
    const Turn turn{took, took - static_cast<double>(delay.nanoseconds() - delayed) / 1e6};
    longest = longer(longest, turn);
    if (batches == batches_before)
      longest_without_batch = longer(longest_without_batch, turn);
    else
      building = std::max(building, memory("VmHWM:") - resident);
    if (std::getenv("MORVIK_BENCH_TURNS") != nullptr && turn.own > 20)
      std::printf("turn %7.1f ms (%7.1f ms its own), batches %zu\n", turn.wall, turn.own, batches);
    machine.transport.clearRequests();
    if (!has_run) {
      is_over = properties.fendoActivityInfos().size() < runtime::kBatchLimit.records ||
                machine.loop.monotonicSeconds() > 3600;
      machine.loop.advance(1);
    }
  }
  const double session = milliseconds() - begun;
  const size_t left = properties.fendoActivityInfos().size();
  std::printf("%d events%s: %zu batches in %.1f s, %zu events left\n", events,
              shuffled  ? ", shuffled"
              : is_long ? ", long"
              : is_kept ? ", kept"
                        : "",
              batches, session / 1e3, left);
  std::printf("longest turn of the main queue: %.1f ms, %.1f ms without the waits for a processor\n", longest.wall,
              longest.own);
  std::printf(
      "longest turn that built none, and so asked nobody for a stop: %.1f ms, %.1f ms without the waits for a "
      "processor\n",
      longest_without_batch.wall, longest_without_batch.own);
  std::printf("memory of building a batch: %.1f MB at most\n", building);
  const size_t batches_of_the_session = batches;
  phone->pushTracking();
  machine.loop.runUntilIdle();
  const bool is_delivered = properties.fendoActivityInfos().size() == 0 && batches <= batches_of_the_session + 1;
  std::printf("the rest: %s\n", is_delivered ? "delivered by one trigger, in one batch at most" : "NOT DELIVERED");
  const bool holds = longest.own <= kMaxTurnMilliseconds && building <= kMaxBuildingMegabytes && is_delivered;
  std::printf("%s: turns of %.0f ms without the waits, %.0f MB for building, less than a batch left\n",
              holds ? "holds" : "DOES NOT HOLD", kMaxTurnMilliseconds, kMaxBuildingMegabytes);
  return holds ? 0 : 1;
}

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  const auto arguments =
      morvik::bench::eventArguments(argc, argv, morvik::bench::kEvents, {"--shuffled", "--long", "--kept"});
  if (!arguments) {
    std::fprintf(stderr,
                 "Usage: bench_backlog [EVENTS] [--shuffled | --long | --kept]\n"
                 "EVENTS is a number from 1 on; without it there are %d.\n",
                 morvik::bench::kEvents);
    return 2;
  }
  return morvik::bench::run(arguments->events, arguments->kind);
}
