#include "apps/device/fleet_program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>

#include "apps/device/grouped_number.h"
#include "apps/device/mode_arguments.h"
#include "apps/device/progress_bar.h"
#include "kit/value.h"
#include "services/json_writer.h"
#include "simulation/fleet.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
namespace simulation = morvik::simulation;

constexpr double kMostADay = 1000;

struct Written {
  simulation::FleetOptions fleet;
  bool untroubled = false;
  bool json = false;
};

void describe(CLI::App& app, Written& written) {
  simulation::FleetOptions& fleet = written.fleet;
  fleet.workers = std::max(1U, std::thread::hardware_concurrency());
  app.add_option("--fleet", fleet.devices, "devices")->check(CLI::Range(uint64_t{1}, simulation::kMaxFleetDevices));
  app.add_option("--days", fleet.days, "that each of them lives")
      ->check(CLI::Range(uint64_t{1}, simulation::kMaxFleetDays))
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

std::string counted(uint64_t number, const std::string& one, const std::string& many) {
  return grouped(number) + " " + (number == 1 ? one : many);
}

std::string describe(const simulation::FleetOptions& options, const simulation::FleetResult& result) {
  const auto& counts = result.counts;
  const auto& account = result.account;
  std::string text;
  text += "fleet      " + counted(options.devices, "device", "devices") + ", " + counted(options.days, "day", "days") +
          " each, seed " + std::to_string(options.seed) + "\n";
  text += "lived      " + counted(counts.days, "device-day", "device-days") + ", " +
          counted(counts.sessions, "session", "sessions") + ", " + counted(counts.requests, "request", "requests") +
          "\n";
  text += "troubles   " + counted(counts.deaths, "process died", "processes died") + ", " +
          counted(counts.offline_phases, "offline phase", "offline phases") + ", " +
          counted(counts.faults, "spoiled answer", "spoiled answers") + "\n";
  text += "service    " + counted(result.installs, "install", "installs") + " attributed, " +
          counted(account.arrived_again, "event", "events") + " arrived again, each counted once\n";
  text += "account    " + grouped(account.recorded) + " recorded = " + grouped(account.delivered) + " delivered + " +
          grouped(account.stored) + " still stored + " + grouped(account.given_up_by_rule) + " given up by rule\n";
  for (const std::string& each : result.losses)
    text += "LOST       " + each + "\n";
  text += result.balances() ? "balances\n" : "DOES NOT BALANCE: " + grouped(account.lost) + " lost\n";
  return text;
}

kit::Value number(uint64_t value) {
  return kit::Value(static_cast<int64_t>(value));
}

std::string describeAsJson(const simulation::FleetOptions& options, const simulation::FleetResult& result) {
  const auto& counts = result.counts;
  const auto& account = result.account;
  kit::MutableArray losses;
  for (const std::string& each : result.losses)
    losses.append(each);
  const kit::Value line = kit::Dictionary{{"devices", number(options.devices)},
                                          {"days", number(options.days)},
                                          {"seed", std::to_string(options.seed)},
                                          {"device_days", number(counts.days)},
                                          {"sessions", number(counts.sessions)},
                                          {"requests", number(counts.requests)},
                                          {"deaths", number(counts.deaths)},
                                          {"offline_phases", number(counts.offline_phases)},
                                          {"spoiled_answers", number(counts.faults)},
                                          {"installs", number(result.installs)},
                                          {"recorded", number(account.recorded)},
                                          {"delivered", number(account.delivered)},
                                          {"stored", number(account.stored)},
                                          {"given_up_by_rule", number(account.given_up_by_rule)},
                                          {"lost", number(account.lost)},
                                          {"arrived_again", number(account.arrived_again)},
                                          {"losses", kit::Value(std::move(losses))},
                                          {"balances", result.balances()}};
  std::string text;
  morvik::services::appendJsonDescription(line, text);
  return text + "\n";
}

int live(const Written& written, const Surroundings& surroundings) {
  const auto began = std::chrono::steady_clock::now();
  const uint64_t device_days = written.fleet.devices * written.fleet.days;
  simulation::FleetResult result;
  {
    ProgressBar bar(surroundings.errors, surroundings.errors_are_terminal, "living");
    result = simulation::liveFleet(written.fleet, [&](uint64_t done) { bar.show(done, device_days); });
  }
  const std::string text = written.json ? describeAsJson(written.fleet, result) : describe(written.fleet, result);
  const bool is_written = std::fputs(text.c_str(), surroundings.output) >= 0 && std::fflush(surroundings.output) == 0;
  // Not part of the result: the same lives may take longer next time.
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::array<char, 96> speed{};
  std::snprintf(speed.data(), speed.size(), "took %.1f s: %.0f device-days a second", took.count(),
                static_cast<double>(result.counts.days) / took.count());
  surroundings.errors << speed.data() << std::endl;
  return result.balances() && is_written ? 0 : 1;
}

}  // namespace

int runFleet(std::vector<std::string> arguments, const Surroundings& surroundings) {
  Written written;
  CLI::App app("Many devices live against one service in this process, and their account is balanced.",
               "morvik-device --fleet");
  describe(app, written);
  if (const auto status = readModeArguments(app, std::move(arguments), "morvik-device --fleet 1 --help", surroundings))
    return *status;
  if (written.untroubled)
    written.fleet.troubles = simulation::LifeTroubles::none();
  return live(written, surroundings);
}

}  // namespace morvik_device
