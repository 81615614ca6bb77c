// A backlog of a million events, delivered in one session: the longest turn of the main queue, what building the
// batches takes in memory, how many there are, and how long all of it takes. The host and its store are the real ones;
// time and network are simulated, and the service takes everything at once.
//
// bench_backlog [EVENTS [--shuffled]]: shuffled, the events' times are in no order.

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "bench/support/folder.h"
#include "host/store/sqlite_store.h"
#include "services/endpoints.h"
#include "simulation/virtual_machine.h"

namespace morvik::bench {
namespace {

constexpr int kEvents = 1'000'000;
constexpr double kMaxTurnMilliseconds = 250;
constexpr double kMaxBuildingMebibytes = 150;

class BenchMachine : public simulation::VirtualMachine {
 public:
  using VirtualMachine::VirtualMachine;
  std::unique_ptr<host::MachineStore> makeStore(const std::string& folder, kit::LogSink& log) override {
    return std::make_unique<host::SqliteStore>(host::SqliteStoreOptions{.place = {.folder = folder}}, log);
  }
};

double milliseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// In MiB, of a line of /proc/self/status.
double memory(std::string_view name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name))
      return std::strtod(line.c_str() + name.size() + 1, nullptr) / 1024;
  }
  return 0;
}

/// The peak is counted anew from here.
void forgetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

struct Turn {
  double wall = 0;
  double processor = 0;  ///< of the thread alone: what another program takes of the machine is not in it
};

Turn longer(const Turn& a, const Turn& b) {
  return {std::max(a.wall, b.wall), std::max(a.processor, b.processor)};
}

int run(int events, bool shuffled) {
  const Folder folder;
  simulation::VirtualMachineOptions machine_options;
  BenchMachine machine(machine_options);
  HostOptions options = simulation::simulatedApp();
  options.store_folder = folder.path();
  machine.transport.setDefaultAnswer(testing::Answer::error("down"));
  machine.transport.on(services::kTrackingPath).always(testing::Answer::json(kit::Dictionary{{"Result", true}}));
  const auto phone = machine.start(options);
  const auto properties = phone->properties();
  for (int i = 0; i < events; ++i) {
    if (shuffled)
      machine.loop.moveWallClock(i % 2 == 0 ? 1000 : -999);
    phone->addActivity("shop", "purchase", "item-" + std::to_string(i));
  }
  machine.loop.runUntilIdle();
  properties.setFendoUserInfo_fendoUserNo(1001);
  properties.setFendoUserInfo_referralKey(7);
  machine.loop.runUntilIdle();
  size_t batches = 0;
  machine.transport.setObserver(
      [&](const kit::Request& request) { batches += request.url.ends_with(services::kTrackingPath) ? 1U : 0U; });

  Turn longest;
  double building = 0;
  const double begun = milliseconds(CLOCK_MONOTONIC);
  phone->applicationDidBecomeActive();
  for (bool is_over = false; !is_over;) {
    const size_t batches_before = batches;
    forgetPeak();
    const double resident = memory("VmRSS:");
    const double wall = milliseconds(CLOCK_MONOTONIC);
    const double processor = milliseconds(CLOCK_THREAD_CPUTIME_ID);
    const bool has_run = machine.loop.step();
    const Turn turn{milliseconds(CLOCK_MONOTONIC) - wall, milliseconds(CLOCK_THREAD_CPUTIME_ID) - processor};
    longest = longer(longest, turn);
    if (batches > batches_before)
      building = std::max(building, memory("VmHWM:") - resident);
    if (std::getenv("MORVIK_BENCH_TURNS") != nullptr && turn.processor > 20)
      std::printf("turn %7.1f ms (%7.1f ms of the processor), batches %zu\n", turn.wall, turn.processor, batches);
    machine.transport.clearRequests();
    if (!has_run) {
      is_over = properties.fendoActivityInfos().size() < 20'000 || machine.loop.monotonicSeconds() > 3600;
      machine.loop.advance(1);
    }
  }
  const double took = milliseconds(CLOCK_MONOTONIC) - begun;
  const size_t left = properties.fendoActivityInfos().size();
  std::printf("%d events%s: %zu batches in %.1f s, %zu events left\n", events, shuffled ? ", shuffled" : "", batches,
              took / 1e3, left);
  std::printf("longest turn of the main queue: %.1f ms (%.1f ms of the processor)\n", longest.wall, longest.processor);
  std::printf("memory of building a batch: %.1f MiB at most\n", building);
  const bool holds = longest.processor <= kMaxTurnMilliseconds && building <= kMaxBuildingMebibytes && left < 20'000;
  std::printf("%s: turns of %.0f ms, %.0f MiB for building, all delivered in one session\n",
              holds ? "holds" : "DOES NOT HOLD", kMaxTurnMilliseconds, kMaxBuildingMebibytes);
  return holds ? 0 : 1;
}

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  const int events = argc > 1 ? std::atoi(argv[1]) : morvik::bench::kEvents;
  return morvik::bench::run(events, argc > 2 && std::strcmp(argv[2], "--shuffled") == 0);
}
