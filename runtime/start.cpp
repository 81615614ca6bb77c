#include "runtime/start.h"

#include <utility>
#include <variant>

#include "runtime/life/process_bound_core.h"
#include "runtime/make_instance.h"

namespace morvik::runtime {

StartResult start(const StartOptions& options, std::unique_ptr<Machine> machine) {
  const OwnProcess process(machine->processWord());
  auto made = makeInstance(options, std::move(machine));
  if (auto* instance = std::get_if<std::unique_ptr<Instance>>(&made))
    return {std::make_unique<ProcessBoundCore>(std::move(*instance), process), ""};
  return {nullptr, std::get<kit::Error>(made).message};
}

}  // namespace morvik::runtime
