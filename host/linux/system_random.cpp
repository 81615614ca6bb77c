#include "host/linux/system_random.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace morvik::host {

void SystemRandom::fill(std::span<uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t filled = ::getrandom(bytes.data(), bytes.size(), 0);
    if (filled >= 0)
      bytes = bytes.subspan(static_cast<size_t>(filled));
    else if (errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "no random bytes from the system");
  }
}

}  // namespace morvik::host
