#include "apps/device/inspect_program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <limits>
#include <optional>

#include "apps/device/inspection.h"
#include "apps/device/inspection_text.h"
#include "apps/device/mode_arguments.h"
#include "apps/device/options.h"

namespace morvik_device {
namespace {

struct InspectWords {
  std::string folder;
  size_t newest = kShownOfAList;
  bool all = false;
  bool json = false;
};

void describe(CLI::App& app, InspectWords& written) {
  app.add_option("STORE_DIR", written.folder, "folder of the store, as given to --store")->required();
  app.add_option("--newest", written.newest, "entries that are shown of each list")->capture_default_str();
  app.add_flag("--all", written.all, "every entry of each list, and long texts to their end");
  app.add_flag("--json", written.json, "one line of JSON, by the names under which everything is stored");
  app.footer("The store may be in use: what is shown is its latest commit. No lock is taken and no file changed.");
}

int refuseInspection(const std::string& problem, const Surroundings& surroundings) {
  surroundings.errors << "morvik-device: " << problem << std::endl;
  return kExitUsage;
}

int show(const InspectWords& written, const Surroundings& surroundings) {
  Inspection inspection;
  const size_t newest = written.all ? std::numeric_limits<size_t>::max() : written.newest;
  if (const auto problem = inspect(written.folder, newest, inspection))
    return refuseInspection(*problem, surroundings);
  const TextStyle style{.is_coloured = wantsColours(surroundings), .cuts_long_text = !written.all};
  const std::string text = written.json ? describeAsJson(inspection) : describe(inspection, style);
  const bool is_written = std::fwrite(text.data(), 1, text.size(), surroundings.output) == text.size() &&
                          std::fflush(surroundings.output) == 0;
  return is_written ? 0 : tellUnwritable(surroundings);
}

}  // namespace

int runInspect(std::vector<std::string> arguments, const Surroundings& surroundings) {
  InspectWords written;
  CLI::App app("What waits in a store, decoded.", "morvik-device inspect");
  describe(app, written);
  arguments.erase(arguments.begin());  // the word itself
  if (const auto status = readModeArguments(app, std::move(arguments), "morvik-device inspect --help", surroundings))
    return *status;
  return show(written, surroundings);
}

}  // namespace morvik_device
