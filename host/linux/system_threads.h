// Threads of the machine, as text.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <variant>

#include "runtime/machine/machine.h"

namespace morvik::host {

/// "<Thread: 0x…>{number = 4711, name = morvik-main}": the system's number and name of the thread.
class SystemThreads final : public runtime::MachineThreads {
 public:
  std::string currentThreadDescription() const override;
  std::variant<std::unique_ptr<runtime::MachineThread>, kit::Error> start(const char* name,
                                                                          std::function<void()> body) override;
};

}  // namespace morvik::host
