// An app's test that simulates a device in virtual time.

#include <iostream>

#include "simulation/test_device.h"

int main() {
  morvik::simulation::TestDevice device;
  device.open();
  device.kit().addActivity("shop", "purchase", "sku-42");
  device.leave();
  if (device.delivered("shop", "purchase") != 1)
    return 1;
  std::cout << "the simulation works\n";
  return 0;
}
