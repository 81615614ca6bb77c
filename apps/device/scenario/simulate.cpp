#include "apps/device/scenario/simulate.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

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
  const CLI::Option* const file =
      app.add_option("FILE", written.file, "the scenario; docs/scenarios.md explains the format")->type_name("");
  const CLI::Option* const former =
      app.add_option("--simulate", written.file)->group(morvik_command_line::kFormerGroup);
  app.add_option("--seed", written.seed, "for everything left to chance; the same seed gives the same output")
      ->capture_default_str();
  app.add_flag("--json", written.json, "prints the timeline as JSON, one object per line");
  app.callback([&written, file, former] {
    if (*file && *former)
      throw morvik_command_line::UsageError("FILE excludes --simulate; name one scenario");
    if (written.file.empty())
      throw morvik_command_line::UsageError("FILE is required; name the scenario to play");
  });
}

TimelineForm formFor(const Written& written, const Surroundings& surroundings) {
  if (written.json)
    return TimelineForm::kJson;
  return wantsColours(surroundings) ? TimelineForm::kColoured : TimelineForm::kPlain;
}

/// Reads at most one byte more than a scenario may have; the reader then refuses it.
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
    surroundings.errors << "morvik-device: the scenario could not be played: " << error.what() << " (seed "
                        << written.seed << ")" << std::endl;
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

morvik_command_line::Subcommand simulateCommand(const Surroundings& surroundings) {
  return {"simulate", "Plays a scenario of one device in virtual time and checks what it expects.",
          [&surroundings](CLI::App& app) {
            const auto written = std::make_shared<Written>();
            describe(app, *written);
            return [written, &surroundings] { return playFile(*written, surroundings); };
          }};
}

}  // namespace morvik_device::scenario
