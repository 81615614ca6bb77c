// OpenSSL's reason for the latest failure on this thread.
#pragma once

#include <string>

#include "kit/error.h"

namespace morvik::host {

/// "WHAT: reason". Empties this thread's error queue, so that no reason is reported twice.
kit::Error opensslError(const std::string& what);

}  // namespace morvik::host
