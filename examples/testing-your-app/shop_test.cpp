// Tests of the shop. Each has its own device; no clock, no network, no file.

#include "shop.h"

#include <chrono>
#include <iostream>
#include <memory>

#include "simulation/test_device.h"

namespace {

using morvik::simulation::TestDevice;
using morvik::simulation::TestDeviceOptions;
using morvik::testing::Answer;

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds)
    return;
  std::cerr << "failed: " << what << '\n';
  ++failures;
}

void whatIsBoughtArrivesOnce() {
  TestDevice device;
  Shop shop(device.kit());
  device.open();
  shop.put("sku-42");
  expect(shop.buy(), "a full basket is bought");
  expect(!shop.buy(), "an empty one is not");
  device.leave();
  expect(device.delivered("shop", "purchase") == 1, "the purchase arrived");
}

void threeDaysWithoutANetworkLoseNothing() {
  TestDevice device;
  Shop shop(device.kit());
  device.open();
  device.leave();
  device.goOffline();
  for (int day = 0; day < 3; ++day) {
    device.advance(std::chrono::hours(24));
    device.open();
    shop.look("sku-42");
    device.leave();
  }
  expect(device.waiting("shop", "look") == 3, "what happened offline is kept");
  device.goOnline();
  device.advance(std::chrono::minutes(5));
  device.open();
  device.leave();
  expect(device.delivered("shop", "look") == 3, "and arrives when the network is back");
}

void aNewCustomerLandsWhereTheLinkLed() {
  // Each process of the app has its own shop, as it has its own kit.
  std::unique_ptr<Shop> shop;
  TestDeviceOptions options;
  options.at_start = [&shop](morvik::MorvikCore& kit) { shop = std::make_unique<Shop>(kit); };
  TestDevice device(options);
  device.service().setAttribution(morvik::kit::Dictionary{{"deeplink", "shop://article/sku-42"}});
  device.network().on("v1/conversion").then(Answer::body(503, "out of order"));
  device.open();
  expect(shop->landing().empty(), "nobody knows of the link yet");
  device.kill();
  device.restart();
  device.open();
  expect(shop->landing() == "shop://article/sku-42", "the next process learns of it");
}

}  // namespace

int main() {
  whatIsBoughtArrivesOnce();
  threeDaysWithoutANetworkLoseNothing();
  aNewCustomerLandsWhereTheLinkLed();
  if (failures == 0)
    std::cout << "the shop works\n";
  return failures == 0 ? 0 : 1;
}
