#include "runtime/start.h"

#include <utility>
#include <variant>

#include "runtime/life/process_bound_core.h"
#include "runtime/make_host.h"

namespace morvik::runtime {

StartResult start(const HostOptions& options, std::unique_ptr<Machine> machine) {
  const OwnProcess process(machine->processWord());
  auto made = makeHost(options, std::move(machine));
  if (auto* host = std::get_if<std::unique_ptr<Host>>(&made))
    return {std::make_unique<ProcessBoundCore>(std::move(*host), process), ""};
  return {nullptr, std::get<kit::Error>(made).message};
}

}  // namespace morvik::runtime
