// Many devices against one service, in one process.
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
/// So many of the lost events are named.
inline constexpr size_t kMaxNamedLosses = 10;

struct FleetOptions {
  uint64_t devices = 100;
  uint64_t days = 7;
  uint64_t seed = 1;
  /// Threads; each lives one device after the other.
  unsigned workers = 2;
  double sessions_a_day = 3;
  double events_a_day = 10;
  UsageTroubles troubles;
};

/// The same for the same options, but for `workers`, whose number changes nothing.
struct FleetResult {
  UsageTotals totals;
  UsageCounts counts;
  uint64_t installs = 0;            ///< that the service attributed
  std::vector<std::string> losses;  ///< the first lost events, by device, each with the seed of its device

  bool balances() const { return totals.balances(); }
};

/// Lives all devices to their end. `progress` is told, on any thread, one call at a time, how many device-days are
/// lived. Blocks until all are done. What a life throws is thrown once the others
/// have ended, as a std::runtime_error that names the device and its seed.
FleetResult runFleet(const FleetOptions& options, const std::function<void(uint64_t device_days)>& progress = {});

/// The seed of one device of a fleet.
uint64_t seedOfDevice(uint64_t fleet_seed, uint64_t device);

}  // namespace morvik::simulation
