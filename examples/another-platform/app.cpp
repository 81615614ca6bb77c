// An app on the platform. It records an event offline; a later process delivers it.

#include <morvik/morvik.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "memory_machine.h"
#include "runtime/start.h"
#include "testing/fake_crypto.h"
#include "testing/json_reader.h"
#include "testing/simulated_service.h"

namespace {

namespace testing = morvik::testing;
using std::chrono::seconds;

void expect(bool holds, const char* what) {
  if (holds)
    return;
  std::cerr << "failed: " << what << '\n';
  std::exit(1);
}

/// The service that receives the events.
class Service {
 public:
  explicit Service(const platform::DeviceTime& time)
      : service_({cipher_, compressor_, random_}, {"app", "hash", "tracking"}, [&time] { return time.now; }) {}

  morvik::kit::Response answer(const morvik::kit::Request& request) {
    const testing::UsualAnswer usual = service_.usualAnswer(service_.receive(request));
    return {usual.status, request.url, std::get<std::string>(testing::PlainJsonCodec().write(usual.json))};
  }
  size_t purchases() const {
    size_t count = 0;
    for (const auto& event : service_.events())
      count += event["activity"].string() == "purchase" ? 1 : 0;
    return count;
  }

 private:
  const testing::FakeCipher cipher_;
  const testing::FakeCompressor compressor_;
  testing::SeededRandom random_{2};
  testing::SimulatedService service_;
};

/// A process of the app.
std::unique_ptr<morvik::MorvikCore> start(platform::Device& device) {
  morvik::StartOptions options;
  options.store_folder = "shop";
  options.app_key = "app";
  options.hash_key = "hash";
  options.tracking_key = "tracking";
  options.service_url = "https://service.example/";
  options.main_queue = morvik::MainQueueMode::kPumped;
  morvik::StartResult started = morvik::runtime::start(options, std::make_unique<platform::MemoryMachine>(device));
  if (!started)
    std::cerr << started.error << '\n';
  expect(bool(started), "the kit starts");
  return std::move(started.core);
}

/// The app's loop: time passes until the next timer, then everything that is due runs.
void live(platform::Device& device, morvik::MorvikCore& kit, seconds duration) {
  const auto end = device.time.uptime + duration;
  while (device.time.uptime < end) {
    const std::chrono::microseconds left = end - device.time.uptime;
    const int timeout = kit.pollTimeoutMilliseconds();
    device.time.pass(timeout < 0 ? left
                                 : std::min<std::chrono::microseconds>(left, std::chrono::milliseconds(timeout)));
    kit.dispatch();
  }
}

}  // namespace

int main() {
  platform::Device device;
  Service service(device.time);

  auto kit = start(device);
  kit->applicationDidBecomeActive();
  kit->addActivity("shop", "purchase", "sku-42");
  live(device, *kit, seconds(60));
  expect(kit->ledger().balances(), "the ledger balances");
  kit.reset();  // the process ends
  expect(service.purchases() == 0, "nothing is delivered without a network");

  device.service = [&service](const morvik::kit::Request& request) { return service.answer(request); };
  kit = start(device);
  kit->applicationDidBecomeActive();
  const morvik::FlushResult result = kit->waitUntilDelivered(seconds(60));
  expect(result.is_delivered, "what was kept is delivered");
  expect(service.purchases() == 1, "it is delivered once");
  kit->applicationDidEnterBackground();
  live(device, *kit, seconds(60));
  kit.reset();
  expect(service.purchases() == 1, "and never again");
  std::cout << "the platform works\n";
}
