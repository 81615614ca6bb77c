#include "apps/device/inspect_program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>

#include "apps/device/explanation_fields.h"
#include "apps/device/inspection.h"
#include "apps/device/inspection_text.h"
#include "apps/device/options.h"
#include "services/json_writer.h"

namespace morvik_device {
namespace {

struct InspectArguments {
  std::string folder;
  size_t newest = kShownOfAList;
  bool all = false;
  bool json = false;
  std::optional<std::string> event_id;  ///< only what became of this event
};

void describe(CLI::App& app, InspectArguments& written) {
  app.add_option("STORE_DIR", written.folder, "folder of the store, as given to --store")->required()->type_name("");
  app.add_option("--newest", written.newest, "number of entries shown of each list")->capture_default_str();
  app.add_flag("--all", written.all, "shows every entry of each list, and long texts in full");
  app.add_option("--explain", written.event_id, "prints only what became of the event with this id")->type_name("ID");
  app.add_flag("--json", written.json, "prints one line of JSON, with the names under which everything is stored");
  app.footer("The store may be in use: its latest commit is shown. No lock is taken and no file changed.");
}

int refuseInspection(const std::string& problem, const Surroundings& surroundings) {
  surroundings.errors << "morvik-device: " << problem << std::endl;
  return kExitUsage;
}

int explain(const InspectArguments& written, const Surroundings& surroundings) {
  morvik::Explanation explanation;
  if (const auto problem = explainStored(written.folder, *written.event_id, explanation))
    return refuseInspection(*problem, surroundings);
  const std::string text = written.json ? morvik::services::jsonDescription(morvik::kit::Value(fieldsOf(explanation)))
                                        : explanation.sentence;
  return print(text + "\n", surroundings) ? 0 : tellUnwritable(surroundings);
}

int show(const InspectArguments& written, const Surroundings& surroundings) {
  if (written.event_id)
    return explain(written, surroundings);
  Inspection inspection;
  const size_t newest = written.all ? std::numeric_limits<size_t>::max() : written.newest;
  if (const auto problem = inspect(written.folder, newest, inspection))
    return refuseInspection(*problem, surroundings);
  const TextStyle style{.is_coloured = wantsColours(surroundings), .cuts_long_text = !written.all};
  const std::string text = written.json ? describeAsJson(inspection) : describe(inspection, style);
  return print(text, surroundings) ? 0 : tellUnwritable(surroundings);
}

}  // namespace

morvik_command_line::Subcommand inspectCommand(const Surroundings& surroundings) {
  return {"inspect", "Shows what is pending in a store, decoded.", [&surroundings](CLI::App& app) {
            const auto written = std::make_shared<InspectArguments>();
            describe(app, *written);
            return [written, &surroundings] { return show(*written, surroundings); };
          }};
}

}  // namespace morvik_device
