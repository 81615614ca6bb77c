#include "apps/device/verbs_program.h"

#include <memory>
#include <string>
#include <vector>

#include "apps/command_line/completion.h"
#include "apps/device/verbs.h"

namespace morvik_device {

morvik_command_line::Subcommand verbsCommand(const Surroundings& surroundings) {
  return {
      "verbs", "Lists the verbs that run reads, or explains one.", [&surroundings](CLI::App& app) {
        const auto name = std::make_shared<std::string>();
        std::vector<std::string> names;
        for (const Verb& verb : verbs())
          names.emplace_back(verb.name);
        morvik_command_line::takeOneOf(app.add_option("VERB", *name, "the verb to explain"), names);
        app.footer("One verb per line. A word with blanks is put in double quotes; JSON takes the rest of the line.");
        return [name, &surroundings] {
          return print(name->empty() ? verbsHelp() : helpOf(*name), surroundings) ? 0 : tellUnwritable(surroundings);
        };
      }};
}

}  // namespace morvik_device
