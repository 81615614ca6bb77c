// Any bytes as a scenario file: it is read, or refused with a position in the file.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "apps/device/scenario/scenario_reader.h"
#include "apps/device/scenario/yaml_tree.h"
#include "fuzz/checks.h"

namespace {

using morvik::fuzz::require;
using morvik_device::scenario::Scenario;

constexpr std::string_view kFile = "story.yaml";

size_t numberBehind(const std::string& text, size_t& at) {
  require(at < text.size() && text[at] == ':', "a mistake without a place");
  size_t digits = 0;
  size_t number = 0;
  for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at, ++digits)
    number = number * 10 + static_cast<size_t>(text[at] - '0');
  require(digits > 0 && number > 0, "a mistake whose place is no number from 1 on");
  return number;
}

void checkMistake(const std::string& mistake, std::string_view content) {
  require(mistake.compare(0, kFile.size(), kFile) == 0, "a mistake that does not name the file");
  size_t at = kFile.size();
  // A file has one line more than line ends.
  require(numberBehind(mistake, at) <= content.size() + 2, "a mistake behind the end of the file");
  numberBehind(mistake, at);
  require(mistake.compare(at, 2, ": ") == 0 && mistake.size() > at + 2, "a mistake that does not say what is wrong");
}

void checkScenario(const Scenario& scenario) {
  int64_t last = 0;
  for (const auto& step : scenario.steps) {
    require(step.at_milliseconds >= last && step.repeat > 0, "a step before the one above it");
    last = step.lastMillisecond();
  }
  require(scenario.lastMillisecond() >= last, "a story that ends before its last step");
  last = 0;
  for (const auto& phase : scenario.network) {
    require(phase.from_milliseconds >= last && phase.to_milliseconds > phase.from_milliseconds, "phases that overlap");
    last = phase.to_milliseconds;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const auto read = morvik_device::scenario::readScenario(content, std::string(kFile));
  if (const auto* mistake = std::get_if<std::string>(&read))
    checkMistake(*mistake, content);
  else
    checkScenario(std::get<Scenario>(read));
  return 0;
}
