#include "apps/device/fleet_program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

#include "apps/device/fleet_text.h"
#include "apps/device/mode_arguments.h"
#include "apps/device/progress_bar.h"
#include "simulation/fleet.h"

namespace morvik_device {
namespace {

namespace lives = morvik::simulation;

constexpr double kMostADay = 1000;

struct FleetWords {
  lives::FleetOptions fleet;
  bool untroubled = false;
  bool json = false;
};

void describeOptions(CLI::App& app, FleetWords& written) {
  lives::FleetOptions& fleet = written.fleet;
  fleet.workers = std::max(1U, std::thread::hardware_concurrency());
  app.add_option("--fleet", fleet.devices, "devices")->check(CLI::Range(uint64_t{1}, lives::kMaxFleetDevices));
  app.add_option("--days", fleet.days, "that each of them lives")
      ->check(CLI::Range(uint64_t{1}, lives::kMaxFleetDays))
      ->capture_default_str();
  app.add_option("--seed", fleet.seed, "the same seed lives the same lives")->capture_default_str();
  app.add_option("--sessions", fleet.sessions_a_day, "a day, on average")
      ->check(CLI::Range(0.1, kMostADay))
      ->capture_default_str();
  app.add_option("--events", fleet.events_a_day, "a day, on average")
      ->check(CLI::Range(0.0, kMostADay))
      ->capture_default_str();
  app.add_option("--workers", fleet.workers, "threads; their number changes no result")
      ->check(CLI::Range(1U, 256U))
      ->capture_default_str();
  app.add_flag("--untroubled", written.untroubled, "no offline phases, no faults, no deaths");
  app.add_flag("--json", written.json, "the result as one line of JSON");
}

int live(const FleetWords& written, const Surroundings& surroundings) {
  const auto began = std::chrono::steady_clock::now();
  const uint64_t device_days = written.fleet.devices * written.fleet.days;
  lives::FleetResult result;
  try {
    ProgressBar bar(surroundings.errors, surroundings.errors_are_terminal, "living");
    result = lives::runFleet(written.fleet, [&](uint64_t done) { bar.show(done, device_days); });
  } catch (const std::exception& exception) {
    surroundings.errors << "morvik-device: " << exception.what() << std::endl;
    return 1;
  }
  const std::string text = written.json ? describeAsJson(written.fleet, result) : describe(written.fleet, result);
  const bool is_written = std::fputs(text.c_str(), surroundings.output) >= 0 && std::fflush(surroundings.output) == 0;
  // Not part of the result: the same lives may take longer next time.
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::array<char, 96> speed{};
  std::snprintf(speed.data(), speed.size(), "took %.1f s: %.0f device-days a second", took.count(),
                static_cast<double>(result.counts.days) / took.count());
  surroundings.errors << speed.data() << std::endl;
  if (!is_written)
    return tellUnwritable(surroundings);
  return result.balances() ? 0 : 1;
}

}  // namespace

int runFleet(std::vector<std::string> arguments, const Surroundings& surroundings) {
  FleetWords written;
  CLI::App app("Many devices live against one service in this process, and their account is balanced.",
               "morvik-device --fleet");
  describeOptions(app, written);
  if (const auto status = readModeArguments(app, std::move(arguments), "morvik-device --fleet 1 --help", surroundings))
    return *status;
  if (written.untroubled)
    written.fleet.troubles = lives::UsageTroubles::none();
  return live(written, surroundings);
}

}  // namespace morvik_device
