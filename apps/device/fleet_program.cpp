#include "apps/device/fleet_program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

#include "apps/device/fleet_text.h"
#include "apps/device/progress_bar.h"
#include "simulation/fleet.h"

namespace morvik_device {
namespace {

namespace simulation = morvik::simulation;
using morvik_command_line::kFormerGroup;
using morvik_command_line::takeInRange;

constexpr double kMostADay = 1000;

struct FleetArguments {
  simulation::FleetOptions fleet;
  bool untroubled = false;
  bool json = false;
};

void describeFleet(CLI::App& app, FleetArguments& written) {
  simulation::FleetOptions& fleet = written.fleet;
  fleet.workers = std::max(1U, std::thread::hardware_concurrency());
  CLI::Option* const devices = app.add_option("--devices", fleet.devices, "number of devices")->capture_default_str();
  CLI::Option* const former = app.add_option("--fleet", fleet.devices)->excludes(devices)->group(kFormerGroup);
  for (CLI::Option* option : {devices, former})
    takeInRange(option, uint64_t{1}, simulation::kMaxFleetDevices);
  takeInRange(app.add_option("--days", fleet.days, "days that each device is used"), uint64_t{1},
              simulation::kMaxFleetDays)
      ->capture_default_str();
  app.add_option("--seed", fleet.seed, "the same seed gives the same result")->capture_default_str();
  takeInRange(app.add_option("--sessions", fleet.sessions_a_day, "sessions per day, on average"), 0.1, kMostADay)
      ->capture_default_str();
  takeInRange(app.add_option("--events", fleet.events_a_day, "events per day, on average"), 0.0, kMostADay)
      ->capture_default_str();
  takeInRange(app.add_option("--workers", fleet.workers, "number of threads; does not change the result"), 1U, 256U)
      ->capture_default_str();
  app.add_flag("--untroubled", written.untroubled, "no offline phases, no faults, no killed processes");
  app.add_flag("--json", written.json, "prints the result as one line of JSON");
}

int simulateFleet(const FleetArguments& written, const Surroundings& surroundings) {
  const auto began = std::chrono::steady_clock::now();
  const uint64_t device_days = written.fleet.devices * written.fleet.days;
  simulation::FleetResult result;
  try {
    ProgressBar bar(surroundings.errors, surroundings.errors_are_terminal, "simulating");
    result = simulation::runFleet(written.fleet, [&](uint64_t done) { bar.show(done, device_days); });
  } catch (const std::exception& exception) {
    surroundings.errors << "morvik-device: " << exception.what() << std::endl;
    return 1;
  }
  const std::string text = written.json ? describeAsJson(written.fleet, result) : describe(written.fleet, result);
  const bool is_written = print(text, surroundings);
  // Not part of the result: the next run may take longer.
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::array<char, 96> speed{};
  std::snprintf(speed.data(), speed.size(), "took %.1f s: %.0f device-days per second", took.count(),
                static_cast<double>(result.counts.days) / took.count());
  surroundings.errors << speed.data() << std::endl;
  if (!is_written)
    return tellUnwritable(surroundings);
  return result.balances() ? 0 : 1;
}

}  // namespace

morvik_command_line::Subcommand fleetCommand(const Surroundings& surroundings) {
  return {"fleet", "Runs many devices against one service in virtual time and checks that nothing is lost.",
          [&surroundings](CLI::App& app) {
            const auto written = std::make_shared<FleetArguments>();
            describeFleet(app, *written);
            return [written, &surroundings] {
              if (written->untroubled)
                written->fleet.troubles = simulation::UsageTroubles::none();
              return simulateFleet(*written, surroundings);
            };
          }};
}

}  // namespace morvik_device
