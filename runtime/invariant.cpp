#include "runtime/invariant.h"

#include <cstdlib>

namespace morvik::runtime {

void invariantBroken(const services::Logger& logger, const char* operation, std::string_view what) {
  MORVIK_LOG(logger, kit::lcl_vError, operation,
             "Morvik host: an invariant is broken: %@; this is a bug in the kit, please report it with this line",
             what);
#ifndef NDEBUG
  std::abort();
#endif
}

}  // namespace morvik::runtime
