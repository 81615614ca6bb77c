// The readers of a scenario's parts. Everything throws Mistake.
#pragma once

#include <vector>

#include "apps/device/scenario/scenario.h"
#include "apps/device/scenario/yaml_tree.h"

namespace morvik_device::scenario {

/// The program's options that describe the device, by their names; null: all have their defaults.
Options readDevice(const YamlNode* node);
ServiceScript readService(const YamlNode& node);
std::vector<NetworkPhase> readNetwork(const YamlNode& node);
std::vector<Step> readSteps(const YamlNode& node);
/// One expectation, or a list of them.
std::vector<Expectation> readExpectations(const YamlNode& node);

}  // namespace morvik_device::scenario
