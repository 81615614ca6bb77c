// The cost of many devices: 1,000 for 30 days, three sessions and ten events a day, all their requests sealed, opened
// and counted, in virtual time; and the memory of one idle device.

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "simulation/fleet.h"
#include "simulation/virtual_service.h"

namespace morvik::bench {
namespace {

constexpr uint64_t kDevices = 1000;
constexpr uint64_t kDays = 30;
constexpr double kAimSeconds = 60;
constexpr int kIdleDevices = 200;

uint64_t residentBytes() {
  malloc_trim(0);
  uint64_t total_pages = 0;
  uint64_t resident_pages = 0;
  std::ifstream("/proc/self/statm") >> total_pages >> resident_pages;
  return resident_pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

/// Each has run for a day and now waits for its user.
double idleKibibytes() {
  simulation::VirtualService service([] { return kit::Date{}; }, 0);
  simulation::UsageTroubles troubles = simulation::UsageTroubles::none();
  const auto make = [&](int device) {
    auto life = std::make_unique<simulation::DeviceUsage>(
        simulation::UsageOptions{.seed = simulation::seedOfDevice(1, static_cast<uint64_t>(device)),
                                 .number = static_cast<uint64_t>(device),
                                 .troubles = troubles},
        *service);
    life->useOneDay();
    return life;
  };
  std::vector<std::unique_ptr<simulation::DeviceUsage>> lives;
  lives.reserve(kIdleDevices);
  make(kIdleDevices);  // what only the first one allocates is not a device's own
  const uint64_t before = residentBytes();
  for (int device = 0; device < kIdleDevices; ++device)
    lives.push_back(make(device));
  const uint64_t after = residentBytes();
  return static_cast<double>(after - before) / 1024.0 / kIdleDevices;
}

int run() {
  const double idle = idleKibibytes();
  std::printf("an idle device holds %.0f KiB (the service's notes of its events included)\n", idle);
  const auto began = std::chrono::steady_clock::now();
  const simulation::FleetResult result =
      simulation::runFleet({.devices = kDevices, .days = kDays, .seed = 1}, [](uint64_t done) {
        if (done % 3000 == 0)
          std::fprintf(stderr, "%llu of %llu device-days\n", static_cast<unsigned long long>(done),
                       static_cast<unsigned long long>(kDevices * kDays));
      });
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("%llu devices for %llu days: %.1f s, %.0f device-days a second, %llu requests\n",
              static_cast<unsigned long long>(kDevices), static_cast<unsigned long long>(kDays), took.count(),
              static_cast<double>(result.counts.days) / took.count(),
              static_cast<unsigned long long>(result.counts.requests));
  std::printf("account: %llu recorded = %llu delivered + %llu stored + %llu given up by rule, %llu lost: %s\n",
              static_cast<unsigned long long>(result.totals.recorded),
              static_cast<unsigned long long>(result.totals.delivered),
              static_cast<unsigned long long>(result.totals.stored),
              static_cast<unsigned long long>(result.totals.given_up_by_rule),
              static_cast<unsigned long long>(result.totals.lost), result.balances() ? "balances" : "DOES NOT BALANCE");
  std::printf("%s: at most %.0f s on two cores\n", took.count() <= kAimSeconds ? "met" : "MISSED", kAimSeconds);
  return result.balances() ? 0 : 1;
}

}  // namespace
}  // namespace morvik::bench

int main() {
  return morvik::bench::run();
}
