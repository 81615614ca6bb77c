// Errors of the outside world (transport, disk, codec) are values; only the platform exception is thrown.
#pragma once

#include <string>

#include "kit/value.h"

namespace morvik::kit {

/// An outside failure, for people: what is wrong, where, and if possible how to fix it. Shown as its message.
struct Error {
  std::string message;
  bool is_timeout = false;  ///< its time limit was exceeded
};

/// The platform exception: raised where building something is defined to fail (a dictionary entry without a value,
/// say); caught only by the exception guard.
struct Exception {
  std::string name;
  std::string reason;
  Value info;  ///< user information; absent if there is none
};

}  // namespace morvik::kit
