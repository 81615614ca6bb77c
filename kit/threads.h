// Threads, as the platform describes them.
#pragma once

#include <string>

namespace morvik::kit {

class Threads {
 public:
  virtual ~Threads() = default;
  /// The calling thread as text, for example "<Thread: 0x7f…>{number = 1, name = main}". Any thread; nothing blocks.
  virtual std::string currentThreadDescription() const = 0;
};

}  // namespace morvik::kit
