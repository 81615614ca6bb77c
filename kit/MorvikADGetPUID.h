// The sibling that knows the user's persistent identifier.
#pragma once

#include <optional>
#include <string>

namespace morvik::kit {

class MorvikADGetPUID {
 public:
  virtual ~MorvikADGetPUID() = default;
  /// The hashed persistent user id; nothing if there is none. Any thread; blocks only for the computation.
  virtual std::optional<std::string> getAESHashedPUID() const = 0;
};

}  // namespace morvik::kit
