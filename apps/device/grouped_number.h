// Numbers for people.
#pragma once

#include <cstdint>
#include <string>

namespace morvik_device {

/// "1,234,567".
std::string grouped(uint64_t number);

}  // namespace morvik_device
