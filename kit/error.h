// Errors of the outside world (transport, disk, codec) travel as values; the platform exception is the one thing
// thrown.
#pragma once

#include <string>

#include "kit/value.h"

namespace morvik::kit {

/// What went wrong outside, for people: says what, where, and if possible how to mend it. Shown as its message.
struct Error {
  std::string message;
  bool is_timeout = false;  ///< the time that was given for it had run out
};

/// The platform exception object: raised where the behaviour says that building something fails (a dictionary entry
/// without a value, say), caught by the exception guard only.
struct Exception {
  std::string name;
  std::string reason;
  Value info;  ///< user information; absent when there is none
};

}  // namespace morvik::kit
