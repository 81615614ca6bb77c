// Many devices with one service, in one process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "simulation/device_usage.h"

namespace morvik::simulation {

inline constexpr uint64_t kMaxFleetDevices = 1'000'000;
inline constexpr uint64_t kMaxFleetDays = 3'650;
/// Limit for lost events that are named.
inline constexpr size_t kMaxNamedLosses = 10;

struct FleetOptions {
  uint64_t devices = 100;
  uint64_t days = 7;
  uint64_t seed = 1;
  /// threads; each simulates one device after the other
  unsigned workers = 2;
  double sessions_a_day = 3;
  double events_a_day = 10;
  UsageTroubles troubles;
};

/// The same for the same options, whatever the number of workers.
struct FleetResult {
  UsageTotals totals;
  UsageCounts counts;
  uint64_t installs = 0;            ///< attributed by the service
  std::vector<std::string> losses;  ///< the first lost events, by device, each with its device's seed

  bool balances() const { return totals.balances(); }
};

/// Runs all devices to their end. `progress` gets the number of device-days done, on any thread, one call at a time.
/// Blocks until all are done. If a device throws, a std::runtime_error that names the device and its seed is thrown
/// once the others have ended.
FleetResult runFleet(const FleetOptions& options, const std::function<void(uint64_t device_days)>& progress = {});

/// The seed of one device of a fleet.
uint64_t seedOfDevice(uint64_t fleet_seed, uint64_t device);

}  // namespace morvik::simulation
