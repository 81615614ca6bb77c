#include "apps/device/mode_arguments.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "apps/device/options.h"

namespace morvik_device {

std::optional<int> readModeArguments(CLI::App& app, std::vector<std::string> arguments, const std::string& how_to_ask,
                                     const Surroundings& surroundings) {
  std::reverse(arguments.begin(), arguments.end());  // the parser takes them from the back
  try {
    app.parse(std::move(arguments));
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), surroundings.output);
    return 0;
  } catch (const CLI::ParseError& error) {
    surroundings.errors << "morvik-device: " << error.what() << "; see " << how_to_ask << std::endl;
    return kExitUsage;
  }
}

}  // namespace morvik_device
