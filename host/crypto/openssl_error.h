// What OpenSSL has to say about the last failure on this thread.
#pragma once

#include <string>

#include "kit/error.h"

namespace morvik::host {

/// "WHAT: reason"; takes the reasons out of this thread's error queue, so that none is shown a second time.
kit::Error opensslError(const std::string& what);

}  // namespace morvik::host
