#include "simulation/fleet.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>

#include "simulation/virtual_service.h"
#include "simulation/workers.h"

namespace morvik::simulation {
namespace {

/// The device that this thread simulates now: the service's clock shows its time.
thread_local const DeviceUsage* living = nullptr;

class Fleet {
 public:
  Fleet(const FleetOptions& options, const std::function<void(uint64_t)>& progress)
      : options_(options), progress_(progress), losses_(options.devices) {}

  FleetResult live() {
    const auto count = std::min<uint64_t>(std::max(options_.workers, 1U), std::max<uint64_t>(options_.devices, 1));
    runOnThreads(static_cast<unsigned>(count), [this] { work(); });
    return result();
  }

 private:
  void work() {
    try {
      for (uint64_t device = next_++; device < options_.devices; device = next_++)
        callFor("device " + std::to_string(device) + " " + seedInBrackets(device),
                [this, device] { liveDevice(device); });
    } catch (...) {
      living = nullptr;
      next_ = options_.devices;
      throw;
    }
  }

  void liveDevice(uint64_t device) {
    DeviceUsage life({.seed = seedOfDevice(options_.seed, device),
                      .number = device,
                      .sessions_a_day = options_.sessions_a_day,
                      .events_a_day = options_.events_a_day,
                      .troubles = options_.troubles},
                     *service_);
    living = &life;
    for (uint64_t day = 0; day < options_.days; ++day) {
      life.useOneDay();
      const std::scoped_lock hold(mutex_);
      if (progress_)
        progress_(++device_days_);
    }
    life.playHealthyEnd();
    living = nullptr;
    take(device, life);
  }

  std::string seedInBrackets(uint64_t device) const {
    return "(seed " + std::to_string(seedOfDevice(options_.seed, device)) + ")";
  }

  void take(uint64_t device, const DeviceUsage& life) {
    std::vector<std::string> lost = life.lostEvents(kMaxNamedLosses);
    for (std::string& each : lost)
      each += " " + seedInBrackets(device);
    const std::scoped_lock hold(mutex_);
    total_.totals += life.totals();
    total_.counts += life.counts();
    losses_[device] = std::move(lost);
  }

  FleetResult result() {
    for (const auto& of_device : losses_)
      total_.losses.insert(total_.losses.end(), of_device.begin(), of_device.end());
    if (total_.losses.size() > kMaxNamedLosses)
      total_.losses.resize(kMaxNamedLosses);
    total_.installs = service_->installs();
    return std::move(total_);
  }

  const FleetOptions options_;
  const std::function<void(uint64_t)>& progress_;
  VirtualService service_{[] { return living == nullptr ? kit::Date{} : living->trueTime(); }, 0};
  std::atomic<uint64_t> next_{0};

  std::mutex mutex_;
  uint64_t device_days_ = 0;
  FleetResult total_;
  std::vector<std::vector<std::string>> losses_;  ///< by device
};

}  // namespace

FleetResult runFleet(const FleetOptions& options, const std::function<void(uint64_t device_days)>& progress) {
  return Fleet(options, progress).live();
}

uint64_t seedOfDevice(uint64_t fleet_seed, uint64_t device) {
  return Dice(fleet_seed ^ (device * 0x9e3779b97f4a7c15U)).next();
}

}  // namespace morvik::simulation
