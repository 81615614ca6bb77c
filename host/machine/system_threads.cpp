#include "host/machine/system_threads.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>

namespace morvik::host {

std::string SystemThreads::currentThreadDescription() const {
  constexpr size_t kNameBytes = 16;  // the system's own limit
  const pthread_t self = pthread_self();
  std::array<char, kNameBytes> name{};
  pthread_getname_np(self, name.data(), name.size());
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), "<Thread: 0x%jx>{number = %jd, name = %s}", static_cast<uintmax_t>(self),
                static_cast<intmax_t>(gettid()), name.data());
  return text.data();
}

}  // namespace morvik::host
