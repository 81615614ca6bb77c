#include "apps/device/fleet_text.h"

#include "apps/device/grouped_number.h"
#include "kit/value.h"
#include "services/json_writer.h"

namespace morvik_device {
namespace {

namespace kit = morvik::kit;
namespace simulation = morvik::simulation;

std::string counted(uint64_t number, const std::string& one, const std::string& many) {
  return grouped(number) + " " + (number == 1 ? one : many);
}

kit::Value number(uint64_t value) {
  return kit::Value(static_cast<int64_t>(value));
}

}  // namespace

std::string describe(const simulation::FleetOptions& options, const simulation::FleetResult& result) {
  const auto& counts = result.counts;
  const auto& totals = result.totals;
  std::string text;
  text += "fleet      " + counted(options.devices, "device", "devices") + ", " + counted(options.days, "day", "days") +
          " each, seed " + std::to_string(options.seed) + "\n";
  text += "simulated  " + counted(counts.days, "device-day", "device-days") + ", " +
          counted(counts.sessions, "session", "sessions") + ", " + counted(counts.requests, "request", "requests") +
          "\n";
  text += "faults     " + counted(counts.deaths, "process died", "processes died") + ", " +
          counted(counts.offline_phases, "offline phase", "offline phases") + ", " +
          counted(counts.faults, "spoiled answer", "spoiled answers") + "\n";
  text += "service    " + counted(result.installs, "install", "installs") + " attributed, " +
          counted(totals.arrived_again, "event", "events") + " arrived more than once and counted once\n";
  text += "account    " + grouped(totals.recorded) + " recorded = " + grouped(totals.delivered) + " delivered + " +
          grouped(totals.stored) + " still stored + " + grouped(totals.given_up_by_rule) + " given up by rule\n";
  for (const std::string& each : result.losses)
    text += "LOST       " + each + "\n";
  if (totals.ledger_faults > 0)
    text += "LEDGERS    wrong " + counted(totals.ledger_faults, "time", "times") + "\n";
  text += result.balances() ? "balances\n" : "DOES NOT BALANCE: " + grouped(totals.lost) + " lost\n";
  return text;
}

std::string describeAsJson(const simulation::FleetOptions& options, const simulation::FleetResult& result) {
  const auto& counts = result.counts;
  const auto& totals = result.totals;
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
                                          {"recorded", number(totals.recorded)},
                                          {"delivered", number(totals.delivered)},
                                          {"stored", number(totals.stored)},
                                          {"given_up_by_rule", number(totals.given_up_by_rule)},
                                          {"lost", number(totals.lost)},
                                          {"arrived_again", number(totals.arrived_again)},
                                          {"ledger_faults", number(totals.ledger_faults)},
                                          {"losses", kit::Value(std::move(losses))},
                                          {"balances", result.balances()}};
  std::string text;
  morvik::services::appendJsonDescription(line, text);
  return text + "\n";
}

}  // namespace morvik_device
