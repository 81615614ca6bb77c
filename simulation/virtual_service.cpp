#include "simulation/virtual_service.h"

#include <utility>

#include "simulation/virtual_machine.h"

namespace morvik::simulation {
namespace {

testing::ServiceKeys keysOfSimulatedApp() {
  const StartOptions app = simulatedApp();
  return {app.app_key.text(), app.hash_key.text(), app.tracking_key.text()};
}

}  // namespace

VirtualService::VirtualService(std::function<kit::Date()> now, size_t max_remembered)
    : service_({cipher_, compressor_, no_random_}, keysOfSimulatedApp(), std::move(now), max_remembered) {}

}  // namespace morvik::simulation
