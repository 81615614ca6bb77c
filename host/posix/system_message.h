// The system's text for an error.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace morvik::host {

/// The text for an error number; the last one if none is given. Any thread.
inline std::string systemMessage(int error = errno) {
  return std::system_category().message(error);
}

}  // namespace morvik::host
