#include "apps/device/scenario/scenario_reader.h"

#include "apps/device/scenario/fields.h"
#include "apps/device/scenario/scenario_parts.h"
#include "services/dates.h"

namespace morvik_device::scenario {
namespace {

constexpr int kMostLogLevel = 6;

morvik::kit::Date startOf(const YamlNode& node) {
  const std::string text = textOf(node, "start");
  const auto date = morvik::services::dateFromIso8601(text);
  if (!date)
    throw Mistake(node.place, "start is \"" + text + "\"; expected a date like 2024-03-01T09:00:00Z");
  return *date;
}

void checkEnd(const Scenario& scenario, Place place) {
  if (!scenario.steps.empty() && scenario.steps.back().lastMillisecond() > *scenario.end_milliseconds) {
    throw Mistake(place, "end is " + durationText(*scenario.end_milliseconds) + ", before the last step; expected " +
                             durationText(scenario.steps.back().lastMillisecond()) + " or later");
  }
}

void needExpectations(const Scenario& scenario, Place place) {
  size_t count = scenario.expectations.size();
  for (const Step& step : scenario.steps)
    count += step.expectations.size();
  if (count == 0)
    throw Mistake(place, "the scenario expects nothing, so it could not fail; expected at least one under \"expect\"");
  if (count > kMaxExpectations) {
    throw Mistake(place, std::to_string(count) + " expectations; expected at most " + std::to_string(kMaxExpectations));
  }
}

Scenario scenarioOf(const YamlNode& root) {
  const Fields fields(root, "a scenario",
                      {"story", "start", "end", "show-log", "device", "service", "network", "steps", "expect"});
  Scenario scenario;
  const YamlNode* story = fields.find("story");
  if (story == nullptr)
    throw Mistake(root.place, "the scenario has no \"story\"; expected one line that tells it");
  scenario.story = textOf(*story, "story");
  const YamlNode* start = fields.find("start");
  scenario.start = start == nullptr ? kDefaultStart : startOf(*start);
  if (const YamlNode* level = fields.find("show-log"))
    scenario.shown_log_level = static_cast<int>(wholeNumberOf(*level, "show-log", 0, kMostLogLevel));
  scenario.device = readDevice(fields.find("device"));
  if (const YamlNode* service = fields.find("service"))
    scenario.service = readService(*service);
  if (const YamlNode* network = fields.find("network"))
    scenario.network = readNetwork(*network);
  const YamlNode* steps = fields.find("steps");
  if (steps == nullptr)
    throw Mistake(root.place, "the scenario has no \"steps\"; expected a list of what happens");
  scenario.steps = readSteps(*steps);
  if (const YamlNode* expect = fields.find("expect"))
    scenario.expectations = readExpectations(*expect);
  if (const YamlNode* end = fields.find("end")) {
    scenario.end_milliseconds = timeOf(*end, "end");
    checkEnd(scenario, end->place);
  }
  needExpectations(scenario, root.place);
  return scenario;
}

}  // namespace

std::variant<Scenario, std::string> readScenario(std::string_view text, const std::string& file) {
  try {
    return scenarioOf(readYaml(text));
  } catch (const Mistake& mistake) {
    return located(file, mistake.place(), mistake.what());
  }
}

}  // namespace morvik_device::scenario
