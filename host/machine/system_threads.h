// Threads of the machine, as text.
#pragma once

#include <string>

#include "kit/threads.h"

namespace morvik::host {

/// "<Thread: 0x…>{number = 4711, name = morvik-main}": the system's number and name of the thread.
class SystemThreads final : public kit::Threads {
 public:
  std::string currentThreadDescription() const override;
};

}  // namespace morvik::host
