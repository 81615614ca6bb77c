#include "tests/crash/without_frame_pointers.h"

#include <cstddef>
#include <cstring>

namespace shop {

void readNothingInTheLibrary() {
  void* (*const volatile copy)(void*, const void*, size_t) = std::memcpy;
  const void* volatile nothing = nullptr;
  volatile char bytes[64];
  copy(const_cast<char*>(bytes), nothing, sizeof bytes);
  bytes[0] = bytes[1];  // so that the call is not a jump
}

}  // namespace shop
