#include "apps/device/scenario/simulate.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <fstream>
#include <optional>
#include <utility>
#include <variant>

#include "apps/device/mode_arguments.h"
#include "apps/device/options.h"
#include "apps/device/progress_bar.h"
#include "apps/device/scenario/player.h"
#include "apps/device/scenario/scenario_reader.h"
#include "apps/device/scenario/yaml_tree.h"
#include "apps/device/visible.h"

namespace morvik_device::scenario {
namespace {

struct Written {
  std::string file;
  uint64_t seed = 1;
  bool json = false;
};

void describe(CLI::App& app, Written& written) {
  app.add_option("--simulate", written.file, "the scenario to play; docs/scenarios.md tells how one is written");
  app.add_option("--seed", written.seed, "of all that it leaves to chance; the same seed gives the same bytes")
      ->capture_default_str();
  app.add_flag("--json", written.json, "the timeline as JSON, one object a line");
}

TimelineForm formFor(const Written& written, const Surroundings& surroundings) {
  if (written.json)
    return TimelineForm::kJson;
  return wantsColours(surroundings) ? TimelineForm::kColoured : TimelineForm::kPlain;
}

/// At most one byte more than a scenario may have: its reader then refuses it.
std::optional<std::string> contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    return std::nullopt;
  std::string text(kMaxScenarioBytes + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad())
    return std::nullopt;
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

int refuse(const std::string& line, const Surroundings& surroundings) {
  surroundings.errors << visible(line) << std::endl;
  return kExitUsage;
}

int play(const Scenario& scenario, const Written& written, const Surroundings& surroundings) {
  Timeline timeline(surroundings.output, formFor(written, surroundings), written.file, written.seed);
  bool met = false;
  try {
    ProgressBar progress(surroundings.errors, surroundings.errors_are_terminal, "playing");
    met = Player(scenario, written.seed, timeline, progress).play();
  } catch (const std::exception& error) {
    surroundings.errors << "morvik-device: the story could not be played: " << error.what() << " (seed " << written.seed
                        << ")" << std::endl;
  }
  if (std::fflush(surroundings.output) == 0 && !timeline.failed())
    return met ? 0 : kExitNotMet;
  return tellUnwritable(surroundings);
}

int playFile(const Written& written, const Surroundings& surroundings) {
  const auto text = contentOf(written.file);
  if (!text)
    return refuse("morvik-device: cannot read " + written.file + "; name a scenario that can be read", surroundings);
  const auto read = readScenario(*text, written.file);
  if (const auto* mistake = std::get_if<std::string>(&read))
    return refuse(*mistake, surroundings);
  return play(std::get<Scenario>(read), written, surroundings);
}

}  // namespace

int runSimulation(std::vector<std::string> arguments, const Surroundings& surroundings) {
  Written written;
  CLI::App app("A story of one device is played in virtual time, told line by line, and held against what it expects.",
               "morvik-device --simulate");
  describe(app, written);
  if (const auto status =
          readModeArguments(app, std::move(arguments), "morvik-device --simulate FILE --help", surroundings))
    return *status;
  return playFile(written, surroundings);
}

}  // namespace morvik_device::scenario
