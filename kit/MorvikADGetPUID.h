// The sibling that knows the persistent identifier of the user.
#pragma once

#include <optional>
#include <string>

namespace morvik::kit {

class MorvikADGetPUID {
 public:
  virtual ~MorvikADGetPUID() = default;
  /// The hashed persistent user id; nothing when there is none. Any thread; blocks for the computation alone.
  virtual std::optional<std::string> getAESHashedPUID() const = 0;
};

}  // namespace morvik::kit
